// A small cursor-style XML reader and writer.
//
// The parser keeps a position in the document: a parent element (at the start
// the document itself) and, under it, a current element. FindElem moves the
// current element forward among the parent's children; IntoElem makes the
// current element the parent; OutOfElem goes back up. Data and attributes are
// read from, and added to, the current element.
//
// Documents are read in UTF-8 (the default, with or without a byte-order
// mark) or in UTF-16 with a byte-order mark; GetDoc writes UTF-8 text as wide
// characters. All texts at the interface are wide.
#pragma once

#include <concepts>
#include <string>

#include <pugixml.hpp>

namespace pelka {

class CTQXmlParser {
 public:
  CTQXmlParser();
  CTQXmlParser(const CTQXmlParser&) = delete;
  CTQXmlParser& operator=(const CTQXmlParser&) = delete;

  // Reads and parses a file. False when the file cannot be read or is not
  // well-formed XML; the document is then empty.
  bool Load(const wchar_t* path);

  // Parses a text held in memory. A null or empty text starts a new, empty
  // document and succeeds. False when the text is not well-formed.
  bool SetDoc(const wchar_t* text);

  // The document as text, without a declaration; empty for an empty document.
  std::wstring GetDoc() const;

  // Moves to the next element under the current parent, after the current
  // element, whose name is `name` (any element for a null or empty name).
  // False, with the position unchanged, when there is none.
  bool FindElem(const wchar_t* name = nullptr);

  // Makes the current element the parent; the next FindElem starts at its
  // first child. False when there is no current element.
  bool IntoElem();

  // Makes the parent the current element again. False at the document level.
  bool OutOfElem();

  // The character data of the current element; empty when it has none or
  // there is no current element.
  std::wstring GetData() const;

  // The value of an attribute of the current element; empty when absent.
  std::wstring GetAttrib(const wchar_t* name) const;

  // Adds an element after the current element under the current parent (or
  // as the parent's last child when there is no current element) and makes it
  // current. A document holds one root element; a second is refused.
  bool AddElem(const wchar_t* name, const wchar_t* data = nullptr);

  // Sets an attribute of the current element. False without one.
  bool AddAttrib(const wchar_t* name, const wchar_t* value);
  // A number in decimal.
  template <std::integral Number>
  bool AddAttrib(const wchar_t* name, Number value) {
    return AddAttrib(name, std::to_wstring(value).c_str());
  }

 private:
  void ResetPosition();

  pugi::xml_document document_;
  pugi::xml_node parent_;
  pugi::xml_node current_;
};

}  // namespace pelka
