// Reads random documents with the XML parser, from a file (any encoding the
// parser detects) or from wide text, and walks every element with the cursor.
// A document read from wide text must come back from what GetDoc writes, the
// same from its second writing on.
// (A file's bytes that are not UTF-8 are dropped on the way to wide text, so
// its written form may read differently; it is only walked.)
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzCommon.h"
#include "host/XmlParser.h"
#include "support/TempFile.h"

namespace {

using pelka::fuzz::Fail;
constexpr int kMaxDepth = 64;

// Visits every element under the current parent; returns how many there are.
size_t Walk(pelka::CTQXmlParser& parser, int depth) {
  size_t count = 0;
  while (parser.FindElem()) {
    ++count;
    parser.GetData();
    parser.GetAttrib(L"id");
    if (depth < kMaxDepth && parser.IntoElem()) {
      count += Walk(parser, depth + 1);
      if (!parser.OutOfElem()) Fail("cannot go back up");
    }
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  pelka::CTQXmlParser parser;
  bool read = false;
  if (data[0] % 3 == 0) {
    const pelka::test::TempFile file(bytes, ".xml");
    read = parser.Load(file.wide_path().c_str());
  } else {  // one character per byte, or any UTF-16 unit
    read = parser.SetDoc(pelka::fuzz::WideText(data + 1, size - 1, data[0] % 3 == 2).c_str());
  }
  const size_t elements = Walk(parser, 0);
  if (!read && elements != 0) Fail("a refused document still has elements");
  if (!read || data[0] % 3 == 0) return 0;

  // Reading turns a raw CR in text into LF, and writing leaves text's CR raw,
  // so only the second writing is final; from there on it must not change.
  pelka::CTQXmlParser again;
  if (!again.SetDoc(parser.GetDoc().c_str())) Fail("the written document does not read back");
  if (Walk(again, 0) != elements) Fail("the written document has other elements");
  const std::wstring written = again.GetDoc();
  pelka::CTQXmlParser third;
  if (!third.SetDoc(written.c_str())) Fail("the document written twice does not read back");
  if (Walk(third, 0) != elements) Fail("the document written twice has other elements");
  if (third.GetDoc() != written) Fail("writing is not stable");
  return 0;
}
