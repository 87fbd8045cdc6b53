// What a new user writes on the first day: it compiles and does what it says, or it
// does not compile.
#include <windows.h>

#include <comutil.h>
#include <gmock/gmock.h>

#include <limits>

#include "tests/support/Expect.h"
#include "velt/velt.h"

using namespace std::string_literals;
using namespace std::string_view_literals;
using testing::ElementsAre;
using velt_test::values_of;

namespace {

struct Member {};
struct Derived : virtual SmartPtrObj {};

template <class T>
constexpr bool makes_value = std::is_constructible_v<_value_t, T>;
template <class T>
constexpr bool is_assigned = std::is_assignable_v<_value_t&, T>;
template <class T>
constexpr bool is_appended = requires(_value_t& value, T const& item) { value.push_back(item); };
template <class T>
constexpr bool all_three = makes_value<T> && is_assigned<T> && is_appended<T>;
template <class T>
constexpr bool none_of_three = !makes_value<T> && !is_assigned<T> && !is_appended<T>;

static_assert(all_three<long> && all_three<unsigned> && all_three<std::string_view>);
static_assert(all_three<SmartPtr<Derived>> && all_three<SmartPtr<const Derived>>);
static_assert(none_of_three<std::size_t> && none_of_three<void*> && none_of_three<TEvent>);
static_assert(none_of_three<void (*)()> && none_of_three<int Member::*>);
static_assert(!is_appended<char[6]> && !is_appended<wchar_t const*>, "would be true");
static_assert(!std::is_assignable_v<_value_t, _value_t>, "v[0] = v[1] would do nothing");
static_assert(!std::is_assignable_v<_value_t, std::vector<int>>);
static_assert(std::is_assignable_v<_value_t, int> && std::is_assignable_v<_value_t, char const*>);

template <class T>
constexpr bool makes_time =
    std::is_constructible_v<_time_t, T> && std::is_assignable_v<_time_t&, T>;
static_assert(makes_time<long> && makes_time<unsigned> && makes_time<DWORD> && makes_time<int>);
static_assert(!makes_time<std::nullptr_t> && !std::is_assignable_v<_time_t&, std::nullptr_t>);

template <class T>
constexpr bool is_written = requires(TDebugStream& log, T const& value) { log << value; };
static_assert(is_written<long> && is_written<std::string_view> && is_written<std::exception>);
static_assert(!is_written<TEvent> && !is_written<void*> && !is_written<Member>);

template <class T>
constexpr bool is_formatted = requires(T const& value, TDebugStream& log) {
  format_string("%s", value);
  format_wstring(L"%s", value);
  format_bstr(L"%s", value);
  log.printf("%s", value);
};
static_assert(is_formatted<char const*> && !is_formatted<std::string> && !is_formatted<_bstr_t>);

template <class Work>
constexpr bool is_work = requires(Work work, IThreadPool& pool) {
  MakeThreadTask(work);
  pool.AddJob(work);
};
static_assert(is_work<void (*)()> && !is_work<int (*)()>);
template <class... Types>
constexpr bool may_be_bases = (std::has_virtual_destructor_v<Types> && ...);
static_assert(may_be_bases<TPropertyList, TMutex, TSemaphore, TCriticalSection, TMultiLock,
                           TMultiLockWithNotify, TTimedLock>);

// Has members whose destructors may throw.
struct Job : TThreadTask {
  void Run(SmartPtr<IThreadContext> const& context) override { RunTask(context, [] {}); }

private:
  TEvent event;
  TMutex mutex;
};
static_assert(std::is_nothrow_destructible_v<SmartPtr<Job>>);

}  // namespace

TEST(FirstDay, ValuesHoldTheOtherIntegersAndCompareByTheLeftSide) {
  EXPECT_EQ(_value_t(HRESULT(-1)).type(), typeid(int));
  EXPECT_EQ(_value_t(5u).type(), typeid(unsigned long));
  _value_t const half = 1.5, nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(half > 1 && half >= 1 && half <= 2 && !(half > 2) && 2.0 >= half);
  EXPECT_FALSE(nan > 1.0 || nan >= 1.0 || nan <= 1.0);
  EXPECT_EQ(values_of([&] { return _value_t(1) > half; }), "Text=Bad cast;From=double;To=int");
  _value_t const list = std::vector<int>{1, 2};
  EXPECT_TRUE(list > 1 && list >= list && list > std::vector<int>() && list <= _value_t(2));
  EXPECT_TRUE(std::greater<>()(list, _value_t()) && !(_value_t() > list));
}

TEST(FirstDay, ValuesTakeHoldersHandlesAndViewsAndCanBeEmptied) {
  auto const object = MakeCounted<Derived>();
  _value_t value = object;
  value = object;
  value.push_back(object);
  EXPECT_EQ(object.use_count(), 3);
  value.clear();
  EXPECT_EQ(object.use_count(), 1);
  value = std::vector<std::string>{"a", "b"};
  value[0] = value[1].as_string();
  EXPECT_EQ(value.as_string(), "{b,b}");
  value = {};
  EXPECT_TRUE(value.empty());
  value = _value_t(7).holder()->clone();
  EXPECT_EQ(value.type(), typeid(int));
  SmartPtr<Derived> const none = NULL;
  EXPECT_TRUE(none == NULL);
}

TEST(FirstDay, TimesMoveAndTextFunctionsTakeViews) {
  _time_t time = 5u;
  time += 60;
  EXPECT_EQ(++time, 66);
  EXPECT_EQ(time--, 66);
  EXPECT_EQ(time -= 5, 60);
  EXPECT_EQ(trim(" a "sv, " ") + triml(" a"sv, " ") + trimr("a "sv, " "), "aaa");
  std::vector<std::wstring> words;
  divide_string(L"a b"sv, words, L" ");
  EXPECT_THAT(words, ElementsAre(L"a", L"b"));
  EXPECT_EQ(as_wstring("ab"sv.substr(0, 1)), L"a");
}

TEST(FirstDay, GuardStopsThePoolThatAnExceptionLeaves) {
  SmartPtr<IThreadPool> pool;
  auto const leave = [&] {
    TThreadPoolGuard const guard(CreateNewThreadPool(2, 0));
    pool = guard.get();
    guard->AddJob(SmartPtr<IThreadJob>(MakeCounted<Job>()));
    throw 1;
  };
  EXPECT_THROW(leave(), int);
  EXPECT_EQ(pool.use_count(), 1);
}

TEST(FirstDay, FailuresNameTheFileAndAbsentValuesHaveAFallBack) {
  auto const open = [] { TFile("c:\\no folder\\x", GENERIC_READ, 0, OPEN_EXISTING); };
  EXPECT_THAT(values_of(open), testing::EndsWith(";FileName=c:\\no folder\\x"));
  EGeneric const error({"Text", "x"});
  int const code = error.get_value("Code", -1);
  EXPECT_EQ(code, -1);
  EXPECT_EQ(error.get_value("text", "y").as_string(), "x");
  TPropertyList list;
  for (auto const name : {L"b", L"A"}) list.PutProperty(name, 1);
  EXPECT_THAT(list.GetNames(), ElementsAre(_bstr_t(L"A"), _bstr_t(L"b")));
}
