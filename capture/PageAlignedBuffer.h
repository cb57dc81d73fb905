// Byte buffers that start on a page boundary, for the bytes the kernel copies
// in from capture files.
//
// A large heap block starts 16 bytes into a page. On the machines measured,
// the kernel copied file data into such a buffer about three times slower
// than into one that starts on a page boundary, which made reading the file
// the dearest step of a run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

namespace pelka {

struct PageAlignedFree {
  void operator()(uint8_t* bytes) const { std::free(bytes); }
};

using PageAlignedBytes = std::unique_ptr<uint8_t[], PageAlignedFree>;

// `size` bytes, left uninitialised, starting on a page boundary.
inline PageAlignedBytes MakePageAlignedBytes(size_t size) {
  constexpr size_t kPage = 4096;
  const size_t rounded = (size + kPage - 1) / kPage * kPage;
  auto* bytes = static_cast<uint8_t*>(std::aligned_alloc(kPage, rounded ? rounded : kPage));
  if (!bytes) throw std::bad_alloc();
  return PageAlignedBytes(bytes);
}

}  // namespace pelka
