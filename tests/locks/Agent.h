// A thread that does what a test tells it, one step at a time, so that a test
// can say who does what, and when.
#pragma once

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "velt/locks/Event.h"

namespace velt_test {

// What the queued call of Agent::interrupt throws.
struct Interrupted {};

class Agent {
public:
  Agent() {
    run([this] { self = GetCurrentThread(); });
  }
  Agent(Agent const&) = delete;
  ~Agent() noexcept {
    expect_end();
    begin.Set();  // for no step
  }

  // Returns at once.
  void start(std::function<void()> step) {
    finish();
    next = std::packaged_task<void()>(std::move(step));
    end = next.get_future();
    begin.Set();
  }

  // For showing that a step does not go on.
  bool waits(unsigned int milliseconds = 40) const {
    return end.wait_for(std::chrono::milliseconds(milliseconds)) == std::future_status::timeout;
  }

  // Waits for the step and throws what it threw.
  void finish() {
    expect_end();
    if (end.valid()) end.get();
  }

  void run(std::function<void()> step) {
    start(std::move(step));
    finish();
  }

  template <class Question>
  auto ask(Question question) {
    decltype(question()) answer{};
    run([&] { answer = question(); });
    return answer;
  }

  // Queues a call, which runs when the step next waits alertably. One at a time.
  void queue(std::function<void()> call) {
    queued = std::move(call);
    QueueUserAPC([](ULONG_PTR agent) { reinterpret_cast<Agent*>(agent)->queued(); }, self,
                 reinterpret_cast<ULONG_PTR>(this));
  }
  void interrupt() {
    queue([] { throw Interrupted(); });
  }

  std::string id_text() const { return std::to_string(GetThreadId(self)); }

private:
  // A step that never ends would hang the test: it ends the program instead.
  void expect_end() const {
    if (!end.valid() || !waits(30'000)) return;
    std::fputs("an agent never ended its step\n", stderr);
    std::_Exit(1);
  }

  void work() {
    for (;;) {
      begin.WaitForSingleObject(INFINITE, FALSE);
      auto step = std::move(next);
      if (!step.valid()) return;
      step();
    }
  }

  TEvent begin{false, false};
  THandle self;
  std::function<void()> queued;
  std::packaged_task<void()> next;
  std::future<void> end;
  std::jthread thread{[this] { work(); }};
};

}  // namespace velt_test
