#include "velt/exceptions/ExceptionFamily.h"

#include <comdef.h>
#include <gtest/gtest.h>
#include <windows.h>

namespace {

// An error description that counts its references and answers as told.
class ErrorInfo final : public IErrorInfo {
public:
  long references = 1;
  wchar_t const* description = L"what happened";
  wchar_t const* source = L"where";
  HRESULT result = S_OK;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }
  HRESULT STDMETHODCALLTYPE GetGUID(GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR* text) override { return answer(source, text); }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR* text) override {
    return answer(description, text);
  }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD*) override { return E_NOTIMPL; }

private:
  HRESULT answer(wchar_t const* text, BSTR* result_text) const {
    if (SUCCEEDED(result)) *result_text = text ? SysAllocString(text) : nullptr;
    return result;
  }
};

std::string names_of(EGeneric const& exception) {
  std::string names;
  for (auto const& value : exception.values()) names += value.first + " ";
  return names;
}

template <class Exception>
Exception caught(auto const& action) {
  try {
    action();
  } catch (Exception const& error) {
    return error;
  }
  throw std::logic_error("the action did not throw");
}

constexpr int without_text = 0x2FFFFFFF;

}  // namespace

TEST(ESystemException, CarriesCodeAndTextWithoutLineEnds) {
  ESystemException const error(5);
  EXPECT_EQ(error["Code"], 5);
  EXPECT_EQ(error["Text"].type(), typeid(std::wstring));
  std::wstring const text = error["Text"];
  EXPECT_FALSE(text.empty());
  EXPECT_EQ(text.find_last_of(L"\r\n"), text.npos);
  EXPECT_EQ(error.what(), "Code: 5 (0x5)\nText: " + error["Text"].as_string());

  EXPECT_EQ(ESystemException(0)["Code"], 0);
  EXPECT_FALSE(ESystemException(0)["Text"].as_wstring().empty());
  EXPECT_STREQ(ESystemException(without_text).what(), "Code: 805306367 (0x2fffffff)\nText: ");
  EXPECT_EQ(names_of(ESystemException(5, {"a", 1}, {"b", 2})), "Code Text a b ");
}

TEST(Throwers, TakeTheirCodesFromWhereTheyShould) {
  SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ESystemException()["Code"].as_int(), ERROR_FILE_NOT_FOUND);
  SetLastError(ERROR_BUSY);
  EXPECT_EQ(caught<ESystemException>([] { ThrowSystemException(); })["Code"].as_int(),
            ERROR_BUSY);
  EXPECT_EQ(caught<ESystemException>([] { ThrowSystemException(WAIT_TIMEOUT); })["Code"], 258);
  EXPECT_STREQ(caught<ELegacyException>([] { OnSysLibExc("Socket", "closed", 12); }).what(),
               "Code: 12 (0xc)\nType: Socket\nText: closed");
  EXPECT_STREQ(caught<EPurecallException>([] { _my_purecall_translator(); }).what(), "Purecall");
}

TEST(ERuntimeException, HasItsTextLast) {
  ERuntimeException const error(ENOENT, {"File", "x.txt"}, {"Line", 7});
  EXPECT_EQ(names_of(error), "Code File Line Text ");
  EXPECT_EQ(error["Text"], L"No such file or directory");
  EXPECT_EQ(error["Text"].type(), typeid(std::wstring));
  EXPECT_STREQ(error.what(),
               "Code: 2 (0x2)\nFile: x.txt\nLine: 7 (0x7)\nText: No such file or directory");
  errno = EACCES;
  EXPECT_EQ(ERuntimeException()["Code"], EACCES);
  EXPECT_EQ(names_of(ERuntimeException(ENOENT, {"text", "mine"})), "Code text ")
      << "the caller's text is replaced in its place";
}

TEST(EComException, OfAComErrorStoresTheResultAsANumber) {
  auto* const info = new ErrorInfo;
  {
    _com_error error(E_ACCESSDENIED, info, true);
    EComException const exception(error);
    EXPECT_EQ(names_of(exception), "HRESULT Text Description ");
    EXPECT_EQ(exception["HRESULT"], static_cast<int>(E_ACCESSDENIED));
    EXPECT_EQ(exception["Text"], ESystemException(E_ACCESSDENIED)["Text"]);
    EXPECT_EQ(exception["Description"], L"what happened");
    EXPECT_EQ(exception["Description"].type(), typeid(std::wstring));
  }
  EXPECT_EQ(info->references, 1);
  delete info;

  _com_error bare(E_FAIL);
  EXPECT_EQ(EComException(bare)["Description"], L"");
}

TEST(EComException, OfAComErrorWithoutSystemTextMakesOne) {
  auto const text = [](unsigned code) {
    _com_error error(static_cast<HRESULT>(code));
    return EComException(error)["Text"].as_string();
  };
  EXPECT_EQ(text(0x80040201), "IDispatch error #1");
  EXPECT_EQ(text(0x8004FFFF), "IDispatch error #65023");
  EXPECT_EQ(text(0x80040200), "Unknown error 0x80040200");
  EXPECT_EQ(text(0x2FFFFFFF), "Unknown error 0x2FFFFFFF");
}

TEST(EComException, OfACodeStoresTheResultAsText) {
  ErrorInfo info;
  EComException const exception(static_cast<long>(E_ACCESSDENIED), &info);
  EXPECT_EQ(names_of(exception), "Code HRESULT Text Description Source ");
  EXPECT_EQ(exception["Code"], static_cast<int>(E_ACCESSDENIED));
  EXPECT_EQ(exception["HRESULT"], "80070005");
  EXPECT_EQ(exception["Text"].as_wstring().find(L'\n'), std::wstring::npos);
  EXPECT_EQ(exception["Description"].type(), typeid(_bstr_t));
  EXPECT_EQ(exception["Description"], L"what happened");
  EXPECT_EQ(exception["Source"], L"where");
  EXPECT_EQ(info.references, 1) << "the reference stays the caller's";

  info.description = nullptr;
  EXPECT_EQ(names_of(EComException(without_text, &info)), "Code HRESULT Source ");
  info.result = E_FAIL;
  EXPECT_EQ(names_of(EComException(without_text, &info)), "Code HRESULT ");
  EXPECT_EQ(EComException(10, nullptr)["HRESULT"], "a");
}

TEST(EComException, ThrowerTakesTheReferenceOver) {
  ErrorInfo info;
  auto const error =
      caught<EComException>([&] { throw_EGeneric_from_com_error(E_FAIL, &info); });
  EXPECT_EQ(info.references, 0);
  EXPECT_EQ(error["Source"], L"where");
  auto const bare = caught<EComException>([] { throw_EGeneric_from_com_error(E_FAIL, nullptr); });
  EXPECT_TRUE(bare["Description"].empty());
}
