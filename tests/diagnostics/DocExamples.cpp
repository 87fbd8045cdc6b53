// The examples of docs/diagnostics.md, run.
#include "tests/support/DocExamples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>

#include "velt/diagnostics/Symbols.h"

namespace {

void read_packet(int kind, std::string& log) {
  if (kind == 7) log += "unexpected packet" + GetMyDebugStack();
}

std::string module_to_blame() {
  unsigned __int64 frames[64];
  unsigned const count = StackWalk(frames, nullptr, GetCurrentThread(), 0, 64);
  return SymGetModuleFromAddress(SymGetActualErrorAddress(frames, count));
}

std::string name_of(void* function) {
  bool const held = SymInitialize();
  auto const name = SymGetFullNameFromAddress(reinterpret_cast<std::uintptr_t>(function));
  if (held) SymCleanup();
  return name;
}

}  // namespace

TEST(DiagnosticsDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("diagnostics.md", __FILE__);
}

TEST(DiagnosticsDocExamples, StackInALog) {
  std::string log;
  read_packet(7, log);
  EXPECT_THAT(log, testing::StartsWith("unexpected packet\n-> ntdll!"));
}

TEST(DiagnosticsDocExamples, BlameAndNames) {
  ASSERT_TRUE(SymInitialize());
  EXPECT_EQ(module_to_blame(), "diagnostics_tests");
  SymCleanup();
  EXPECT_THAT(name_of(reinterpret_cast<void*>(&GetTickCount)), testing::HasSubstr("!"));
  EXPECT_THAT(name_of(reinterpret_cast<void*>(&name_of)),
              testing::AllOf(testing::StartsWith("diagnostics_tests!"),
                             testing::HasSubstr("[DocExamples.cpp#")));
}
