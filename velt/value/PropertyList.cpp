#include "velt/value/PropertyList.h"

#include <comutil.h>
#include <wchar.h>

#include <utility>

#include "velt/locks/Lock.h"

namespace {

bool is_ascii(wchar_t character) { return character < 0x80; }
int lower_ascii(wchar_t character) {
  return character >= L'A' && character <= L'Z' ? character + (L'a' - L'A') : character;
}

// Gives the result of _wcsicmp without its look-up in the locale for each character.
// All locales agree on the case of ASCII, and equal characters need no look-up.
int compare_without_case(wchar_t const* a, wchar_t const* b) {
  for (;; ++a, ++b) {
    if (*a == *b) {
      if (*a == L'\0') return 0;
      continue;
    }
    if (!is_ascii(*a) || !is_ascii(*b)) return _wcsicmp(a, b);
    if (int const difference = lower_ascii(*a) - lower_ascii(*b)) return difference;
  }
}

}  // namespace

bool velt::detail::less_without_case::operator()(_bstr_t const& a,
                                                 _bstr_t const& b) const noexcept {
  return compare_without_case(a, b) < 0;
}

TPropertyList::TPropertyList() = default;
TPropertyList::~TPropertyList() = default;
TPropertyList& TPropertyList::operator=(TPropertyList const&) = default;

_value_t TPropertyList::GetProperty(_bstr_t const& name) const {
  TReadLock const hold(lock);
  auto const found = properties.find(name);
  return found == properties.end() ? _value_t() : found->second;
}

// Releasing an old value may run a destructor that uses this list or waits for a
// thread that does. So the write operations take old values out and release them
// once the lock is free.
void TPropertyList::PutProperty(_bstr_t const& name, _value_t const& value) {
  _value_t exchanged = value;
  TLock const hold(lock);
  std::swap(properties[name], exchanged);
}

void TPropertyList::GetProperties(std::vector<_bstr_t>& out) const {
  TReadLock const hold(lock);
  out.clear();
  out.reserve(properties.size());
  for (auto const& property : properties) out.push_back(property.second);
}

int TPropertyList::GetCount() const {
  TReadLock const hold(lock);
  return static_cast<int>(properties.size());
}

void TPropertyList::Delete(_bstr_t const& name) {
  decltype(properties)::node_type erased;
  TLock const hold(lock);
  erased = properties.extract(name);
}

bool TPropertyList::Have(_bstr_t const& name) const {
  TReadLock const hold(lock);
  return properties.find(name) != properties.end();
}

std::vector<_bstr_t> TPropertyList::GetNames() const {
  TReadLock const hold(lock);
  std::vector<_bstr_t> names;
  names.reserve(properties.size());
  for (auto const& property : properties) names.push_back(property.first);
  return names;
}
