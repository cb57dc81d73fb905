// The process-wide table of user-visible texts.
//
// Every text the module shows is asked for by an "IDS_" identifier together
// with a built-in default text. A string-table file ("PelkaEmailRes.cst",
// root "StringTable", elements "String" with attribute "id") may give another
// text for any identifier. The table is read at most once per process; every
// request is answered from it or from the default text, with the placeholders
// of the default text filled (see module/Placeholders.h).
#pragma once

#include <cstdarg>
#include <map>
#include <memory>
#include <string>

#include "host/CriticalSection.h"
#include "host/TextSource.h"

namespace pelka {

class CTQMultiReplaceW;

class CResStringTable final : public ITextSource {
 public:
  // The one table of the process; it lives until the library is unloaded.
  static CResStringTable& Instance();

  CResStringTable();
  ~CResStringTable();
  CResStringTable(const CResStringTable&) = delete;
  CResStringTable& operator=(const CResStringTable&) = delete;

  // Reads the file into the table: 1 when the document was read and its root
  // is "StringTable", else 0 (the table stays as it was). Takes no lock.
  int LoadFromFile(const wchar_t* path);

  // Answers one request: the table's text for `id` (or the default text) with
  // the placeholders of `default_text` replaced by the values that follow, in
  // the order the placeholders stand in the default text. A default text with
  // placeholders whose id is not in the table is marked with a leading "#".
  // The result is written into `holder`; the returned pointer is the holder's
  // characters, valid until the holder is next written.
  const wchar_t* GetString(std::wstring& holder, const wchar_t* id, const wchar_t* default_text, ...);
  const wchar_t* GetStringV(std::wstring& holder, const wchar_t* id, const wchar_t* default_text,
                            va_list values) override;

  // Process-wide flag: the first module initialisation that finds the host's
  // notification object sets it before loading, so a missing or bad file is
  // not tried again.
  bool loaded_once() const { return loaded_once_; }
  void set_loaded_once() { loaded_once_ = true; }

 private:
  CCriticalSection lock_;
  std::unique_ptr<CTQMultiReplaceW> replacer_;
  std::map<std::wstring, std::wstring> texts_;
  bool loaded_once_ = false;
};

}  // namespace pelka
