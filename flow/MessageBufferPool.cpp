#include "flow/MessageBufferPool.h"

#include <algorithm>

namespace pelka {
namespace {

bool Smaller(const MessageBytes& a, const MessageBytes& b) { return a.size() < b.size(); }

}  // namespace

MessageBytes MessageBufferPool::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (kept_.empty()) return {};
  const auto largest = std::max_element(kept_.begin(), kept_.end(), Smaller);
  MessageBytes taken = std::move(*largest);
  kept_.erase(largest);
  return taken;
}

void MessageBufferPool::Give(MessageBytes buffer) {
  if (!buffer || buffer.size() > kLargestKept) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (kept_.size() < kKept) {
    kept_.push_back(std::move(buffer));
    return;
  }
  const auto smallest = std::min_element(kept_.begin(), kept_.end(), Smaller);
  // The buffer freed here, the smaller one, goes when `buffer` leaves scope.
  if (smallest->size() < buffer.size()) std::swap(*smallest, buffer);
}

}  // namespace pelka
