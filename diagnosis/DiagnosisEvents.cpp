// The module's six diagnosis events and the response-time thresholds of the
// two slow-response events.
#include <array>

#include "diagnosis/DiagnosisChecks.h"
#include "host/DiagnosisInterfaces.h"
#include "host/Types.h"

namespace pelka {
namespace {

// Response-time threshold in milliseconds: default, lowest and highest value.
constexpr int32_t kDefaultThresholdMs = 200;
constexpr int32_t kLowestThresholdMs = 1;
constexpr int32_t kHighestThresholdMs = 100000;
// The host's last DefineEvent argument; always 1.
constexpr uint32_t kDefineFlags = 1;

}  // namespace

void CDiagnosisChecks::DefineEvents(IPelkaDiagnosisService* service, std::wstring& holder) {
  struct EventDefinition {
    const char* key;
    const wchar_t* title_id;
    const wchar_t* default_title;
    uint32_t codes[3];
    IPelkaDiagnosisEvent* CDiagnosisChecks::*handle;
    const char* parameter_key;  // null: the event has no threshold
    uint32_t CDiagnosisChecks::*parameter;
  };
  // Defined in this order: SMTP slow, dubious, error; POP3 dubious, slow, error.
  static constexpr std::array<EventDefinition, 6> kEvents = {{
      {"SMTPServerSlowResponseTime", L"IDS_SMTP_SERVER_SLOW_RESP", L"SMTP 服务器慢响应", {2, 6, 2},
       &CDiagnosisChecks::smtp_slow_event_, "smtp_time", &CDiagnosisChecks::smtp_time_parameter_},
      {"SMTPNonSmtpTraffic", L"IDS_SMTP_DUBIOUS_CONV", L"SMTP 可疑会话", {1, 6, 4},
       &CDiagnosisChecks::smtp_dubious_event_, nullptr, nullptr},
      {"SMTPServerReturnedError", L"IDS_SMTP_RETURN_ERROR", L"SMTP 服务器返回错误", {3, 6, 1},
       &CDiagnosisChecks::smtp_error_event_, nullptr, nullptr},
      {"POP3NonPop3Traffic", L"IDS_POP3_DUBIOUS_CONV", L"POP3 可疑会话", {1, 6, 4},
       &CDiagnosisChecks::pop3_dubious_event_, nullptr, nullptr},
      {"POP3ServerSlowResponseTime", L"IDS_POP3_SLOW_RESP", L"POP3 服务器慢响应", {2, 6, 2},
       &CDiagnosisChecks::pop3_slow_event_, "pop3_time", &CDiagnosisChecks::pop3_time_parameter_},
      {"POP3ServerReturnedError", L"IDS_POP3_RETURN_ERROR", L"POP3 服务器返回错误", {3, 6, 1},
       &CDiagnosisChecks::pop3_error_event_, nullptr, nullptr},
  }};

  for (const EventDefinition& definition : kEvents) {
    // The host copies the title at once, so the shared holder may be reused.
    const wchar_t* title = texts_.GetString(holder, definition.title_id, definition.default_title);
    IPelkaDiagnosisEvent* event = nullptr;
    if (service && service->DefineEvent(definition.key, title, definition.codes[0], definition.codes[1],
                                        definition.codes[2], &event, kDefineFlags) != kStatusOk) {
      event = nullptr;
    }
    this->*definition.handle = event;
    if (!event || !definition.parameter_key) continue;
    const wchar_t* caption = texts_.GetString(holder, L"IDS_RESP_TIME", L"响应时间(ms)");
    this->*definition.parameter = event->AddParameter(definition.parameter_key, caption, kDefaultThresholdMs,
                                                      kLowestThresholdMs, kHighestThresholdMs);
  }
}

void CDiagnosisChecks::ReleaseEvents() {
  IPelkaDiagnosisEvent** handles[] = {&smtp_slow_event_,   &smtp_dubious_event_, &smtp_error_event_,
                                      &pop3_slow_event_,   &pop3_dubious_event_, &pop3_error_event_};
  for (IPelkaDiagnosisEvent** handle : handles) {
    if (!*handle) continue;
    (*handle)->Release();
    *handle = nullptr;
  }
}

}  // namespace pelka
