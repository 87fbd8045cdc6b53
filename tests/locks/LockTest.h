// A read/write lock and three threads that use it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/locks/Agent.h"
#include "tests/locks/OpenLock.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace velt_test {

template <class Lock>
struct LockTest : ::testing::Test {
  Lock lock;
  Agent agents[3];
  Agent &a = agents[0], &b = agents[1], &c = agents[2];

  // With the names of the threads: "locked_read, A:R,B:R".
  std::string status() {
    std::string text = lock.GetStatusString();
    for (auto const& agent : agents) {
      auto const id = agent.id_text() + ":";
      std::string const name{static_cast<char>('A' + (&agent - agents)), ':'};
      for (std::size_t at; (at = text.find(id)) != text.npos;) text.replace(at, id.size(), name);
    }
    return text;
  }

  // One operation for each letter: R and W lock, U unlocks.
  void steps(char const* letters) {
    for (; *letters; ++letters) {
      if (*letters == 'R') lock.ReadLock();
      if (*letters == 'W') lock.WriteLock();
      if (*letters == 'U') lock.Unlock();
    }
  }
  void by(Agent& agent, char const* letters) {
    agent.run([this, letters] { steps(letters); });
  }
  // Steps that wait.
  void start(Agent& agent, char const* letters) {
    agent.start([this, letters] { steps(letters); });
    EXPECT_TRUE(agent.waits());
  }
};

}  // namespace velt_test
