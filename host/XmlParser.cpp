#include "host/XmlParser.h"

#include <cwchar>
#include <sstream>

namespace pelka {
namespace {

std::string Utf8(const wchar_t* text) { return text ? pugi::as_utf8(text) : std::string(); }
std::wstring Wide(const char* text) { return text ? pugi::as_wide(text) : std::wstring(); }

// A document holds exactly one root element; the parser itself also reads
// fragments with several.
bool HasOneRoot(const pugi::xml_document& document) {
  int roots = 0;
  for (pugi::xml_node node = document.first_child(); node; node = node.next_sibling()) {
    if (node.type() == pugi::node_element) ++roots;
  }
  return roots == 1;
}

bool NameMatches(const pugi::xml_node& node, const std::string& name) {
  return node.type() == pugi::node_element && (name.empty() || name == node.name());
}

}  // namespace

CTQXmlParser::CTQXmlParser() { ResetPosition(); }

void CTQXmlParser::ResetPosition() {
  parent_ = document_;
  current_ = pugi::xml_node();
}

bool CTQXmlParser::Load(const wchar_t* path) {
  ResetPosition();
  if (!path) return false;
  // Automatic detection reads the byte-order marks of UTF-16 and UTF-32 and
  // falls back to UTF-8.
  const bool read = document_.load_file(path, pugi::parse_default, pugi::encoding_auto) && HasOneRoot(document_);
  if (!read) document_.reset();
  ResetPosition();
  return read;
}

bool CTQXmlParser::SetDoc(const wchar_t* text) {
  document_.reset();
  ResetPosition();
  if (!text || !*text) return true;
  const bool read = document_.load_buffer(text, std::wcslen(text) * sizeof(wchar_t), pugi::parse_default,
                                         pugi::encoding_wchar) &&
                    HasOneRoot(document_);
  if (!read) document_.reset();
  ResetPosition();
  return read;
}

std::wstring CTQXmlParser::GetDoc() const {
  if (!document_.first_child()) return std::wstring();
  std::ostringstream out;
  document_.save(out, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
  return Wide(out.str().c_str());
}

bool CTQXmlParser::FindElem(const wchar_t* name) {
  const std::string wanted = Utf8(name);
  pugi::xml_node node = current_ ? current_.next_sibling() : parent_.first_child();
  for (; node; node = node.next_sibling()) {
    if (!NameMatches(node, wanted)) continue;
    current_ = node;
    return true;
  }
  return false;
}

bool CTQXmlParser::IntoElem() {
  if (!current_) return false;
  parent_ = current_;
  current_ = pugi::xml_node();
  return true;
}

bool CTQXmlParser::OutOfElem() {
  if (parent_ == document_) return false;
  current_ = parent_;
  parent_ = parent_.parent();
  return true;
}

std::wstring CTQXmlParser::GetData() const {
  if (!current_) return std::wstring();
  // Character data is the text and CDATA directly inside the element.
  std::string data;
  for (pugi::xml_node child = current_.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) data += child.value();
  }
  return Wide(data.c_str());
}

std::wstring CTQXmlParser::GetAttrib(const wchar_t* name) const {
  if (!current_ || !name) return std::wstring();
  return Wide(current_.attribute(Utf8(name).c_str()).value());
}

bool CTQXmlParser::AddElem(const wchar_t* name, const wchar_t* data) {
  if (!name || !*name) return false;
  if (parent_ == document_ && document_.document_element()) return false;
  const std::string utf8 = Utf8(name);
  pugi::xml_node node = current_ ? parent_.insert_child_after(utf8.c_str(), current_)
                                 : parent_.append_child(utf8.c_str());
  if (!node) return false;
  if (data && *data) node.text().set(Utf8(data).c_str());
  current_ = node;
  return true;
}

bool CTQXmlParser::AddAttrib(const wchar_t* name, const wchar_t* value) {
  if (!current_ || !name || !*name) return false;
  const std::string utf8 = Utf8(name);
  pugi::xml_attribute attribute = current_.attribute(utf8.c_str());
  if (!attribute) attribute = current_.append_attribute(utf8.c_str());
  return attribute && attribute.set_value(Utf8(value).c_str());
}

}  // namespace pelka
