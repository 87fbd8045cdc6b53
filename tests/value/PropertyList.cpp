#include "velt/value/PropertyList.h"

#include <comdef.h>
#include <gtest/gtest.h>

#include <wchar.h>

#include <atomic>
#include <clocale>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Expect.h"
#include "velt/locks/Event.h"

TEST(PropertyList, NamesAreOneWhateverTheirCase) {
  TPropertyList list;
  for (auto const name : {L"Name", L"NAME"}) list.PutProperty(name, name);
  EXPECT_EQ(list.GetCount(), 1);
  EXPECT_EQ(list.GetProperty(L"name").as_string(), "NAME");
  EXPECT_TRUE(list.Have(L"nAME"));
  list.Delete(L"namE");
  EXPECT_TRUE(!list.Have(L"Name") && list.GetCount() == 0);
}

// Around the letters of ASCII in both directions, and beyond them.
TEST(PropertyList, NamesAreOrderedAsByTheRunTimeInEveryLocale) {
  std::vector<_bstr_t> names{L""};
  for (wchar_t first : {L'@', L'A', L'Z', L'[', L'_', L'`', L'a', L'z', L'{', L'\x7F', L'\x80',
                        L'\xC4', L'\xE4', L'\x130', L'\x212A', L'\xFFFF'})
    for (wchar_t second : {L'\0', L'A', L'b', L'B', L'_', L'\xC4', L'\xE4'})
      names.push_back(std::wstring({L'k', first, second, L'x'}).c_str());
  velt::detail::less_without_case const less;
  for (char const* locale : {"C", "", "Turkish"}) {
    std::setlocale(LC_ALL, locale);
    for (auto const& a : names)
      for (auto const& b : names)
        EXPECT_EQ(less(a, b), _wcsicmp(a, b) < 0)
            << locale << ": " << static_cast<char const*>(a) << ", " << static_cast<char const*>(b);
  }
  std::setlocale(LC_ALL, "C");
}

TEST(PropertyList, GetPropertiesStopsAtAValueThatIsNoTextAndLeavesTheListUsable) {
  for (_value_t const& value : {_value_t(5), _value_t()}) {
    TPropertyList list;
    list.PutProperty(L"a", std::string("x"));
    list.PutProperty(L"b", value);
    list.PutProperty(L"c", std::string("y"));
    std::vector<_bstr_t> out{L"left over"};
    EXPECT_EQ(velt_test::values_of<EBadCastException>([&] { list.GetProperties(out); }),
              velt_test::bad_cast(value.type(), typeid(_bstr_t)));
    EXPECT_EQ(out, std::vector<_bstr_t>{L"x"});
    std::thread([&] { list.Delete(L"b"); }).join();
    EXPECT_EQ(list.GetCount(), 2);
  }
}

// An old value may be the last owner of an object whose destructor uses the list,
// or waits for a thread that does.
TEST(PropertyList, OldValuesAreReleasedWhenTheLockIsFreeAgain) {
  struct Reader {
    TPropertyList list;
    TEvent done;
    bool could_read = false;
    std::jthread thread;
  };
  struct User final : SmartPtrObj {
    explicit User(Reader& its_reader) : reader(its_reader) {}
    ~User() override {
      reader.thread = std::jthread([&its = reader] { its.list.GetCount(), its.done.Set(); });
      reader.could_read = reader.done.Signaled(2'000);
      reader.list.PutProperty(L"heir", 1);
    }
    Reader& reader;
  };
  for (bool const erase : {false, true}) {
    Reader reader;
    auto& list = reader.list;
    list.PutProperty(L"a", SmartPtr<SmartPtrObj>(new User(reader)));
    erase ? list.Delete(L"a") : list.PutProperty(L"A", 2);
    EXPECT_TRUE(reader.could_read);
    EXPECT_EQ(list.GetProperty(L"heir").as_int(), 1);
    EXPECT_EQ(list.GetCount(), erase ? 1 : 2);
  }
}

// Each value is one character again and again, so a torn one shows.
TEST(PropertyList, ReadersBesideWritersSeeWholeValues) {
  TPropertyList list;
  wchar_t const* const names[] = {L"alpha", L"Beta", L"gamma", L"DELTA"};
  std::atomic<int> wrong = 0, whole = 0;
  auto const write = [&](std::stop_token stop, char letter) {
    for (std::mt19937 random(letter); !stop.stop_requested();) {
      auto const name = names[random() % 4];
      random() % 4 ? list.PutProperty(name, std::string(1 + random() % 40, letter))
                   : list.Delete(name);
    }
  };
  auto const read = [&](std::stop_token stop) {
    while (!stop.stop_requested()) {
      std::vector<_bstr_t> all;
      list.GetProperties(all);
      if (auto const one = list.GetProperty(names[0]); !one.empty()) all.push_back(one.as_bstr());
      for (wchar_t const* const text : all)
        ++(*text && !text[std::wcsspn(text, std::wstring(1, *text).c_str())] ? whole : wrong);
    }
  };
  {
    std::jthread const writers[] = {std::jthread(write, 'a'), std::jthread(write, 'b')};
    std::jthread const readers[] = {std::jthread(read), std::jthread(read), std::jthread(read)};
    Sleep(1'000);
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(whole, 0);
}
