#include "capture/CaptureFilter.h"

#include <pcap/pcap.h>

#include <memory>

namespace pelka {
namespace {

struct HandleCloser {
  void operator()(pcap_t* handle) const { pcap_close(handle); }
};

struct Program {
  bpf_program code{};
  ~Program() { pcap_freecode(&code); }
};

// Compiles into `program`; "" on success, else libpcap's reason.
std::string Compile(pcap_t* handle, const std::string& expression, Program& program) {
  if (pcap_compile(handle, &program.code, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0) return {};
  return "the filter \"" + expression + "\" is not valid: " + pcap_geterr(handle);
}

}  // namespace

std::string CheckFilterExpression(const std::string& expression) {
  if (expression.empty()) return {};
  const std::unique_ptr<pcap_t, HandleCloser> dead(pcap_open_dead(DLT_EN10MB, 65535));
  if (!dead) return {};  // nothing to check against: the interface's own compile reports it
  Program program;
  return Compile(dead.get(), expression, program);
}

bool ApplyFilter(pcap* handle, const std::string& expression, std::string* error) {
  if (expression.empty()) return true;
  Program program;
  if (std::string problem = Compile(handle, expression, program); !problem.empty()) {
    *error = problem;
    return false;
  }
  if (pcap_setfilter(handle, &program.code) == 0) return true;
  *error = std::string("cannot set the filter: ") + pcap_geterr(handle);
  return false;
}

}  // namespace pelka
