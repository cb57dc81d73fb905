#include "capture/MessageParts.h"

#include <gmime/gmime.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace pelka {
namespace {

// Owns one reference to a GObject.
struct GObjectUnref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <typename T>
using GRef = std::unique_ptr<T, GObjectUnref>;

// Owns a block GLib allocated.
struct GFree {
  void operator()(void* block) const { g_free(block); }
};
using GText = std::unique_ptr<char, GFree>;

constexpr char kUnknownType[] = "application/octet-stream";

// GMime keeps its character set tables and type registrations in globals of
// its own, made once per process; nothing of it is ever torn down, as other
// threads may still be parsing when a run ends.
void StartGMime() {
  static std::once_flag started;
  std::call_once(started, [] { g_mime_init(); });
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// "type/subtype" in lower case as the part declares it.
std::string DeclaredType(GMimeObject* object) {
  GMimeContentType* type = g_mime_object_get_content_type(object);
  // Without the header the parser assumes text/plain, which the part never said.
  if (!type || !g_mime_object_get_header(object, "Content-Type")) return kUnknownType;
  const GText text(g_mime_content_type_get_mime_type(type));
  return text ? Lower(text.get()) : kUnknownType;
}

// The file name as text the outputs can carry: the parser decodes encoded
// words and RFC 2231 parameters into UTF-8, but a name sent as raw bytes of
// another character set is left as it came.
std::string FileName(GMimePart* part) {
  const char* name = g_mime_part_get_filename(part);
  if (!name || !*name) return {};
  if (g_utf8_validate(name, -1, nullptr)) return name;
  const GText valid(g_utf8_make_valid(name, -1));
  return valid.get();
}

// Whether a leaf part is a file the analyst wants: anything sent as an
// attachment or with a name, and inline parts that are not text (pictures
// in a page, a signature, an embedded document).
bool IsTaken(GMimeObject* object) {
  GMimeContentDisposition* disposition = g_mime_object_get_content_disposition(object);
  if (disposition && g_mime_content_disposition_is_attachment(disposition)) return true;
  const char* name = g_mime_part_get_filename(GMIME_PART(object));
  if (name && *name) return true;
  GMimeContentType* type = g_mime_object_get_content_type(object);
  return !type || (!g_mime_content_type_is_type(type, "text", "*") &&
                   !g_mime_content_type_is_type(type, "multipart", "*"));
}

// What each byte is in base64 text; a table, as this runs over every byte
// of every encoded attachment.
enum class Base64Byte : uint8_t { kForeign, kLetter, kPad, kSpace };

constexpr std::array<Base64Byte, 256> Base64Bytes() {
  std::array<Base64Byte, 256> table{};
  for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
    table[static_cast<unsigned char>(c)] = Base64Byte::kLetter;
  for (const char c : std::string_view(" \t\r\n\v\f")) table[static_cast<unsigned char>(c)] = Base64Byte::kSpace;
  table['='] = Base64Byte::kPad;
  return table;
}
constexpr std::array<Base64Byte, 256> kBase64Bytes = Base64Bytes();

// Whether base64 text stops in the middle of a group of four letters or
// carries bytes that are neither letters nor white space: the decoder skips
// such bytes and drops the cut group, so the file it gives is not whole.
bool Base64Broken(GMimeStream* encoded) {
  if (g_mime_stream_reset(encoded) != 0) return true;
  char buffer[16384];
  uint64_t letters = 0;
  bool padded = false;
  for (;;) {
    const ssize_t read = g_mime_stream_read(encoded, buffer, sizeof buffer);
    if (read < 0) return true;
    if (read == 0) break;
    for (ssize_t i = 0; i < read; ++i) {
      switch (kBase64Bytes[static_cast<unsigned char>(buffer[i])]) {
        case Base64Byte::kSpace:
          break;
        case Base64Byte::kPad:
          padded = true;
          ++letters;
          break;
        case Base64Byte::kLetter:
          if (padded) return true;  // letters after the end
          ++letters;
          break;
        case Base64Byte::kForeign:
          return true;
      }
    }
  }
  return letters % 4 != 0;
}

// The walk over one message's tree, with its bounds.
class PartWalk {
 public:
  explicit PartWalk(const PartLimits& limits) : limits_(limits) {}

  MessageParts Walk(GMimeObject* root) {
    std::vector<std::pair<GMimeObject*, uint32_t>> pending{{root, 0}};  // borrowed from the message
    while (!pending.empty()) {
      const auto [object, depth] = pending.back();
      pending.pop_back();
      if (++looked_at_ > limits_.max_parts) {
        ++result_.cuts.too_many;
        continue;
      }
      if (depth > limits_.max_depth) {
        ++result_.cuts.too_deep;
        continue;
      }
      Visit(object, depth, pending);
    }
    return std::move(result_);
  }

 private:
  // Takes a leaf, or lines up the parts below a container (in reverse, so
  // that they come off the stack in document order).
  void Visit(GMimeObject* object, uint32_t depth, std::vector<std::pair<GMimeObject*, uint32_t>>& pending) {
    if (GMIME_IS_MULTIPART(object)) {
      GMimeMultipart* multipart = GMIME_MULTIPART(object);
      for (int i = g_mime_multipart_get_count(multipart) - 1; i >= 0; --i)
        pending.emplace_back(g_mime_multipart_get_part(multipart, i), depth + 1);
      return;
    }
    if (GMIME_IS_MESSAGE_PART(object)) {
      GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
      GMimeObject* body = inner ? g_mime_message_get_mime_part(inner) : nullptr;
      if (body) pending.emplace_back(body, depth + 1);
      return;
    }
    if (GMIME_IS_PART(object) && IsTaken(object)) Take(GMIME_PART(object));
  }

  void Take(GMimePart* part) {
    GMimeDataWrapper* content = g_mime_part_get_content(part);
    if (!content) {
      ++result_.cuts.malformed;
      return;
    }
    const bool broken = g_mime_data_wrapper_get_encoding(content) == GMIME_CONTENT_ENCODING_BASE64 &&
                        Base64Broken(g_mime_data_wrapper_get_stream(content));
    std::string decoded;
    if (!Decode(content, &decoded)) {
      ++result_.cuts.malformed;
      return;
    }
    if (decoded.size() > limits_.max_bytes - kept_bytes_) {
      ++result_.cuts.too_big;
      return;
    }
    if (broken) ++result_.cuts.malformed;
    kept_bytes_ += decoded.size();
    MessagePart& taken = result_.parts.emplace_back();
    taken.index = static_cast<uint32_t>(result_.parts.size());
    taken.file_name = FileName(part);
    taken.declared_type = DeclaredType(GMIME_OBJECT(part));
    taken.content = std::move(decoded);
  }

  // The part's bytes with the transfer encoding taken off.
  bool Decode(GMimeDataWrapper* content, std::string* decoded) {
    const GRef<GMimeStream> sink(g_mime_stream_mem_new());
    if (g_mime_data_wrapper_write_to_stream(content, sink.get()) < 0) return false;
    const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(sink.get()));
    decoded->assign(reinterpret_cast<const char*>(bytes->data), bytes->len);
    return true;
  }

  const PartLimits& limits_;
  MessageParts result_;
  uint32_t looked_at_ = 0;
  uint64_t kept_bytes_ = 0;
};

}  // namespace

MessageParts TakeMessageParts(std::span<const char> message, const PartLimits& limits) {
  StartGMime();
  const GRef<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(message.data(), message.size()));
  const GRef<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  const GRef<GMimeMessage> parsed(g_mime_parser_construct_message(parser.get(), nullptr));
  GMimeObject* root = parsed ? g_mime_message_get_mime_part(parsed.get()) : nullptr;
  if (!root) return {};
  return PartWalk(limits).Walk(root);
}

}  // namespace pelka
