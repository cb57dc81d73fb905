#include "capture/StopSignal.h"

#include <csignal>
#include <atomic>

namespace pelka {
namespace {

std::atomic<CaptureSource*> g_stoppable_source{nullptr};
std::atomic<PcapBlockReader*> g_stoppable_blocks{nullptr};
std::atomic<bool> g_stop_requested{false};

extern "C" void StopOnSignal(int) {
  g_stop_requested.store(true);
  if (CaptureSource* source = g_stoppable_source.load()) source->Stop();
  if (PcapBlockReader* blocks = g_stoppable_blocks.load()) blocks->Stop();
}

}  // namespace

StopSignalScope::StopSignalScope(CaptureSource* source, PcapBlockReader* blocks) {
  g_stop_requested.store(false);
  g_stoppable_source.store(source);
  g_stoppable_blocks.store(blocks);
  struct sigaction action {};
  action.sa_handler = StopOnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &old_int_);
  sigaction(SIGTERM, &action, &old_term_);
  sigaction(SIGALRM, &action, &old_alarm_);
  sigaction(SIGHUP, &action, &old_hup_);
}

StopSignalScope::~StopSignalScope() {
  sigaction(SIGINT, &old_int_, nullptr);
  sigaction(SIGTERM, &old_term_, nullptr);
  sigaction(SIGALRM, &old_alarm_, nullptr);
  sigaction(SIGHUP, &old_hup_, nullptr);
  g_stoppable_source.store(nullptr);
  g_stoppable_blocks.store(nullptr);
}

bool StopRequested() { return g_stop_requested.load(); }

}  // namespace pelka
