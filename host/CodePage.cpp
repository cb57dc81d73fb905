#include "host/CodePage.h"

#include <iconv.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_map>

namespace pelka {
namespace {

static_assert(sizeof(wchar_t) == 4, "wide text is UTF-32 on this platform");

constexpr wchar_t kReplacementChar = 0xFFFD;
constexpr char kUnmappableChar = '?';
constexpr const char* kWideName = "WCHAR_T";

struct CodePageName {
  unsigned code_page;
  const char* iconv_name;
};

// Only code pages in which every byte below 0x80 stands for itself, with no
// shift states, are listed: the ASCII fast path relies on that.
constexpr CodePageName kCodePageNames[] = {
    {437, "CP437"},         {737, "CP737"},         {775, "CP775"},         {850, "CP850"},
    {852, "CP852"},         {855, "CP855"},         {857, "CP857"},         {860, "CP860"},
    {861, "CP861"},         {862, "CP862"},         {863, "CP863"},         {864, "CP864"},
    {865, "CP865"},         {866, "CP866"},         {869, "CP869"},         {874, "CP874"},
    {932, "CP932"},         {936, "CP936"},         {949, "CP949"},         {950, "CP950"},
    {1250, "CP1250"},       {1251, "CP1251"},       {1252, "CP1252"},       {1253, "CP1253"},
    {1254, "CP1254"},       {1255, "CP1255"},       {1256, "CP1256"},       {1257, "CP1257"},
    {1258, "CP1258"},       {10000, "MACINTOSH"},   {20127, "ASCII"},       {20866, "KOI8-R"},
    {20932, "EUC-JP"},      {21866, "KOI8-U"},      {28591, "ISO-8859-1"},  {28592, "ISO-8859-2"},
    {28593, "ISO-8859-3"},  {28594, "ISO-8859-4"},  {28595, "ISO-8859-5"},  {28596, "ISO-8859-6"},
    {28597, "ISO-8859-7"},  {28598, "ISO-8859-8"},  {28599, "ISO-8859-9"},  {28603, "ISO-8859-13"},
    {28605, "ISO-8859-15"}, {51932, "EUC-JP"},      {51936, "EUC-CN"},      {51949, "EUC-KR"},
    {54936, "GB18030"},     {65001, "UTF-8"},
};

std::atomic<unsigned> g_ansi_code_page{kCodePageGbk};

const char* IconvName(unsigned code_page) {
  for (const CodePageName& entry : kCodePageNames) {
    if (entry.code_page == code_page) return entry.iconv_name;
  }
  return nullptr;
}

unsigned ResolveCodePage(unsigned code_page) {
  if (code_page == kCodePageAnsi || code_page == kCodePageThreadAnsi) {
    return g_ansi_code_page.load(std::memory_order_relaxed);
  }
  return code_page;
}

enum class Direction : unsigned { kToWide = 0, kFromWide = 1 };

const iconv_t kNoHandle = reinterpret_cast<iconv_t>(-1);

class IconvHandle {
 public:
  explicit IconvHandle(iconv_t handle) : handle_(handle) {}
  IconvHandle(const IconvHandle&) = delete;
  IconvHandle& operator=(const IconvHandle&) = delete;
  ~IconvHandle() {
    if (handle_ != kNoHandle) iconv_close(handle_);
  }
  iconv_t get() const { return handle_; }

 private:
  iconv_t handle_;
};

// Handles of one thread, opened at first use and kept until the thread ends.
// A code page that iconv cannot open is remembered as such, so that it is not
// tried again on every call.
iconv_t ThreadConverter(unsigned code_page, Direction direction) {
  thread_local std::unordered_map<uint64_t, IconvHandle> handles;
  const uint64_t key = (uint64_t{code_page} << 1) | static_cast<unsigned>(direction);
  auto found = handles.find(key);
  if (found != handles.end()) return found->second.get();

  iconv_t handle = kNoHandle;
  if (const char* name = IconvName(code_page)) {
    handle = direction == Direction::kToWide ? iconv_open(kWideName, name) : iconv_open(name, kWideName);
  }
  handles.try_emplace(key, handle);
  return handle;
}

bool IsAscii(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool IsAscii(std::wstring_view text) {
  return std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= 0 && c < 0x80; });
}

// Without a converter only ASCII can be read; everything else is marked
// rather than dropped.
void WidenWithoutConverter(std::string_view bytes, std::wstring& out) {
  for (char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out.push_back(byte < 0x80 ? static_cast<wchar_t>(byte) : kReplacementChar);
  }
}

// Values that are no Unicode scalar (surrogates, beyond U+10FFFF) are not
// always rejected by the converter underneath; they become '?' beforehand.
std::wstring_view WithoutNonScalars(std::wstring_view text, std::wstring& storage) {
  if (std::all_of(text.begin(), text.end(), IsScalarValue)) return text;
  storage.assign(text);
  std::replace_if(storage.begin(), storage.end(), [](wchar_t c) { return !IsScalarValue(c); }, L'?');
  return storage;
}

void NarrowWithoutConverter(std::wstring_view text, std::string& out) {
  for (wchar_t c : text) out.push_back(c >= 0 && c < 0x80 ? static_cast<char>(c) : kUnmappableChar);
}

// Runs iconv over the input into `out`. Input that iconv rejects (invalid, incomplete or unmappable) costs one input unit
// of `unit` bytes, which `on_bad_input` replaces; the conversion then goes on
// with the next unit. `out` grows as needed and is cut to the written size.
template <typename Text, typename OnBadInput>
void RunIconv(iconv_t handle, const char* input, size_t input_length, size_t unit, Text& out,
              OnBadInput on_bad_input) {
  using Char = typename Text::value_type;
  size_t out_used = 0;
  iconv(handle, nullptr, nullptr, nullptr, nullptr);  // fresh shift state

  char* in = const_cast<char*>(input);
  size_t in_left = input_length;
  bool flushing = false;
  for (;;) {
    if (out.size() - out_used < 8) out.resize(out.size() * 2 + 16);
    char* out_start = reinterpret_cast<char*>(out.data() + out_used);
    char* out_ptr = out_start;
    size_t out_left = (out.size() - out_used) * sizeof(Char);
    const size_t result = flushing ? iconv(handle, nullptr, nullptr, &out_ptr, &out_left)
                                   : iconv(handle, &in, &in_left, &out_ptr, &out_left);
    out_used += static_cast<size_t>(out_ptr - out_start) / sizeof(Char);
    if (result != static_cast<size_t>(-1)) {
      if (flushing) break;
      flushing = true;
      continue;
    }
    if (errno == E2BIG) {
      out.resize(out.size() * 2 + 16);
      continue;
    }
    if (flushing || in_left == 0 || (errno != EILSEQ && errno != EINVAL)) break;
    if (out_used == out.size()) out.resize(out.size() * 2 + 16);
    out[out_used++] = on_bad_input();
    const size_t skip = std::min(unit, in_left);
    in += skip;
    in_left -= skip;
    iconv(handle, nullptr, nullptr, nullptr, nullptr);
  }
  out.resize(out_used);
}

// UTF-8 is decoded here rather than by the converter: it is faster, and the
// converter reads 4-byte forms above U+10FFFF (and older 5- and 6-byte forms)
// as characters. Ill-formed input becomes one U+FFFD for each maximal
// subpart, as Unicode recommends: the longest start of a well-formed sequence
// (a lead byte and the followers that still fit it), or a single byte that
// starts none. So a character cut short gives one U+FFFD wherever it is cut,
// and decoding goes on with the byte that did not fit.

// The range the first follower of `lead` must lie in (the later ones lie in
// 0x80-0xBF), and how many followers the lead asks for; 0 for a byte that
// starts no sequence.
struct Utf8Lead {
  int followers;
  uint8_t low;
  uint8_t high;
};

Utf8Lead ReadUtf8Lead(uint8_t lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return {1, 0x80, 0xBF};
  if (lead == 0xE0) return {2, 0xA0, 0xBF};  // no overlong forms
  if (lead == 0xED) return {2, 0x80, 0x9F};  // no surrogates
  if (lead >= 0xE1 && lead <= 0xEF) return {2, 0x80, 0xBF};
  if (lead == 0xF0) return {3, 0x90, 0xBF};  // no overlong forms
  if (lead == 0xF4) return {3, 0x80, 0x8F};  // nothing above U+10FFFF
  if (lead >= 0xF1 && lead <= 0xF3) return {3, 0x80, 0xBF};
  return {0, 0, 0};
}

void DecodeUtf8(std::string_view bytes, std::wstring& out) {
  out.resize(bytes.size());
  wchar_t* wide = out.data();
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* const end = p + bytes.size();
  while (p < end) {
    const uint8_t lead = *p++;
    if (lead < 0x80) {
      *wide++ = static_cast<wchar_t>(lead);
      continue;
    }
    const Utf8Lead form = ReadUtf8Lead(lead);
    uint32_t c = lead & (0x7F >> (form.followers + 1));
    int taken = 0;
    for (; taken < form.followers && p < end; ++taken, ++p) {
      const uint8_t low = taken == 0 ? form.low : 0x80;
      const uint8_t high = taken == 0 ? form.high : 0xBF;
      if (*p < low || *p > high) break;
      c = (c << 6) | (*p & 0x3F);
    }
    const bool complete = form.followers > 0 && taken == form.followers;
    *wide++ = complete ? static_cast<wchar_t>(c) : kReplacementChar;
  }
  out.resize(static_cast<size_t>(wide - out.data()));
}

}  // namespace

bool SetAnsiCodePage(unsigned code_page) {
  if (code_page == kCodePageAnsi || code_page == kCodePageThreadAnsi) return false;
  if (!IsCodePageSupported(code_page)) return false;
  g_ansi_code_page.store(code_page, std::memory_order_relaxed);
  return true;
}

unsigned GetAnsiCodePage() { return g_ansi_code_page.load(std::memory_order_relaxed); }

bool IsCodePageSupported(unsigned code_page) {
  code_page = ResolveCodePage(code_page);
  return ThreadConverter(code_page, Direction::kToWide) != kNoHandle &&
         ThreadConverter(code_page, Direction::kFromWide) != kNoHandle;
}

void MultiByteToWide(unsigned code_page, std::string_view bytes, std::wstring& out) {
  out.clear();
  if (bytes.empty()) return;
  if (IsAscii(bytes)) {
    out.assign(bytes.begin(), bytes.end());
    return;
  }
  if (ResolveCodePage(code_page) == kCodePageUtf8) {
    DecodeUtf8(bytes, out);
    return;
  }
  iconv_t handle = ThreadConverter(ResolveCodePage(code_page), Direction::kToWide);
  if (handle == kNoHandle) {
    out.clear();
    WidenWithoutConverter(bytes, out);
    return;
  }
  // One wide character per input byte is enough for every listed code page.
  out.resize(bytes.size());
  RunIconv(handle, bytes.data(), bytes.size(), 1, out, [] { return kReplacementChar; });
}

std::wstring MultiByteToWide(unsigned code_page, std::string_view bytes) {
  std::wstring out;
  MultiByteToWide(code_page, bytes, out);
  return out;
}

// UTF-8 is what every output line is written in: encoded here directly, as
// the converter would, without its per-call cost. Non-scalar values become
// '?', as they do on the converter's path.
void EncodeUtf8(std::wstring_view text, std::string& out) {
  // Written through a pointer into room for the longest form, then cut to
  // what was written: appending byte by byte cost more than the encoding.
  const size_t start = out.size();
  out.resize(start + text.size() * 4);
  char* bytes = out.data() + start;
  const wchar_t* next = text.data();
  const wchar_t* const end = next + text.size();
  while (next != end) {
    // Output lines are mostly ASCII: eight units at a time while all are.
    if (end - next >= 8) {
      // Both loops work on copies: a store through `bytes` could alias the
      // text, which would make every unit be read again after each store.
      wchar_t block[8];
      std::memcpy(block, next, sizeof block);
      uint32_t any = 0;
      for (int i = 0; i < 8; ++i) any |= static_cast<uint32_t>(block[i]);
      if (any < 0x80) {
        char narrowed[8];
        for (int i = 0; i < 8; ++i) narrowed[i] = static_cast<char>(block[i]);
        std::memcpy(bytes, narrowed, sizeof narrowed);
        bytes += 8;
        next += 8;
        continue;
      }
    }
    const wchar_t wide = *next++;
    const auto c = static_cast<uint32_t>(IsScalarValue(wide) ? wide : L'?');
    if (c < 0x80) {
      *bytes++ = static_cast<char>(c);
    } else if (c < 0x800) {
      *bytes++ = static_cast<char>(0xC0 | (c >> 6));
      *bytes++ = static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      *bytes++ = static_cast<char>(0xE0 | (c >> 12));
      *bytes++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *bytes++ = static_cast<char>(0x80 | (c & 0x3F));
    } else {
      *bytes++ = static_cast<char>(0xF0 | (c >> 18));
      *bytes++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *bytes++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *bytes++ = static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  out.resize(static_cast<size_t>(bytes - out.data()));
}

void WideToMultiByte(unsigned code_page, std::wstring_view text, std::string& out) {
  out.clear();
  if (text.empty()) return;
  // The encoder keeps ASCII as it is: no test for it first.
  if (ResolveCodePage(code_page) == kCodePageUtf8) {
    EncodeUtf8(text, out);
    return;
  }
  if (IsAscii(text)) {
    out.assign(text.begin(), text.end());
    return;
  }
  iconv_t handle = ThreadConverter(ResolveCodePage(code_page), Direction::kFromWide);
  if (handle == kNoHandle) {
    NarrowWithoutConverter(text, out);
    return;
  }
  std::wstring sanitized;
  text = WithoutNonScalars(text, sanitized);
  out.resize(text.size() * 2);
  RunIconv(handle, reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t), sizeof(wchar_t), out,
           [] { return kUnmappableChar; });
}

std::string WideToMultiByte(unsigned code_page, std::wstring_view text) {
  std::string out;
  WideToMultiByte(code_page, text, out);
  return out;
}

bool IsLeadByte(unsigned code_page, uint8_t byte) {
  switch (code_page) {
    case 936:
    case 949:
    case 950:
      return byte >= 0x81 && byte <= 0xFE;
    case 932:
      return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC);
    default:
      return false;
  }
}

}  // namespace pelka
