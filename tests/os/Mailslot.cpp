#include "velt/os/Mailslot.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "tests/os/Helper.h"
#include "tests/support/SystemCode.h"

using velt_test::exit_code;
using velt_test::limit;
using velt_test::system_code;

namespace {

struct Mailslot : ::testing::Test {
  std::string const name = "\\\\.\\mailslot\\" + velt_test::unique("slot");
  std::wstring const wide{name.begin(), name.end()};
};

std::string next_message(TMailslot& slot) {
  char message[64];
  unsigned long size = 0;
  slot.ReadFile(message, sizeof message, size);
  slot.GetOverlappedResult(size, true);
  return std::string(message, size);
}

void expect_numbers(TMailslot const& slot, DWORD maximum, DWORD timeout) {
  DWORD found_maximum = 0, found_timeout = 0;
  EXPECT_TRUE(GetMailslotInfo(slot, &found_maximum, nullptr, nullptr, &found_timeout));
  EXPECT_EQ(found_maximum, maximum);
  EXPECT_EQ(found_timeout, timeout);
}

}  // namespace

TEST_F(Mailslot, ServesSeveralProcesses) {
  constexpr int writers = 3, messages = 20;
  TMailslot slot(name.c_str(), limit, 64);
  std::vector<TProcess> processes;
  for (int i = 0; i < writers; ++i)
    processes.push_back(velt_test::helper("send " + name + " writer" + std::to_string(i) + " " +
                                          std::to_string(messages)));
  std::map<std::string, int> read;
  for (int i = 0; i < writers * messages; ++i) {
    auto const message = next_message(slot);
    auto const from = message.substr(0, message.find(' '));
    EXPECT_EQ(message, from + ' ' + std::to_string(++read[from]));
  }
  EXPECT_EQ(read.size(), std::size_t{writers});
  for (auto const& process : processes) EXPECT_EQ(exit_code(process), 0u);
}

TEST_F(Mailslot, ConstructorAndOperationTakeTheNumbersTheOtherWayRound) {
  expect_numbers(TMailslot(wide.c_str(), 5, 400), 400, 5);
  TMailslot slot(DoNotInitialize);
  slot.CreateMailslotW(name.c_str(), 5, 400);
  expect_numbers(slot, 5, 400);
}

TEST_F(Mailslot, ReadThrowsWhenItsTimeIsOver) {
  TMailslot slot(name.c_str(), 50, 0);
  EXPECT_EQ(system_code([&] { next_message(slot); }), ERROR_SEM_TIMEOUT);
  TFile(wide.c_str(), GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING).WriteFile("late", 4);
  EXPECT_EQ(next_message(slot), "late");
}
