#include "module/ResStringTable.h"

#include <new>

#include "host/XmlParser.h"
#include "module/MultiReplace.h"
#include "module/Placeholders.h"

namespace pelka {

CResStringTable& CResStringTable::Instance() {
  static CResStringTable table;
  return table;
}

CResStringTable::CResStringTable() = default;

CResStringTable::~CResStringTable() {
  // The replacer goes first, then the texts; the lock last, as a member.
  replacer_.reset();
  texts_.clear();
}

int CResStringTable::LoadFromFile(const wchar_t* path) {
  CTQXmlParser parser;
  if (!path || !parser.Load(path)) return 0;
  if (!parser.FindElem(L"StringTable")) return 0;
  parser.IntoElem();
  while (parser.FindElem(L"String")) {
    // Later elements with the same id replace earlier ones.
    texts_[parser.GetAttrib(L"id")] = parser.GetData();
  }
  parser.OutOfElem();
  return 1;
}

const wchar_t* CResStringTable::GetString(std::wstring& holder, const wchar_t* id,
                                          const wchar_t* default_text, ...) {
  va_list values;
  va_start(values, default_text);
  const wchar_t* result = GetStringV(holder, id, default_text, values);
  va_end(values);
  return result;
}

const wchar_t* CResStringTable::GetStringV(std::wstring& holder, const wchar_t* id,
                                           const wchar_t* default_text, va_list values) {
  const wchar_t* const fallback = default_text ? default_text : L"";
  // The one replacer is cleared and refilled per request, so the whole
  // request runs under the lock.
  CriticalSectionLock guard(lock_);
  if (!replacer_) {
    try {
      replacer_ = std::make_unique<CTQMultiReplaceW>();
    } catch (const std::bad_alloc&) {
      holder = fallback;
      return holder.c_str();
    }
  }
  replacer_->ClearPatterns();
  CollectPlaceholders(*replacer_, default_text, values);

  const auto found = id ? texts_.find(id) : texts_.end();
  const bool translated = found != texts_.end();
  if (replacer_->PatternCount() == 0) {
    holder = translated ? found->second : std::wstring(fallback);
    return holder.c_str();
  }
  if (translated) {
    holder = replacer_->Replace(found->second.c_str());
  } else {
    // A text with values that the table does not translate is marked.
    holder = L"#";
    holder += replacer_->Replace(fallback);
  }
  return holder.c_str();
}

}  // namespace pelka
