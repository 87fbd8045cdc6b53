// The matrix of docs/locks.md: in each row somebody holds the lock, and thread A
// asks in each of the four ways.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/locks/Agent.h"
#include "tests/support/DocTables.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/MultiLock.h"

using velt_test::Agent;
using velt_test::Interrupted;

namespace {

struct Way {
  std::string name;
  bool (TMultiLock::*lock)(unsigned int);
  void (TMultiLock::*unlock)();
};
#define VELT_WAY(OPERATION, UNDO) {#OPERATION, &TMultiLock::OPERATION, &TMultiLock::UNDO}
Way const ways[] = {VELT_WAY(ReadLock, Unlock), VELT_WAY(WriteLock, Unlock),
                    VELT_WAY(ReadLockThreadIndependent, UnlockThreadIndependent),
                    VELT_WAY(WriteLockThreadIndependent, UnlockThreadIndependent)};
constexpr unsigned int no_limit = 0xFFFFFFFF;

// A lock with the holds that a cell such as "own:R other:R" names. "other:up" is
// another thread that waits to upgrade.
struct Held {
  Held(Agent& own, Agent& the_other, std::string const& cell) : other(the_other) {
    std::istringstream words(cell);
    for (std::string word; words >> word;) {
      if (word == "other:up") {
        other.start([this] { lock.WriteLock(); });
        EXPECT_TRUE(other.waits());
        upgrades = true;
      } else if (word != "nobody") {
        bool const is_own = word.starts_with("own");
        Way const& way = ways[2 * word.starts_with("none") + word.ends_with("W")];
        (is_own ? own : other).run([&] { EXPECT_TRUE((lock.*way.lock)(no_limit)); });
        if (!is_own) others.push_back(&way);
      }
    }
  }
  ~Held() { others_leave(); }

  void others_leave() {
    if (std::exchange(upgrades, false)) {
      other.interrupt();
      EXPECT_THROW(other.finish(), Interrupted);
    }
    for (Way const* const way : std::exchange(others, {}))
      other.run([&] { (lock.*way->unlock)(); });
  }

  TMultiLock lock;
  Agent& other;
  std::vector<Way const*> others;
  bool upgrades = false;
};

struct MultiLockMatrix : ::testing::Test {
  Agent a, other;

  // The answer of the operation as the page words it; nothing changes unless it is granted.
  std::string ask(std::string const& held, Way const& way, unsigned int limit) {
    Held cell(a, other, held);
    auto const before = cell.lock.GetStatusString();
    std::string answer = "throws";
    try {
      answer = a.ask([&] { return (cell.lock.*way.lock)(limit); }) ? "granted" : "waits";
    } catch (EDeadLockException const& error) {
      EXPECT_EQ(error["Status"].as_string(), before);
    }
    EXPECT_EQ(cell.lock.GetStatusString() == before, answer != "granted");
    return answer;
  }

  // Until a queued call throws, or the others leave.
  void expect_wait(std::string const& held, Way const& way) {
    Held cell(a, other, held);
    auto const before = cell.lock.GetStatusString();
    auto const start = [&] {
      a.start([&] { EXPECT_TRUE((cell.lock.*way.lock)(no_limit)); });
      ASSERT_TRUE(a.waits());
    };
    start();
    a.interrupt();
    EXPECT_THROW(a.finish(), Interrupted);
    EXPECT_EQ(cell.lock.GetStatusString(), before);
    bool const for_itself = held.starts_with("own") && way.name.ends_with("Independent");
    if (for_itself) return;
    start();
    cell.others_leave();
    a.finish();
  }
};

}  // namespace

TEST_F(MultiLockMatrix, HoldsAsDocumented) {
  auto const rows = velt_test::doc_table("locks.md", "multilock");
  ASSERT_EQ(rows[0].size(), 1 + std::size(ways));
  for (std::size_t column = 1; column < rows[0].size(); ++column) {
    Way const& way = ways[column - 1];
    ASSERT_EQ(rows[0][column], way.name);
    for (std::size_t i = 1; i < rows.size(); ++i) {
      auto const& held = rows[i][0];
      SCOPED_TRACE("held: " + held + ", asked: " + way.name);
      auto const answer = rows[i][column].substr(0, rows[i][column].find(':'));
      for (unsigned int const limit : {0u, 20u}) EXPECT_EQ(ask(held, way, limit), answer);
      if (answer == "waits")
        expect_wait(held, way);
      else
        EXPECT_EQ(ask(held, way, no_limit), answer);
    }
  }
}
