// Built with the text sources in the program itself, so that the allocations
// they make can be replaced at link time and made to fail: operator new, which
// makes the data records, and SysAllocString.
#include <gtest/gtest.h>

#include <comdef.h>

#include <cstddef>
#include <new>

#include "velt/text/Case.h"
#include "velt/text/Format.h"
#include "velt/text/Trim.h"

namespace {

bool fail_records = false;
bool fail_strings = false;

BSTR WINAPI alloc_string(OLECHAR const* text) {
  return fail_strings ? nullptr : SysAllocStringLen(text, static_cast<UINT>(wcslen(text)));
}

// The COM error of the statement, with what fails while it runs.
template <class Statement>
HRESULT error_of(bool& failure, Statement statement) {
  HRESULT result = S_OK;
  failure = true;
  try {
    statement();
  } catch (_com_error const& error) {
    result = error.Error();
  }
  failure = false;
  return result;
}

}  // namespace

extern "C" {

BSTR(WINAPI* __wrap___imp_SysAllocString)(OLECHAR const*) = alloc_string;

// _Znwy is operator new.
void* __real__Znwy(std::size_t size);
void* __wrap__Znwy(std::size_t size) {
  if (fail_records) throw std::bad_alloc();
  return __real__Znwy(size);
}

}

TEST(OutOfMemory, DataRecordThatCannotBeMadeIsTheComError) {
  _bstr_t const text(L" aBc ");
  EXPECT_EQ(error_of(fail_records, [&] { trim(text, L" "); }), E_OUTOFMEMORY);
  EXPECT_EQ(error_of(fail_records, [&] { strlower(text); }), E_OUTOFMEMORY);
  EXPECT_EQ(error_of(fail_records, [&] { format_bstr(L"%d", 1); }), E_OUTOFMEMORY);
}

TEST(OutOfMemory, FormattedStringThatCannotBeMadeIsTheComError) {
  EXPECT_EQ(error_of(fail_strings, [&] { format_bstr(L"%d", 1); }), E_OUTOFMEMORY);
}
