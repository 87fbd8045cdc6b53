#include "velt/value/PropertyList.h"

#include <comutil.h>
#include <wchar.h>

namespace {

// A read or write hold for a scope.
class scoped_hold {
public:
  scoped_hold(TMultiLock& target, void (TMultiLock::*take)()) : lock(target) { (lock.*take)(); }
  scoped_hold(scoped_hold const&) = delete;
  ~scoped_hold() noexcept(false) { lock.Unlock(); }

private:
  TMultiLock& lock;
};

struct read_hold : scoped_hold {
  explicit read_hold(TMultiLock& target) : scoped_hold(target, &TMultiLock::ReadLock) {}
};
struct write_hold : scoped_hold {
  explicit write_hold(TMultiLock& target) : scoped_hold(target, &TMultiLock::WriteLock) {}
};

}  // namespace

bool velt::detail::less_without_case::operator()(_bstr_t const& a,
                                                 _bstr_t const& b) const noexcept {
  return _wcsicmp(static_cast<wchar_t const*>(a), static_cast<wchar_t const*>(b)) < 0;
}

TPropertyList::TPropertyList() = default;
TPropertyList::~TPropertyList() = default;
TPropertyList& TPropertyList::operator=(TPropertyList const&) = default;

_value_t TPropertyList::GetProperty(_bstr_t const& name) const {
  read_hold const hold(lock);
  auto const found = properties.find(name);
  return found == properties.end() ? _value_t() : found->second;
}

void TPropertyList::PutProperty(_bstr_t const& name, _value_t const& value) {
  write_hold const hold(lock);
  properties[name] = value;
}

void TPropertyList::GetProperties(std::vector<_bstr_t>& out) const {
  read_hold const hold(lock);
  out.clear();
  out.reserve(properties.size());
  for (auto const& property : properties) out.push_back(property.second);
}

int TPropertyList::GetCount() const {
  read_hold const hold(lock);
  return static_cast<int>(properties.size());
}

void TPropertyList::Delete(_bstr_t const& name) {
  write_hold const hold(lock);
  properties.erase(name);
}

bool TPropertyList::Have(_bstr_t const& name) const {
  read_hold const hold(lock);
  return properties.find(name) != properties.end();
}
