#include <gtest/gtest.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "velt/exceptions/EGeneric.h"
#include "velt/faults/ThrownObjectInternal.h"

using velt::detail::is_typed_throw;
using velt::detail::ThrownObjectAs;
using velt::detail::ThrownTypeIs;
using velt::detail::ThrownTypeName;

struct EFirst : EGeneric {};
struct Second {
  int member = 2;
};
struct VirtualBase {
  int member = 3;
};
struct LeftOfTwo : VirtualBase, private Second {};
struct Left : virtual VirtualBase {};
struct Right : virtual VirtualBase {};
class Unreachable {
  int member = 4;
};
struct Twice {
  int member = 5;
};
struct OneTwice : Twice {};
struct OtherTwice : Twice {};
class EMany : public EFirst,
              public Second,
              public Left,
              public Right,
              public OneTwice,
              public OtherTwice,
              private Unreachable {};
template <class T>
struct TFoo : EGeneric {};

namespace {

// Calls `look` with the records of the throws that `thrower` makes, which ends
// by one.
void at_throws(std::function<void()> const& thrower, std::function<void(EXCEPTION_POINTERS*)> look) {
  static std::function<void(EXCEPTION_POINTERS*)> observer;
  observer = std::move(look);
  auto const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* pointers) -> LONG {
    // The unwinding raises codes of its own.
    if (pointers->ExceptionRecord->ExceptionCode == 0x20474343) observer(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
  });
  try {
    thrower();
  } catch (...) {
  }
  RemoveVectoredExceptionHandler(handler);
}

using Answer = std::pair<bool, void const*>;

template <class T>
void const* seen_by_handler(T& caught) {
  if constexpr (std::is_pointer_v<T>)
    return caught;
  else
    return &caught;
}

// What the thrown object's record tells is what a handler of the type gets.
template <class T>
void expect_as_a_handler(std::function<void()> const& thrower) {
  SCOPED_TRACE(typeid(T).name());
  Answer foretold, happened;
  auto const thrower_with_handler = [&] {
    try {
      thrower();
    } catch (T& caught) {
      happened = {true, seen_by_handler(caught)};
    }
  };
  at_throws(thrower_with_handler, [&](EXCEPTION_POINTERS* pointers) {
    EXPECT_TRUE(is_typed_throw(pointers));
    foretold = {ThrownTypeIs(pointers, typeid(T)), ThrownObjectAs(pointers, typeid(T))};
  });
  EXPECT_EQ(foretold, happened);
}

template <class... Types>
void expect_as_handlers(std::function<void()> const& thrower) {
  (expect_as_a_handler<Types>(thrower), ...);
}

std::string name_at_throw(std::function<void()> const& thrower) {
  std::string name;
  at_throws(thrower, [&](EXCEPTION_POINTERS* pointers) { name = ThrownTypeName(pointers); });
  return name;
}

}  // namespace

TEST(ThrownObject, IsFoundAsAHandlerWouldFindItAndNamed) {
  auto const kept = std::make_exception_ptr(EMany());
  auto const throw_anew = [] { throw EMany(); };
  auto const throw_kept = [&] { std::rethrow_exception(kept); };
  auto const throw_again = [] {
    try {
      throw EMany();
    } catch (...) {
      throw;
    }
  };
  for (std::function<void()> const& thrower :
       {std::function<void()>(throw_anew), std::function<void()>(throw_kept)})
    expect_as_handlers<EMany, EFirst, EGeneric, std::exception, Second, Left, VirtualBase,
                       Unreachable, Twice, OneTwice, int, EMany*>(thrower);
  EXPECT_EQ(name_at_throw(throw_again), "EMany");
  EXPECT_EQ(name_at_throw(throw_kept), "EMany");
  EXPECT_EQ(name_at_throw([] { throw std::bad_alloc(); }), "bad_alloc");
  EXPECT_EQ(name_at_throw([] { throw TFoo<int>(); }), "TFoo<int>");
  EXPECT_EQ(name_at_throw([] { throw "text"; }), "char const*");

  static EMany thrown;
  expect_as_handlers<EMany*, EGeneric*, Second*, VirtualBase*, Twice*, EMany const*, void*, EMany>(
      [] { throw &thrown; });
  expect_as_handlers<EGeneric*, EMany*>([] { throw static_cast<EMany*>(nullptr); });
  expect_as_handlers<int, unsigned, EGeneric>([] { throw 5; });
}

namespace {

// A record as the platform's compiler leaves it, in memory that 32 bits reach.
class ForeignThrow {
public:
  static constexpr std::uint32_t direct = ~0u;

  struct Entry {
    char const* decorated_name;
    std::uint32_t table_offset = direct;
    std::uint32_t entry_offset = 0;
  };

  // `relative`: references count from a base, which is the fourth parameter;
  // otherwise they are addresses, and there are three parameters.
  ForeignThrow(std::vector<Entry> const& entries, bool relative) {
    for (std::uintptr_t at = 0x20000000; !memory; at += 0x100000)
      memory = static_cast<std::byte*>(VirtualAlloc(reinterpret_cast<void*>(at), 0x1000,
                                                    MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    base = relative ? reinterpret_cast<std::uintptr_t>(memory) - 0x40 : 0;
    object = add(std::vector<std::uint32_t>(16));
    std::vector<std::uint32_t> list{static_cast<std::uint32_t>(entries.size())};
    for (auto const& entry : entries) list.push_back(reference(add_type(entry)));
    auto const descriptor = add({0, 0, 0, reference(add(list))});
    record.ExceptionCode = 0xE06D7363;
    record.NumberParameters = relative ? 4 : 3;
    record.ExceptionInformation[0] = 0x19930520;
    record.ExceptionInformation[1] = reinterpret_cast<std::uintptr_t>(object);
    record.ExceptionInformation[2] = reinterpret_cast<std::uintptr_t>(descriptor);
    record.ExceptionInformation[3] = base;
  }
  ~ForeignThrow() { VirtualFree(memory, 0, MEM_RELEASE); }
  ForeignThrow(ForeignThrow const&) = delete;

  EXCEPTION_POINTERS* pointers() { return &both; }

  std::byte* object;
  EXCEPTION_RECORD record{};

private:
  std::byte* add(std::vector<std::uint32_t> const& words) {
    auto const place = memory + used;
    std::memcpy(place, words.data(), words.size() * sizeof words[0]);
    used += (words.size() * sizeof words[0] + 15) / 16 * 16;
    return place;
  }
  std::byte* add_type(Entry const& entry) {
    std::vector<std::uint32_t> words(4 + std::strlen(entry.decorated_name) / 4 + 1);
    std::strcpy(reinterpret_cast<char*>(&words[4]), entry.decorated_name);
    constexpr std::uint32_t member_offset = 8, size = 64;
    return add(
        {0, reference(add(words)), member_offset, entry.table_offset, entry.entry_offset, size, 0});
  }
  std::uint32_t reference(std::byte const* place) const {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(place) - base);
  }

  std::byte* memory = nullptr;
  std::size_t used = 0;
  std::uintptr_t base;
  EXCEPTION_POINTERS both{&record, nullptr};
};

}  // namespace

TEST(ForeignThrownObject, IsFoundByTheListOfItsTypes) {
  for (bool const relative : {false, true}) {
    // Its virtual base lies 40 bytes behind the pointer to the table of bases.
    ForeignThrow thrown(
        {{".?AVEMany@@"}, {".?AVEGeneric@@"}, {".?AUSecond@@"}, {".?AUVirtualBase@@", 16, 4}},
        relative);
    std::int32_t const table[] = {0, 40};
    auto const place = &table;
    std::memcpy(thrown.object + 16, &place, sizeof place);
    auto const pointers = thrown.pointers();

    EXPECT_TRUE(is_typed_throw(pointers));
    for (auto const type : {&typeid(EMany), &typeid(EGeneric), &typeid(Second)}) {
      EXPECT_TRUE(ThrownTypeIs(pointers, *type)) << type->name();
      EXPECT_EQ(ThrownObjectAs(pointers, *type), thrown.object) << "without the member's offset";
    }
    EXPECT_FALSE(ThrownTypeIs(pointers, typeid(VirtualBase)));
    EXPECT_EQ(ThrownObjectAs(pointers, typeid(VirtualBase)), thrown.object + 16 + 40);
    EXPECT_FALSE(ThrownTypeIs(pointers, typeid(EFirst)));
    EXPECT_EQ(ThrownObjectAs(pointers, typeid(EFirst)), nullptr);
    EXPECT_EQ(ThrownTypeName(pointers), "EMany");
  }
}

TEST(ForeignThrownObject, HasACleanNameAndTheTypeOfOursThatReadsAlike) {
  struct {
    char const *decorated, *name;
    std::type_info const* same = nullptr;
    std::type_info const* other = nullptr;
  } const rows[] = {
      {".?AVUnreachable@@", "Unreachable", &typeid(Unreachable)},
      {".?AVbad_alloc@std@@", "bad_alloc", &typeid(std::bad_alloc)},
      {".?AUSFoo@@", "struct SFoo"},
      {".?AU?$TFoo@USecond@@@@", "struct TFoo<struct Second>", &typeid(TFoo<Second>)},
      {".?AV?$TFoo@H@@", "TFoo<int>", &typeid(TFoo<int>), &typeid(TFoo<Second>)},
      {".PEAVEMany@@", "EMany * __ptr64", &typeid(EMany*), &typeid(EMany)},
      {".?AULeftOfTwo@@", "struct LeftOfTwo", &typeid(LeftOfTwo), &typeid(Left)},
      {".K", "unsigned long", &typeid(unsigned long)},
  };
  for (auto const& row : rows) {
    ForeignThrow thrown({{row.decorated}}, true);
    EXPECT_EQ(ThrownTypeName(thrown.pointers()), row.name);
    EXPECT_TRUE(!row.same || ThrownTypeIs(thrown.pointers(), *row.same)) << row.name;
    EXPECT_FALSE(row.other && ThrownTypeIs(thrown.pointers(), *row.other)) << row.name;
  }
}

TEST(ThrownObject, IsOnlyInTheRecordsOfThrows) {
  EXCEPTION_RECORD record{};
  EXCEPTION_POINTERS pointers{&record, nullptr}, without_record{};
  auto const expect_nothing = [](EXCEPTION_POINTERS* of) {
    EXPECT_FALSE(ThrownTypeIs(of, typeid(EGeneric)));
    EXPECT_EQ(ThrownObjectAs(of, typeid(EGeneric)), nullptr);
    EXPECT_EQ(ThrownTypeName(of), "");
  };
  expect_nothing(nullptr);
  expect_nothing(&without_record);
  record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
  EXPECT_FALSE(is_typed_throw(&pointers));
  expect_nothing(&pointers);

  record.ExceptionCode = 0x20474343;
  expect_nothing(&pointers);
  // An exception that the run time raised for another language.
  std::uint64_t of_another_language[32] = {0x474E554300000000};
  record.NumberParameters = 1;
  record.ExceptionInformation[0] = reinterpret_cast<std::uintptr_t>(of_another_language);
  expect_nothing(&pointers);

  ForeignThrow foreign({{".?AVEMany@@"}}, false), without_types({}, true);
  expect_nothing(without_types.pointers());
  foreign.record.NumberParameters = 2;
  expect_nothing(foreign.pointers());
  foreign.record.NumberParameters = 3;
  foreign.record.ExceptionInformation[2] = 0;  // as in a throw without operand
  expect_nothing(foreign.pointers());
}
