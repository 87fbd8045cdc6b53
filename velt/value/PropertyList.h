// TPropertyList: named values that threads share. Names are compared without
// regard to case.
#pragma once

#include <map>
#include <vector>

#include "velt/base/Export.h"
#include "velt/locks/MultiLock.h"
#include "velt/value/Value.h"

// A name must not be a null _bstr_t.
class IPropertyList {
public:
  // The value of this name; empty if there is none.
  virtual _value_t GetProperty(_bstr_t const& name) const = 0;
  virtual void PutProperty(_bstr_t const& name, _value_t const& value) = 0;
  // Replaces `out` by the values (not the names) in the order of the names, each
  // read strictly as _bstr_t. Throws EBadCastException if a value is not text; the
  // values before it stay in `out`.
  virtual void GetProperties(std::vector<_bstr_t>& out) const = 0;
  virtual int GetCount() const = 0;
  // Does nothing if the name is missing.
  virtual void Delete(_bstr_t const& name) = 0;
  virtual bool Have(_bstr_t const& name) const = 0;

protected:
  ~IPropertyList() = default;
};

namespace velt::detail {

// By _wcsicmp of the wide texts.
struct VELT_API less_without_case {
  bool operator()(_bstr_t const& a, _bstr_t const& b) const noexcept;
};

}  // namespace velt::detail

// Any thread may call any operation: readers run in parallel, a writer excludes
// all others. Each operation holds the list's lock while it runs, waits for it
// without limit, and throws what TMultiLock throws. A value that is replaced or
// deleted is released once the lock is free, so its destructor may use the list.
//
// A value that is read shares its content with the list. Writing to it does not
// change the list, except through element views.
class VELT_API TPropertyList : public virtual IPropertyList {
public:
  TPropertyList();
  virtual ~TPropertyList();

  // Takes neither lock. Copies the other list's lock bit for bit, so both lists share
  // it. For lists that no other thread uses; use and destroy only one of the two
  // afterwards.
  TPropertyList& operator=(TPropertyList const& other);

  _value_t GetProperty(_bstr_t const& name) const override;
  // The entry shares the value's content; the type may differ from the old value's.
  // The first spelling of a name stays.
  void PutProperty(_bstr_t const& name, _value_t const& value) override;
  void GetProperties(std::vector<_bstr_t>& out) const override;
  int GetCount() const override;
  void Delete(_bstr_t const& name) override;
  bool Have(_bstr_t const& name) const override;

  // The names in their order, each in its first spelling.
  std::vector<_bstr_t> GetNames() const;

private:
  TPropertyList(TPropertyList const&) = delete;

  std::map<_bstr_t, _value_t, velt::detail::less_without_case> properties;
  mutable TMultiLock lock;
};
