#include "velt/diagnostics/MiniDump.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "tests/diagnostics/Fakes.h"
#include "tests/support/OpenHandles.h"
#include "velt/exceptions/EGeneric.h"

using velt_test::fakes;
using velt_test::Fresh;

namespace wide {
template <class T>
struct TFoo {};
}  // namespace wide

namespace {

constexpr unsigned long thread_id = 4711;

// The records of a fault.
struct Fault {
  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};

  explicit Fault(DWORD code = EXCEPTION_ACCESS_VIOLATION) { record.ExceptionCode = code; }
};

std::string save(EXCEPTION_POINTERS* pointers) {
  return EGeneric::SaveMiniDump(pointers, 2, thread_id);
}

// As a handler would that watches throws.
template <class Thrown>
std::string save_at_throw(Thrown thrown) {
  static std::string path;
  auto const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* pointers) -> LONG {
    if (pointers->ExceptionRecord->ExceptionCode == 0x20474343) path = save(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
  });
  try {
    throw thrown;
  } catch (Thrown const&) {
  }
  RemoveVectoredExceptionHandler(handler);
  return path;
}

std::string path_of(std::string const& module_and_kind) {
  return "Dumps\\" + module_and_kind + "_2024_03_05_09_07_03_042.dmp";
}

// Frames in the module "svc", below one of the system.
void walk_through_svc() {
  fakes().frames = {0x1000, 0x2000};
  fakes().modules[0x2000] = "svc";
}

}  // namespace

TEST(NameOfDump, IsTheModuleToBlameOrTheProgramAndTheCodeOfAFault) {
  Fresh const fresh;
  Fault fault;
  fakes().frames = {0x1000};
  EXPECT_EQ(save(&fault.pointers), path_of("mini_dump_tests_C0000005")) << "nobody to blame";
  walk_through_svc();
  EXPECT_EQ(save(&fault.pointers), path_of("svc_C0000005"));
  EXPECT_EQ(fakes().walked, &fault.context);
  EXPECT_EQ(fakes().walked_thread, GetCurrentThread());
  EXPECT_EQ(velt_test::content_of(path_of("svc_C0000005")), "dump");

  fault.record.ExceptionCode = 0xAB;
  EXPECT_EQ(save(&fault.pointers), path_of("svc_AB"));
  fault.pointers.ContextRecord = nullptr;
  EXPECT_EQ(save(&fault.pointers), path_of("mini_dump_tests_AB"));
  EXPECT_EQ(save(nullptr), path_of("mini_dump_tests_Dump"));
}

TEST(NameOfDump, HasTheTypeOfAThrownObjectAndTheModuleThatTheThrowerNamed) {
  Fresh const fresh;
  walk_through_svc();
  EXPECT_EQ(save_at_throw(wide::TFoo<int>()), path_of("svc_wideTFooint"));
  EXPECT_EQ(save_at_throw(std::bad_alloc()), path_of("svc_bad_alloc"));
  Fault unknown(0xE06D7363);
  EXPECT_EQ(save(&unknown.pointers), path_of("svc_C++"));

  EXPECT_EQ(save_at_throw(EGeneric({"modulename", L"own name"})), path_of("own name_EGeneric"));
  EXPECT_EQ(save_at_throw(EGeneric({"ModuleName", ""})), path_of("svc_EGeneric"));
  EXPECT_EQ(save_at_throw(EGeneric({"ModuleName", _value_t()})), path_of("svc_EGeneric"));
}

TEST(NameOfDump, OfWhichThereCanBeNoFileMakesNoDump) {
  Fresh const fresh;
  walk_through_svc();
  auto const expect_none = [](std::string const& path) {
    EXPECT_EQ(path, "");
    EXPECT_EQ(fakes().holds, 1) << "of the failed writing";
    EXPECT_EQ(fakes().calls, "");
    fakes().holds = 0;
  };
  expect_none(save_at_throw("text"));  // char const*
  fakes().modules[0x2000] = std::string(260, 'm');
  Fault fault;
  expect_none(save(&fault.pointers));
}

TEST(FolderOfDumps, IsMadeOnItsLastLevel) {
  Fresh const fresh;
  std::strcpy(velt_test::dump_format, "outer\\inner\\%s.dmp");
  EXPECT_EQ(save(nullptr), "");
  std::filesystem::create_directory("outer");
  for (auto const what : {"made", "there"})
    EXPECT_EQ(save(nullptr), "outer\\inner\\mini_dump_tests.dmp") << what;

  std::strcpy(velt_test::dump_format, "%s.dmp");
  EXPECT_EQ(save(nullptr), "");
  EXPECT_TRUE(std::filesystem::is_directory("mini_dump_tests.dmp"))
      << "a path without a folder is taken for one";
}

TEST(WriteMiniDump, WritesUnderTheLocksInTheirOrder) {
  Fresh const fresh;
  auto const handles = velt_test::open_handles();
  Fault fault;
  for (bool const succeeds : {true, false}) {
    fakes().calls.clear();
    fakes().writer_succeeds = succeeds;
    EXPECT_EQ(WriteMiniDump("a.dmp", &fault.pointers, 2, thread_id), succeeds);
    EXPECT_EQ(fakes().calls, "symbols loader PEB heap write ~heap ~PEB ~loader ~symbols");
    EXPECT_EQ(fakes().holds, 0);
  }
  EXPECT_EQ(fakes().written_file, fakes().made_file);
  EXPECT_EQ(fakes().written_type, 2);
  EXPECT_EQ(fakes().exception.ThreadId, thread_id);
  EXPECT_EQ(fakes().exception.ExceptionPointers, &fault.pointers);
  EXPECT_EQ(fakes().exception.ClientPointers, TRUE);

  WriteMiniDump("b.dmp", nullptr, 0, thread_id);
  EXPECT_FALSE(fakes().with_exception);
  EXPECT_TRUE(velt_test::open_handles_fall_to(handles));
}

TEST(WriteMiniDump, LeavesTheFileAndAHoldWhereItIsGivenUp) {
  struct {
    void (*hinder)();
    char const* calls;
  } const cases[] = {
      {[] { fakes().loader_state = 2; }, "symbols loader ~symbols"},
      {[] { fakes().loader_status = -1; }, "symbols loader ~symbols"},
      {[] { fakes().peb_is_free = false; }, "symbols loader PEB ~loader ~symbols"},
      {[] {
         fakes().heap_locks = false;
         // So that the heap itself decides.
         velt_test::let_another_thread_take_heap_section();
       },
       "symbols loader PEB heap ~PEB ~loader ~symbols"},
  };
  for (auto const& [hinder, calls] : cases) {
    Fresh const fresh;
    hinder();
    EXPECT_EQ(save(nullptr), "");
    EXPECT_EQ(fakes().calls, calls);
    EXPECT_EQ(fakes().holds, 1);
    EXPECT_EQ(std::filesystem::file_size(path_of("mini_dump_tests_Dump")), 0u);
    EXPECT_TRUE(CloseHandle(fakes().made_file));
  }
}

TEST(WriteMiniDump, MakesNoFileWithoutTheEngine) {
  Fresh const fresh;
  fakes().engine_is_there = false;
  EXPECT_EQ(save(nullptr), "");
  EXPECT_EQ(fakes().holds, 0);
  EXPECT_TRUE(std::filesystem::is_empty("Dumps"));
}

TEST(CancelMiniDump, DeletesTheFileAndTheValue) {
  Fresh const fresh;
  EGeneric exception({"a", 1}, {"minidump", save(nullptr)}, {"b", 2});
  exception.cancel_minidump();
  EXPECT_TRUE(std::filesystem::is_empty("Dumps"));
  EXPECT_STREQ(exception.what(), "a: 1 (0x1)\nb: 2 (0x2)");
  for (_value_t const& value : {_value_t("no such file"), _value_t()}) {
    exception.put_value("MiniDump", value);
    for (int times = 0; times < 2; ++times) exception.cancel_minidump();
    EXPECT_EQ(exception.values().size(), 2u);
  }
}
