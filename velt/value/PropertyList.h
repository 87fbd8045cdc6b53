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
  // The value, or the empty one if there is none of this name.
  virtual _value_t GetProperty(_bstr_t const& name) const = 0;
  virtual void PutProperty(_bstr_t const& name, _value_t const& value) = 0;
  // Replaces `out` by the values, not the names, read strictly as _bstr_t, in the
  // order of the names. A value that is no text throws EBadCastException; what
  // was appended before it stays in `out`.
  virtual void GetProperties(std::vector<_bstr_t>& out) const = 0;
  virtual int GetCount() const = 0;
  // A missing name is no error.
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

// Readers run beside each other, a writer excludes all; every operation takes
// the lock for as long as it runs, without limit, and throws what that may throw
// (TMultiLock). A value that is read shares its content with the list, and
// writing to it does not change the list, but through its views.
class VELT_API TPropertyList : public virtual IPropertyList {
public:
  TPropertyList();
  ~TPropertyList();

  // Takes no lock, and copies the lock of the other list as it stands, which
  // both lists then share: for lists that no thread uses any more, of which one
  // is never used or destroyed.
  TPropertyList& operator=(TPropertyList const& other);

  _value_t GetProperty(_bstr_t const& name) const override;
  // The entry shares the value's content, whatever type the old value had. The
  // first spelling of a name stays.
  void PutProperty(_bstr_t const& name, _value_t const& value) override;
  void GetProperties(std::vector<_bstr_t>& out) const override;
  int GetCount() const override;
  void Delete(_bstr_t const& name) override;
  bool Have(_bstr_t const& name) const override;

private:
  TPropertyList(TPropertyList const&) = delete;

  std::map<_bstr_t, _value_t, velt::detail::less_without_case> properties;
  mutable TMultiLock lock;
};
