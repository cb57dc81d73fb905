#include "capture/FileHashes.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>

namespace pelka {
namespace {

// GChecksum takes at most a gssize per update; a part is fed in pieces so
// that no length is ever narrowed.
constexpr size_t kPiece = size_t{1} << 30;

std::string Digest(GChecksumType type, std::span<const char> bytes) {
  GChecksum* checksum = g_checksum_new(type);
  for (size_t at = 0; at < bytes.size(); at += kPiece) {
    const size_t length = std::min(kPiece, bytes.size() - at);
    g_checksum_update(checksum, reinterpret_cast<const guchar*>(bytes.data() + at), static_cast<gssize>(length));
  }
  std::string hex = g_checksum_get_string(checksum);  // lower-case hex, owned by the checksum
  g_checksum_free(checksum);
  return hex;
}

}  // namespace

FileHashes HashBytes(std::span<const char> bytes) {
  return {Digest(G_CHECKSUM_MD5, bytes), Digest(G_CHECKSUM_SHA1, bytes), Digest(G_CHECKSUM_SHA256, bytes)};
}

}  // namespace pelka
