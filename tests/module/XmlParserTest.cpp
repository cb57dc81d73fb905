#include "host/XmlParser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempFile.h"

namespace pelka {
namespace {

// Documents of the options' form are read in ModuleOptions' table; writing is
// checked by the same tests, which read back what they save.
TEST(XmlParser, WalksElementsWithACursor) {
  CTQXmlParser parser;
  ASSERT_TRUE(parser.SetDoc(
      L"<?xml version=\"1.0\"?><!-- c --><root><a>1</a><skip/><a x=\"y\">2<![CDATA[<3>]]></a>"
      L"<inner><a>deep</a></inner></root>"));
  EXPECT_FALSE(parser.FindElem(L"a"));  // not at the document level
  ASSERT_TRUE(parser.FindElem(L"root") && parser.IntoElem());
  std::vector<std::wstring> data;
  while (parser.FindElem(L"a")) data.push_back(parser.GetData() + L"/" + parser.GetAttrib(L"x"));
  EXPECT_EQ(data, (std::vector<std::wstring>{L"1/", L"2<3>/y"}));
  EXPECT_EQ(parser.GetAttrib(L"x"), L"y");  // a failed search stays on the last match
  ASSERT_TRUE(parser.FindElem() && parser.IntoElem() && parser.FindElem(L"a"));
  EXPECT_EQ(parser.GetData(), L"deep");
  ASSERT_TRUE(parser.OutOfElem() && parser.OutOfElem());
  EXPECT_FALSE(parser.OutOfElem());
  EXPECT_FALSE(parser.FindElem());  // root was the only element
  EXPECT_FALSE(parser.SetDoc(L"<a/><b/>") || parser.FindElem()) << "a refused document leaves nothing to find";
}

TEST(XmlParser, LoadsFilesInEachEncoding) {
  const std::string utf8 = "<StringTable><String>\xE9\x82\xAE\xE4\xBB\xB6</String></StringTable>";
  for (const std::string& bytes :
       {utf8, "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n" + utf8,
        test::Utf16LeWithBom(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?><StringTable><String>邮件</String>"
                             L"</StringTable>")}) {
    test::TempFile file(bytes);
    CTQXmlParser parser;
    ASSERT_TRUE(parser.Load(file.wide_path().c_str()) && parser.FindElem(L"StringTable"));
    parser.IntoElem();
    ASSERT_TRUE(parser.FindElem(L"String"));
    EXPECT_EQ(parser.GetData(), L"邮件");
  }
  CTQXmlParser parser;
  EXPECT_FALSE(parser.Load(L"/nonexistent/file.xml"));
  EXPECT_FALSE(parser.Load(nullptr));
}

}  // namespace
}  // namespace pelka
