#include "velt/os/Mailslot.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/support/Expect.h"

namespace {

std::string next_message(TMailslot& slot) {
  char message[64];
  unsigned long size = 0;
  slot.ReadFile(message, sizeof message, size);
  slot.GetOverlappedResult(size, true);
  return std::string(message, size);
}

}  // namespace

TEST(Mailslot, GivesEachMessageAndThrowsWhenItsTimeIsOver) {
  std::string const name = "\\\\.\\mailslot\\velt-" + std::to_string(GetCurrentProcessId());
  TMailslot slot(name.c_str(), 50, 0);
  EXPECT_EQ(velt_test::system_code([&] { next_message(slot); }), ERROR_SEM_TIMEOUT);
  for (int sender = 0; sender < 3; ++sender) {
    TFile file(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING);
    for (std::string const message : {"late", "later"})
      file.WriteFile(message.data(), static_cast<DWORD>(message.size()));
  }
  for (int i = 0; i < 6; ++i) EXPECT_EQ(next_message(slot), i % 2 ? "later" : "late");
}
