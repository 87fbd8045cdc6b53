// The matrix of docs/locks.md: in each row somebody holds the lock, and thread A
// asks in each of the four ways.
#include <gtest/gtest.h>

#include <optional>
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
  char const* name;
  bool (TMultiLock::*timed)(unsigned int);
  void (TMultiLock::*untimed)();
  void (TMultiLock::*undo)();
};

constexpr unsigned int no_limit = 0xFFFFFFFF;

constexpr Way ways[] = {
    {"ReadLock", &TMultiLock::ReadLock, &TMultiLock::ReadLock, &TMultiLock::Unlock},
    {"WriteLock", &TMultiLock::WriteLock, &TMultiLock::WriteLock, &TMultiLock::Unlock},
    {"ReadLockThreadIndependent", &TMultiLock::ReadLockThreadIndependent,
     &TMultiLock::ReadLockThreadIndependent, &TMultiLock::UnlockThreadIndependent},
    {"WriteLockThreadIndependent", &TMultiLock::WriteLockThreadIndependent,
     &TMultiLock::WriteLockThreadIndependent, &TMultiLock::UnlockThreadIndependent},
};

std::vector<std::string> words_of(std::string const& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

// Takes and ends the holds that a cell such as "own:R other:R" names. "other:up"
// is another thread that waits to upgrade.
class Holders {
public:
  Holders(TMultiLock& the_lock, Agent& own_agent, Agent& other_agent, std::string const& cell)
      : lock(the_lock), own(own_agent), other(other_agent), holds(words_of(cell)) {
    for (auto const& each : holds) take(each);
  }
  ~Holders() {
    if (upgrading) other.interrupt();
    EXPECT_TRUE(end_upgrade());
    for (auto const& each : holds) end(each);
  }

  bool waits_for_itself(Way const& way) const {
    std::string const asked = way.name;
    bool const independent = asked.ends_with("Independent");
    bool const write = asked.starts_with("Write");
    for (auto const& each : holds)
      if (independent && each.starts_with("own") && (write || each.ends_with("W"))) return true;
    return false;
  }

  // Everybody but A, and A with its own holds, leaves.
  void others_leave() {
    if (upgrading) {
      other.interrupt();
      end_upgrade();
    }
    for (auto& each : holds)
      if (!each.starts_with("own")) end(std::exchange(each, "own:gone"));
  }

private:
  void take(std::string const& hold) {
    if (hold == "own:R") own.run([&] { lock.ReadLock(); });
    if (hold == "own:W") own.run([&] { lock.WriteLock(); });
    if (hold == "other:R") other.run([&] { lock.ReadLock(); });
    if (hold == "other:W") other.run([&] { lock.WriteLock(); });
    if (hold == "none:R") lock.ReadLockThreadIndependent();
    if (hold == "none:W") lock.WriteLockThreadIndependent();
    if (hold == "other:up") {
      other.start([&] { lock.WriteLock(); });
      EXPECT_TRUE(other.waits());
      upgrading = true;
    }
  }

  void end(std::string const& hold) {
    if (hold == "own:R" || hold == "own:W") own.run([&] { lock.Unlock(); });
    if (hold == "other:R" || hold == "other:W") other.run([&] { lock.Unlock(); });
    if (hold.starts_with("none")) lock.UnlockThreadIndependent();
  }

  bool end_upgrade() {
    if (!std::exchange(upgrading, false)) return true;
    try {
      other.finish();
      return false;
    } catch (Interrupted const&) {
      return true;
    }
  }

  TMultiLock& lock;
  Agent &own, &other;
  std::vector<std::string> holds;
  bool upgrading = false;
};

class MultiLockMatrix : public ::testing::Test {
protected:
  Agent a{"A"}, other{"the other"};

  std::optional<bool> ask(TMultiLock& lock, Way const& way, unsigned int limit) {
    try {
      return a.ask([&] { return (lock.*way.timed)(limit); });
    } catch (EDeadLockException const&) {
      return std::nullopt;
    }
  }

  void expect_granted(std::string const& held, Way const& way) {
    for (unsigned int const limit : {0u, 20u, no_limit}) {
      TMultiLock lock;
      Holders holders(lock, a, other, held);
      auto const before = lock.GetStatusString();
      ASSERT_EQ(ask(lock, way, limit), true);
      EXPECT_NE(lock.GetStatusString(), before);
      a.run([&] { (lock.*way.undo)(); });
    }
  }

  void expect_throws(std::string const& held, Way const& way) {
    for (unsigned int const limit : {0u, 20u, no_limit}) {
      TMultiLock lock;
      Holders holders(lock, a, other, held);
      auto const before = lock.GetStatusString();
      EXPECT_EQ(ask(lock, way, limit), std::nullopt);
      EXPECT_EQ(lock.GetStatusString(), before);
    }
  }

  void expect_waits(std::string const& held, Way const& way) {
    TMultiLock lock;
    Holders holders(lock, a, other, held);
    auto const before = lock.GetStatusString();
    EXPECT_EQ(ask(lock, way, 0), false);
    EXPECT_EQ(ask(lock, way, 20), false);
    EXPECT_EQ(lock.GetStatusString(), before);

    a.start([&] { (lock.*way.untimed)(); });
    ASSERT_TRUE(a.waits());
    if (holders.waits_for_itself(way)) {
      a.interrupt();
      EXPECT_THROW(a.finish(), Interrupted);
      EXPECT_EQ(lock.GetStatusString(), before);
    } else {
      holders.others_leave();
      a.finish();
      a.run([&] { (lock.*way.undo)(); });
    }
  }
};

}  // namespace

TEST_F(MultiLockMatrix, HoldsAsDocumented) {
  auto const rows = velt_test::doc_table("locks.md", "multilock");
  ASSERT_EQ(rows[0].size(), 1 + std::size(ways));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    std::string const held = rows[i][0] == "nobody" ? "" : rows[i][0];
    for (std::size_t column = 1; column < rows[i].size(); ++column) {
      SCOPED_TRACE("held: " + rows[i][0] + ", asked: " + rows[0][column]);
      Way const& way = ways[column - 1];
      ASSERT_EQ(rows[0][column], way.name);
      std::string const& answer = rows[i][column];
      if (answer == "granted") {
        expect_granted(held, way);
      } else if (answer == "throws") {
        expect_throws(held, way);
      } else if (answer.starts_with("waits: ")) {
        expect_waits(held, way);
      } else {
        ADD_FAILURE() << "unknown answer: " << answer;
      }
    }
  }
}
