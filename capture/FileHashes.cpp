#include "capture/FileHashes.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>

namespace pelka {
namespace {

// The three digests are fed the same piece in turn, so each piece is read
// from memory once and hashed three times while it is still in cache.
constexpr size_t kPiece = size_t{64} << 10;

struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, ContextFree>;

std::string Hex(const unsigned char* digest, unsigned int length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex(size_t{length} * 2, '0');
  for (unsigned int i = 0; i < length; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 0xf];
  }
  return hex;
}

}  // namespace

FileHashes HashBytes(std::span<const char> bytes) {
  const std::array<const EVP_MD*, 3> kinds = {EVP_md5(), EVP_sha1(), EVP_sha256()};
  std::array<Context, 3> contexts;
  for (size_t k = 0; k < kinds.size(); ++k) {
    contexts[k].reset(EVP_MD_CTX_new());
    // Only a library without these digests at all could fail here.
    if (!contexts[k] || EVP_DigestInit_ex(contexts[k].get(), kinds[k], nullptr) != 1) return {};
  }
  for (size_t at = 0; at < bytes.size(); at += kPiece) {
    const size_t length = std::min(kPiece, bytes.size() - at);
    for (Context& context : contexts) EVP_DigestUpdate(context.get(), bytes.data() + at, length);
  }
  std::array<std::string, 3> hex;
  for (size_t k = 0; k < kinds.size(); ++k) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(contexts[k].get(), digest, &length);
    hex[k] = Hex(digest, length);
  }
  return {std::move(hex[0]), std::move(hex[1]), std::move(hex[2])};
}

}  // namespace pelka
