#include "velt/faults/ThrownObjectInternal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "velt/exceptions/EGeneric.h"

using namespace velt::detail;

struct Base {
  int member = 2;
};
struct VirtualBase {};
struct Hidden {
  int member = 3;
};
class EMany : public EGeneric, public Base, private Hidden {};
template <class T>
struct TFoo {};

namespace {

std::string name;

// What the record of a throw tells is what a handler of the type gets.
template <class T>
void expect_as_a_handler(std::function<void()> const& thrower) {
  static std::optional<void const*> foretold;
  std::optional<void const*> happened;
  auto const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* pointers) -> LONG {
    // The unwinding raises codes of its own.
    if (pointers->ExceptionRecord->ExceptionCode != own_throw_code) return 0;
    foretold.reset();
    if (ThrownTypeIs(pointers, typeid(T))) foretold = ThrownObjectAs(pointers, typeid(T));
    name = ThrownTypeName(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
  });
  try {
    thrower();
  } catch (T& object) {
    happened = &object;
    if constexpr (std::is_pointer_v<T>) happened = object;
  } catch (...) {
  }
  RemoveVectoredExceptionHandler(handler);
  EXPECT_EQ(foretold, happened) << typeid(T).name();
}

template <class... Types>
void expect_as_handlers(char const* type, std::function<void()> const& thrower) {
  (expect_as_a_handler<Types>(thrower), ...);
  EXPECT_EQ(name, type);
}

}  // namespace

TEST(ThrownObject, IsFoundAsAHandlerWouldFindItAndNamed) {
  static EMany many;
  auto const kept = std::make_exception_ptr(many);
  expect_as_handlers<EMany, EGeneric, Base, Hidden, EMany*>("EMany", [] { throw many; });
  expect_as_handlers<EMany, Base, int>("EMany", [&] { std::rethrow_exception(kept); });
  expect_as_handlers<EMany*, Base*, Hidden*, void*, EMany>("EMany*", [] { throw &many; });
  expect_as_handlers<int, unsigned>("int", [] { throw 5; });
}

namespace {

// A record as the platform's compiler leaves it. Its references are offsets.
struct ForeignThrow {
  struct Type {
    std::uint64_t unused[2] = {};
    char decorated[40] = {};
  };
  struct Catchable {
    std::uint32_t properties = 0, type, member = 8, table = ~0u, entry = 0, size = 64, copy = 0;
  };

  void add(char const* decorated, std::uint32_t table = ~0u, std::uint32_t entry = 0) {
    auto const at = list.count++;
    std::strcpy(types[at].decorated, decorated);
    catchables[at] = {.type = reference(&types[at]), .table = table, .entry = entry};
    list.entries[at] = reference(&catchables[at]);
  }
  std::uint32_t reference(void const* part) const {
    return static_cast<std::uint32_t>(static_cast<char const*>(part) -
                                      reinterpret_cast<char const*>(this));
  }
  ULONG_PTR address(void const* part) const { return reinterpret_cast<ULONG_PTR>(part); }

  std::uintptr_t object[8] = {};
  Type types[4];
  Catchable catchables[4];
  struct {
    std::uint32_t count = 0, entries[4];
  } list;
  std::uint32_t descriptor[4] = {0, 0, 0, reference(&list)};
  EXCEPTION_RECORD record{
      foreign_throw_code, 0, nullptr, nullptr, 4,
      {0x19930520, address(object), address(descriptor), address(this)}};
  EXCEPTION_POINTERS pointers{&record, nullptr};
};

}  // namespace

TEST(ForeignThrownObject, IsFoundByTheListOfItsTypes) {
  // Its virtual base lies 40 bytes behind the pointer to the table of bases.
  std::int32_t const table[] = {0, 40};
  ForeignThrow thrown;
  for (char const* type : {".?AVEMany@@", ".?AVEGeneric@@"}) thrown.add(type);
  thrown.add(".?AUVirtualBase@@", 16, 4);
  thrown.object[2] = thrown.address(&table);
  auto const pointers = &thrown.pointers;

  EXPECT_EQ(ThrownObjectAs(pointers, typeid(EGeneric)), thrown.object) << "no member's offset";
  EXPECT_EQ(ThrownObjectAs(pointers, typeid(VirtualBase)), &thrown.object[2 + 5]);
  EXPECT_EQ(ThrownObjectAs(pointers, typeid(Base)), nullptr);
  EXPECT_TRUE(ThrownTypeIs(pointers, typeid(EGeneric)));
  EXPECT_FALSE(ThrownTypeIs(pointers, typeid(VirtualBase)));
  EXPECT_EQ(ThrownTypeName(pointers), "EMany");
}

TEST(ForeignThrownObject, HasACleanNameAndTheTypeOfOursThatReadsAlike) {
  struct {
    char const *decorated, *name;
    std::type_info const *same, *other;
  } const rows[] = {
      {".?AU?$TFoo@UBase@@@@", "struct TFoo<struct Base>", &typeid(TFoo<Base>), &typeid(TFoo<int>)},
      {".PEAVEMany@@", "EMany * __ptr64", &typeid(EMany*), &typeid(EMany)},
      {".K", "unsigned long", &typeid(unsigned long), &typeid(long)},
  };
  for (auto const& [decorated, clean_name, same, other] : rows) {
    ForeignThrow thrown;
    thrown.add(decorated);
    EXPECT_EQ(ThrownTypeName(&thrown.pointers), clean_name);
    EXPECT_TRUE(ThrownTypeIs(&thrown.pointers, *same)) << clean_name;
    EXPECT_FALSE(ThrownTypeIs(&thrown.pointers, *other)) << clean_name;
  }
}

// Any module may raise such a code with any parameters.
TEST(ThrownObject, IsOnlyInTheRecordsOfThrows) {
  // As a pointer or as an offset, each of these words leads nowhere.
  std::vector<std::uint64_t> words(512, 0x474E5543432B2B00);
  words[100] = 0x474E554300000000;  // of another language
  ++words[300];                     // of a kept exception
  ForeignThrow thrown;
  thrown.add(".?AVEGeneric@@");
  auto const types = thrown.record.ExceptionInformation[2];
  struct {
    DWORD code, count;
    ULONG_PTR first, types;
  } const rows[] = {
      {0, 4, 0x19930520, types},
      {EXCEPTION_ACCESS_VIOLATION, 4, 0x19930520, types},
      {own_throw_code, 0, 0, 0},
      {own_throw_code, 1, 0x10, 0},
      {own_throw_code, 1, thrown.address(&words[100]), 0},
      {own_throw_code, 1, thrown.address(&words[200]), 0},
      {own_throw_code, 1, thrown.address(&words[300]), 0},
      {foreign_throw_code, 4, 0x19930520, thrown.address(words.data())},
      {foreign_throw_code, 2, 0x19930520, types},
      {foreign_throw_code, 4, 0x19930520, 0},  // as in a throw without operand
      {foreign_throw_code, 4, 0x19930519, types},
  };
  for (auto const& [code, count, first, at] : rows) {
    thrown.record.ExceptionCode = code;
    thrown.record.NumberParameters = count;
    thrown.record.ExceptionInformation[0] = first;
    thrown.record.ExceptionInformation[2] = at;
    EXPECT_FALSE(ThrownTypeIs(&thrown.pointers, typeid(EGeneric)));
    EXPECT_EQ(ThrownTypeName(&thrown.pointers), "");
  }
  EXPECT_FALSE(is_typed_throw(nullptr));
}
