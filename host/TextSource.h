// ITextSource: where the module's parts ask for their user-visible texts.
//
// A text is asked for by an "IDS_" identifier with a built-in default text
// whose named placeholders ("[%I64u_NUM%]") are filled from the values that
// follow, in the order they stand in the default text. The answer is written
// into the caller's holder; the returned pointer is the holder's characters.
#pragma once

#include <cstdarg>
#include <string>

namespace pelka {

class ITextSource {
 public:
  virtual const wchar_t* GetStringV(std::wstring& holder, const wchar_t* id, const wchar_t* default_text,
                                    va_list values) = 0;

  const wchar_t* GetString(std::wstring& holder, const wchar_t* id, const wchar_t* default_text, ...) {
    va_list values;
    va_start(values, default_text);
    const wchar_t* text = GetStringV(holder, id, default_text, values);
    va_end(values);
    return text;
  }

 protected:
  ~ITextSource() = default;
};

}  // namespace pelka
