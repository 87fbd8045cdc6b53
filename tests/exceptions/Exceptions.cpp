// The exceptions, the values that they carry and the text that they make of them.
#include <comdef.h>
#include <windows.h>

#include <thread>
#include <utility>

#include "tests/support/Expect.h"

using velt_test::values_of;

static_assert(sizeof(EGeneric) == sizeof(std::exception) + sizeof(std::vector<int>),
              "the list is the only field");
static_assert(sizeof(EBadCastException) == sizeof(EGeneric));
static_assert(!std::is_base_of_v<std::exception, EThreadInterrupt> &&
              sizeof(EThreadInterrupt) == 1);

namespace {

// An error description that counts its references and answers as told.
class ErrorInfo final : public IErrorInfo {
public:
  ULONG references = 1;
  HRESULT result = S_OK;
  wchar_t const* description = L"what happened";

  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  STDMETHODIMP GetGUID(GUID*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSource(BSTR* text) override { return answer(L"where", text); }
  STDMETHODIMP GetDescription(BSTR* text) override { return answer(description, text); }
  STDMETHODIMP GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP GetHelpContext(DWORD*) override { return E_NOTIMPL; }

private:
  HRESULT answer(wchar_t const* text, BSTR* result_text) const {
    if (SUCCEEDED(result)) *result_text = text ? SysAllocString(text) : nullptr;
    return result;
  }
};

std::string text_of(auto const& exception) {
  return values_of([&] { throw exception; });
}

constexpr int without_text = 0x2FFFFFFF;

}  // namespace

TEST(EGeneric, FindsNamesWhateverTheirAsciiCase) {
  EGeneric exception({"text", "found"}, {"\xC4", "capital"}, {"TEXT", "never seen"});
  EXPECT_EQ(exception.get_value("Text").as_string(), "found");
  EXPECT_TRUE(exception.get_value("\xE4").empty()) << "only the 26 letters are folded";
  EXPECT_TRUE(exception.get_value("tex").empty());
  EXPECT_TRUE(exception.get_value("[").empty());

  exception.put_value("TexT", 5);
  exception.put_value("new", 6);
  EXPECT_TRUE(std::as_const(exception)["absent"].empty());
  EXPECT_STREQ(exception.what(), "text: 5 (0x5)\n\xC4: capital\nTEXT: never seen\nnew: 6 (0x6)");
  exception["absent"];
  EXPECT_EQ(exception.values().size(), 5u) << "indexing adds the name unless const";
}

TEST(EGeneric, TakesValuesOfItsOwnListAlsoAsItGrows) {
  EGeneric exception({"first", "kept"});
  for (int i = 0; i < 10; ++i) {
    auto const name = "name" + std::to_string(i);
    exception.put_value(name, exception["first"]);
    EXPECT_EQ(exception[name], "kept");
  }
}

TEST(EBadCastException, NamesTheTypes) {
  EBadCastException const error(typeid(int), typeid(std::exception), typeid(EGeneric));
  EXPECT_STREQ(error.what(), "Text: Bad cast\nFrom: int\nTo: std::exception\nRealType: EGeneric");
  EXPECT_EQ(EBadCastException(typeid(void), typeid(double)).values().size(), 3u);
}

TEST(ExceptionText, SingleTextStandsAlone) {
  EXPECT_STREQ(EGeneric().what(), "");
  EXPECT_STREQ(EGeneric({"Text", L"Gr\u00FCn"}).what(), "Gr\xFCn");
  EXPECT_STREQ(EGeneric({"Text", 5}).what(), "") << "an int does not read strictly as text";
  EXPECT_STREQ(EGeneric({"text", "small"}).what(), "text: small");
  EXPECT_STREQ(EGeneric({"Text", "a"}, {"text", "b"}).what(), "Text: a\ntext: b");
}

TEST(ExceptionText, ShowsNumbersOfThirtyTwoBitsInBothForms) {
  EGeneric const exception({"n", 255ul}, {"i", -1073741819}, {"w", 255ll}, {"b", true},
                           {"s", std::vector<int>{16, 17}}, {"t", "x"});
  EXPECT_STREQ(exception.what(),
               "n: 255 (0xff)\ni: -1073741819 (0xc0000005)\nw: 255\nb: true\n"
               "s: {16,17} (0x10)\nt: x");
}

TEST(ExceptionText, ValueThatCannotBePrintedLeavesItsPlaceEmpty) {
  struct Mute : virtual SmartPtrObj {
    std::string describe() const override { throw 1; }
  };
  EGeneric const exception({"first", 1ll}, {"mute", new Mute}, {"none", _value_t()},
                           {"empty", std::vector<int>()}, {"last", 2ll});
  EXPECT_STREQ(exception.what(), "first: 1\nmute: \nnone: \nempty: \nlast: 2");
  EXPECT_STREQ(EGeneric({"x", 1ll}).what(), "x: 1") << "the lock was released";
}

TEST(ExceptionText, OneBufferServesAllExceptionsAndThreads) {
  EGeneric const first({"Text", "first"}), second({"Text", "second"});
  char const* const text = first.what();
  EXPECT_EQ(second.what(), text);
  EXPECT_STREQ(text, "second");
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      EGeneric const exception({"Code", 5}, {"Text", std::string(100, 'x')});
      for (int n = 0; n < 5'000; ++n) (void)exception.what();
    });
}

TEST(ESystemException, CarriesCodeAndTextWithoutLineEnds) {
  ESystemException const error(5, {"a", 1}, {"b", 2});
  EXPECT_EQ(error["Text"].type(), typeid(std::wstring));
  std::string const text = error["Text"];
  EXPECT_FALSE(text.empty());
  EXPECT_EQ(text.find_last_of("\r\n"), text.npos);
  EXPECT_EQ(text_of(error), "Code=5;Text=" + text + ";a=1;b=2");
  EXPECT_FALSE(ESystemException(0)["Text"].as_wstring().empty());
  EXPECT_EQ(text_of(ESystemException(without_text)), "Code=805306367;Text=");
}

TEST(Throwers, TakeTheirCodesFromWhereTheyShould) {
  SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ESystemException()["Code"].as_int(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(velt_test::system_code([] {
              SetLastError(ERROR_BUSY);
              ThrowSystemException();
            }),
            ERROR_BUSY);
  EXPECT_EQ(velt_test::system_code([] { ThrowSystemException(WAIT_TIMEOUT); }), 258);
  EXPECT_EQ(values_of<ELegacyException>([] { OnSysLibExc("Socket", "closed", 12); }),
            "Code=12;Type=Socket;Text=closed");
  EXPECT_EQ(values_of<EPurecallException>([] { _my_purecall_translator(); }), "Text=Purecall");
}

TEST(ERuntimeException, HasItsTextLast) {
  ERuntimeException const error(ENOENT, {"File", "x.txt"}, {"Line", 7});
  EXPECT_EQ(error["Text"].type(), typeid(std::wstring));
  EXPECT_EQ(text_of(error), "Code=2;File=x.txt;Line=7;Text=No such file or directory");
  errno = EACCES;
  EXPECT_EQ(ERuntimeException()["Code"], EACCES);
  EXPECT_EQ(text_of(ERuntimeException(ENOENT, {"text", "mine"})),
            "Code=2;text=No such file or directory") << "in the place of the caller's text";
}

TEST(EComException, OfAComErrorStoresTheResultAsANumber) {
  ErrorInfo info;
  {
    _com_error error(E_ACCESSDENIED, &info, true);
    EComException const exception(error);
    std::string const text = ESystemException(E_ACCESSDENIED)["Text"];
    EXPECT_EQ(text_of(exception),
              "HRESULT=-2147024891;Text=" + text + ";Description=what happened");
    EXPECT_EQ(exception["Description"].type(), typeid(std::wstring));
  }
  EXPECT_EQ(info.references, 1u);

  for (auto const& [code, text] : {std::pair{0x80040201, "IDispatch error #1"},
                                   {0x8004FFFF, "IDispatch error #65023"},
                                   {0x80040200, "Unknown error 0x80040200"},
                                   {0x2FFFFFFFu, "Unknown error 0x2FFFFFFF"}}) {
    _com_error error(static_cast<HRESULT>(code));
    EXPECT_EQ(text_of(EComException(error)),
              "HRESULT=" + std::to_string(error.Error()) + ";Text=" + text + ";Description=");
  }
}

TEST(EComException, OfACodeStoresTheResultAsText) {
  ErrorInfo info;
  EComException const exception(static_cast<long>(E_ACCESSDENIED), &info);
  std::string const text = exception["Text"];
  EXPECT_EQ(text.find('\n'), text.npos);
  EXPECT_EQ(text_of(exception), "Code=-2147024891;HRESULT=80070005;Text=" + text +
                                    ";Description=what happened;Source=where");
  EXPECT_EQ(exception["Description"].type(), typeid(_bstr_t));
  EXPECT_EQ(info.references, 1u) << "the reference stays the caller's";

  std::string const bare = "Code=805306367;HRESULT=2fffffff";
  info.description = nullptr;
  EXPECT_EQ(text_of(EComException(without_text, &info)), bare + ";Source=where");
  info.result = E_FAIL;
  EXPECT_EQ(text_of(EComException(without_text, &info)), bare);
  EXPECT_EQ(EComException(10, nullptr)["HRESULT"], "a");
}

TEST(EComException, ThrowerTakesTheReferenceOver) {
  ErrorInfo info;
  auto const thrown = [](IErrorInfo* about) {
    return values_of<EComException>([=] { throw_EGeneric_from_com_error(without_text, about); });
  };
  EXPECT_EQ(thrown(&info), "Code=805306367;HRESULT=2fffffff;Description=what happened;Source=where");
  EXPECT_EQ(info.references, 0u);
  EXPECT_EQ(thrown(nullptr), "Code=805306367;HRESULT=2fffffff");
}
