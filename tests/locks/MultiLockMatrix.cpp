// The matrix of docs/locks.md: in each row somebody holds the lock, and thread A
// asks in each of the four ways.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/locks/Agent.h"
#include "tests/support/DocTables.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/MultiLock.h"

using velt_test::Agent;
using velt_test::Interrupted;

namespace {

struct Way {
  char const* name;
  bool (TMultiLock::*timed)(unsigned int);
  void (TMultiLock::*untimed)();
  void (TMultiLock::*undo)();
};

#define VELT_WAY(OPERATION, UNDO) \
  {#OPERATION, &TMultiLock::OPERATION, &TMultiLock::OPERATION, &TMultiLock::UNDO}
constexpr Way ways[] = {VELT_WAY(ReadLock, Unlock), VELT_WAY(WriteLock, Unlock),
                        VELT_WAY(ReadLockThreadIndependent, UnlockThreadIndependent),
                        VELT_WAY(WriteLockThreadIndependent, UnlockThreadIndependent)};

// A lock with the holds that a cell such as "own:R other:R" names. "other:up" is
// another thread that waits to upgrade.
class Held {
public:
  Held(Agent& the_own, Agent& the_other, std::string const& cell) : own(the_own), other(the_other) {
    std::istringstream words(cell);
    for (std::string word; words >> word;) {
      if (word == "other:up") {
        upgrading = true;
        other.start([this] { lock.WriteLock(); });
        EXPECT_TRUE(other.waits());
      } else if (word != "nobody") {
        bool const by_none = word.starts_with("none");
        auto const who = by_none ? nullptr : word.starts_with("own") ? &own : &other;
        auto const& way = ways[2 * by_none + word.ends_with("W")];
        by(who, [&] { (lock.*way.untimed)(); });
        holds.push_back({who, &way});
      }
    }
  }
  ~Held() {
    others_leave();
    for (auto const& [who, way] : holds)
      if (who == &own) by(who, [&] { (lock.*way->undo)(); });
  }

  bool waits_for_itself(Way const& way) const {
    bool const writes = &way == &ways[3], independent = writes || &way == &ways[2];
    for (auto const& hold : holds)
      if (independent && hold.who == &own && (writes || hold.way == &ways[1])) return true;
    return false;
  }

  void others_leave() {
    if (upgrading) {
      other.interrupt();
      EXPECT_THROW(other.finish(), Interrupted);
    }
    upgrading = false;
    std::erase_if(holds, [&](auto const& hold) {
      if (hold.who != &own) by(hold.who, [&] { (lock.*hold.way->undo)(); });
      return hold.who != &own;
    });
  }

  TMultiLock lock;

private:
  struct Hold {
    Agent* who;  // null: no thread
    Way const* way;
  };

  template <class Step>
  static void by(Agent* who, Step const& step) {
    who ? who->run(step) : step();
  }

  Agent &own, &other;
  std::vector<Hold> holds;
  bool upgrading = false;
};

// No answer: it throws.
std::optional<bool> ask(Agent& agent, TMultiLock& lock, Way const& way, unsigned int limit) {
  try {
    return agent.ask([&] { return (lock.*way.timed)(limit); });
  } catch (EDeadLockException const&) {
    return std::nullopt;
  }
}

struct MultiLockMatrix : ::testing::Test {
  Agent a{"A"}, other{"the other"};

  void expect_answer(std::string const& held, Way const& way, std::optional<bool> answer) {
    for (unsigned int const limit : {0u, 20u, answer == false ? 20u : 0xFFFFFFFF}) {
      Held cell(a, other, held);
      auto const before = cell.lock.GetStatusString();
      EXPECT_EQ(ask(a, cell.lock, way, limit), answer);
      EXPECT_EQ(cell.lock.GetStatusString() == before, answer != true);
      if (answer == true) a.run([&] { (cell.lock.*way.undo)(); });
    }
  }

  // Until a queued call throws, or the others leave.
  void expect_wait(std::string const& held, Way const& way) {
    Held cell(a, other, held);
    auto const before = cell.lock.GetStatusString();
    auto const start = [&] {
      a.start([&] { (cell.lock.*way.untimed)(); });
      ASSERT_TRUE(a.waits());
    };
    start();
    a.interrupt();
    EXPECT_THROW(a.finish(), Interrupted);
    EXPECT_EQ(cell.lock.GetStatusString(), before);
    if (cell.waits_for_itself(way)) return;
    start();
    cell.others_leave();
    a.finish();
    a.run([&] { (cell.lock.*way.undo)(); });
  }
};

}  // namespace

TEST_F(MultiLockMatrix, HoldsAsDocumented) {
  auto const rows = velt_test::doc_table("locks.md", "multilock");
  for (std::size_t column = 1; column < rows[0].size(); ++column) {
    Way const& way = ways[column - 1];
    ASSERT_EQ(rows[0][column], way.name);
    for (std::size_t i = 1; i < rows.size(); ++i) {
      auto const &held = rows[i][0], &answer = rows[i][column];
      SCOPED_TRACE("held: " + held + ", asked: " + way.name);
      bool const granted = answer == "granted", waits = answer.starts_with("waits: ");
      ASSERT_TRUE(granted || waits || answer == "throws");
      expect_answer(held, way, answer == "throws" ? std::nullopt : std::optional(granted));
      if (waits) expect_wait(held, way);
    }
  }
  EXPECT_EQ(rows[0].size(), 1 + std::size(ways));
}
