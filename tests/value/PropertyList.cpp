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

#include "velt/exceptions/EGeneric.h"
#include "velt/locks/Event.h"

namespace {

std::vector<std::wstring> texts_of(std::vector<_bstr_t> const& strings) {
  std::vector<std::wstring> result;
  for (auto const& each : strings) result.emplace_back(static_cast<wchar_t const*>(each));
  return result;
}

}  // namespace

TEST(PropertyList, NamesAreOneWhateverTheirCase) {
  TPropertyList list;
  list.PutProperty(L"Name", 1);
  EXPECT_EQ(list.GetProperty(L"NAME").as_int(), 1);
  list.PutProperty(L"NAME", 2);
  EXPECT_EQ(list.GetCount(), 1);
  EXPECT_EQ(list.GetProperty(L"name").as_int(), 2);
  EXPECT_TRUE(list.Have(L"nAME"));
  list.Delete(L"namE");
  EXPECT_FALSE(list.Have(L"Name"));
  EXPECT_EQ(list.GetCount(), 0);
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
  struct Case {
    _value_t value;
    char const* from;
  };
  for (auto const& [value, from] : {Case{5, "int"}, Case{_value_t(), "void"}}) {
    TPropertyList list;
    EXPECT_TRUE(list.GetProperty(L"none").empty());
    list.PutProperty(L"A", 7);
    list.PutProperty(L"a", std::string("x"));
    list.PutProperty(L"b", value);
    list.PutProperty(L"c", std::string("y"));
    std::vector<_bstr_t> out{L"left over"};
    try {
      list.GetProperties(out);
      ADD_FAILURE() << "did not throw";
    } catch (EBadCastException const& e) {
      EXPECT_EQ(e["From"].as_string(), from);
      EXPECT_NE(e["To"].as_string().find("_bstr_t"), std::string::npos);
    }
    EXPECT_EQ(texts_of(out), std::vector<std::wstring>{L"x"});
    bool written = false;
    std::thread([&] { list.Delete(L"b"), written = true; }).join();
    EXPECT_TRUE(written);
  }
}

// An old value may be the last owner of an object whose destructor uses the list,
// or waits for a thread that does.
TEST(PropertyList, OldValuesAreReleasedWhenTheLockIsFreeAgain) {
  struct User final : SmartPtrObj {
    User(TPropertyList& its_list, bool& flag) : list(its_list), could_read(flag) {}
    ~User() override {
      auto const done = std::make_shared<TEvent>();
      std::thread([this, done] { list.GetCount(), done->Set(); }).detach();
      could_read = done->Signaled(2'000);
      list.PutProperty(L"heir", 1);
    }
    TPropertyList& list;
    bool& could_read;
  };
  for (bool const erase : {false, true}) {
    TPropertyList list;
    bool could_read = false;
    list.PutProperty(L"a", SmartPtr<SmartPtrObj>(new User(list, could_read)));
    erase ? list.Delete(L"a") : list.PutProperty(L"A", 2);
    EXPECT_TRUE(could_read);
    EXPECT_EQ(list.GetProperty(L"heir").as_int(), 1);
    EXPECT_EQ(list.GetCount(), erase ? 1 : 2);
  }
}

// Each value is one character again and again, so a torn one shows.
TEST(PropertyList, ReadersBesideWritersSeeWholeValues) {
  TPropertyList list;
  std::wstring const names[] = {L"alpha", L"Beta", L"gamma", L"DELTA"};
  std::atomic<bool> stop = false;
  std::atomic<int> reads = 0, writes = 0, wrong = 0;
  auto const writer = [&](unsigned int seed) {
    std::mt19937 random(seed);
    while (!stop) {
      _bstr_t const name(names[random() % 4].c_str());
      if (random() % 4 == 0)
        list.Delete(name);
      else
        list.PutProperty(name, std::string(1 + random() % 40, static_cast<char>('a' + seed)));
      ++writes;
    }
  };
  auto const is_whole = [](std::string const& text) {
    return !text.empty() && text.find_first_not_of(text[0]) == text.npos;
  };
  auto const reader = [&](unsigned int seed) {
    std::mt19937 random(seed);
    std::vector<_bstr_t> all;
    while (!stop) {
      _value_t const value = list.GetProperty(names[random() % 4].c_str());
      if (!value.empty() && !is_whole(value.as_string())) ++wrong;
      list.GetProperties(all);
      for (auto const& each : all)
        if (!is_whole(static_cast<char const*>(each))) ++wrong;
      if (list.GetCount() > 4) ++wrong;
      ++reads;
    }
  };
  {
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i < 2; ++i) threads.emplace_back(writer, i);
    for (unsigned int i = 2; i < 6; ++i) threads.emplace_back(reader, i);
    Sleep(1'000);
    stop = true;
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(reads, 0);
  EXPECT_GT(writes, 0);
}
