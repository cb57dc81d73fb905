#include "flow/EmailSessionHost.h"

namespace pelka {
namespace {

constexpr uint8_t kEndMarker[] = {'\r', '\n', '.', '\r', '\n'};

}  // namespace

CEmailSessionHost::CEmailSessionHost() {
  end_marker_searcher_.Clear();
  end_marker_searcher_.Init();
  end_marker_searcher_.AddKeyword(kEndMarker, sizeof kEndMarker);
}

CEmailSessionHost::~CEmailSessionHost() { end_marker_searcher_.Clear(); }

}  // namespace pelka
