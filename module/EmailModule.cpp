#include "module/EmailModule.h"

#include <algorithm>

namespace pelka {
namespace {

constexpr uint8_t kEndMarker[] = {'\r', '\n', '.', '\r', '\n'};

}  // namespace

CPelkaEmailModule::CPelkaEmailModule() {
  std::fill(std::begin(column_ids_), std::end(column_ids_), kNoColumn);
  end_marker_searcher_.Clear();
  end_marker_searcher_.Init();
  end_marker_searcher_.AddKeyword(kEndMarker, sizeof kEndMarker);
}

CPelkaEmailModule::~CPelkaEmailModule() {
  ClearConnectionCounters();
  end_marker_searcher_.Clear();
}

}  // namespace pelka
