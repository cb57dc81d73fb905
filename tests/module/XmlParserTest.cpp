#include "host/XmlParser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempFile.h"

namespace pelka {
namespace {

TEST(XmlParser, WritesTheOptionsDocument) {
  CTQXmlParser writer;
  ASSERT_TRUE(writer.SetDoc(nullptr));
  ASSERT_TRUE(writer.AddElem(L"options"));
  ASSERT_TRUE(writer.AddAttrib(L"max_flow_length", uint64_t{2}));
  const std::wstring doc = writer.GetDoc();
  EXPECT_EQ(doc, L"<options max_flow_length=\"2\"/>");

  CTQXmlParser reader;
  ASSERT_TRUE(reader.SetDoc(doc.c_str()));
  ASSERT_TRUE(reader.FindElem(L"options"));
  EXPECT_EQ(reader.GetAttrib(L"max_flow_length"), L"2");
  EXPECT_EQ(reader.GetAttrib(L"absent"), L"");
}

TEST(XmlParser, EmptyDocuments) {
  CTQXmlParser parser;
  EXPECT_EQ(parser.GetDoc(), L"");
  EXPECT_TRUE(parser.SetDoc(L""));
  EXPECT_FALSE(parser.FindElem());
  EXPECT_FALSE(parser.IntoElem());
  EXPECT_FALSE(parser.OutOfElem());
  EXPECT_EQ(parser.GetData(), L"");
  EXPECT_FALSE(parser.AddAttrib(L"a", L"b"));
}

TEST(XmlParser, RefusesMalformedText) {
  const std::vector<const wchar_t*> bad = {L"<options", L"<a></b>", L"plain text", L"<a/><b/>"};
  for (const wchar_t* text : bad) {
    CTQXmlParser parser;
    EXPECT_FALSE(parser.SetDoc(text)) << testing::PrintToString(std::wstring(text));
    EXPECT_FALSE(parser.FindElem());
  }
}

TEST(XmlParser, WalksElementsWithACursor) {
  CTQXmlParser parser;
  ASSERT_TRUE(parser.SetDoc(
      L"<?xml version=\"1.0\"?><!-- c --><root><a>1</a><skip/><a x=\"y\">2<![CDATA[<3>]]></a>"
      L"<inner><a>deep</a></inner></root>"));
  EXPECT_FALSE(parser.FindElem(L"a"));  // not at the document level
  ASSERT_TRUE(parser.FindElem(L"root"));
  ASSERT_TRUE(parser.IntoElem());
  std::vector<std::wstring> data;
  while (parser.FindElem(L"a")) data.push_back(parser.GetData() + L"/" + parser.GetAttrib(L"x"));
  EXPECT_EQ(data, (std::vector<std::wstring>{L"1/", L"2<3>/y"}));
  // A failed search leaves the position on the last match.
  EXPECT_EQ(parser.GetAttrib(L"x"), L"y");
  ASSERT_TRUE(parser.FindElem());
  ASSERT_TRUE(parser.IntoElem());
  ASSERT_TRUE(parser.FindElem(L"a"));
  EXPECT_EQ(parser.GetData(), L"deep");
  ASSERT_TRUE(parser.OutOfElem());
  ASSERT_TRUE(parser.OutOfElem());
  EXPECT_FALSE(parser.OutOfElem());
  EXPECT_FALSE(parser.FindElem());  // root was the only element
}

TEST(XmlParser, BuildsNestedDocumentsAndEscapes) {
  CTQXmlParser parser;
  ASSERT_TRUE(parser.AddElem(L"StringTable"));
  EXPECT_FALSE(parser.AddElem(L"second_root"));
  ASSERT_TRUE(parser.IntoElem());
  ASSERT_TRUE(parser.AddElem(L"String", L"a < b & \"邮件\""));
  ASSERT_TRUE(parser.AddAttrib(L"id", L"IDS_A"));
  ASSERT_TRUE(parser.AddAttrib(L"id", L"IDS_B"));  // replaces, does not repeat
  ASSERT_TRUE(parser.AddElem(L"String", L"second"));
  parser.OutOfElem();
  EXPECT_EQ(parser.GetDoc(),
            L"<StringTable><String id=\"IDS_B\">a &lt; b &amp; \"邮件\"</String><String>second</String>"
            L"</StringTable>");
}

TEST(XmlParser, LoadsFilesInEachEncoding) {
  const std::wstring doc = L"<StringTable><String id=\"X\">邮件日志</String></StringTable>";
  struct Case {
    const char* name;
    std::string bytes;
  };
  const std::vector<Case> cases = {
      {"UTF-8", "<StringTable><String id=\"X\">\xE9\x82\xAE\xE4\xBB\xB6\xE6\x97\xA5\xE5\xBF\x97</String>"
                "</StringTable>"},
      {"UTF-8 with BOM", "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<StringTable><String "
                         "id=\"X\">\xE9\x82\xAE\xE4\xBB\xB6\xE6\x97\xA5\xE5\xBF\x97</String></StringTable>"},
      {"UTF-16LE with BOM", test::Utf16LeWithBom(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + doc)},
  };
  for (const Case& c : cases) {
    test::TempFile file(c.bytes);
    CTQXmlParser parser;
    ASSERT_TRUE(parser.Load(file.wide_path().c_str())) << c.name;
    ASSERT_TRUE(parser.FindElem(L"StringTable")) << c.name;
    parser.IntoElem();
    ASSERT_TRUE(parser.FindElem(L"String")) << c.name;
    EXPECT_EQ(parser.GetData(), L"邮件日志") << c.name;
  }
  CTQXmlParser parser;
  EXPECT_FALSE(parser.Load(L"/nonexistent/file.xml"));
  EXPECT_FALSE(parser.Load(nullptr));
}

}  // namespace
}  // namespace pelka
