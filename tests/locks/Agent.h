// A thread that does what a test tells it, one step at a time, so that a test
// can say who does what, and when.
#pragma once

#include <windows.h>

#include <atomic>
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
  explicit Agent(char const* its_name = "an agent") : name(its_name) { run([] {}); }
  Agent(Agent const&) = delete;
  ~Agent() noexcept {
    expect_end();
    begin.Set();
    thread.join();
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
    THandle target;
    target.AttachHandle(OpenThread(THREAD_SET_CONTEXT, FALSE, thread_id));
    QueueUserAPC([](ULONG_PTR agent) { reinterpret_cast<Agent*>(agent)->queued(); }, target,
                 reinterpret_cast<ULONG_PTR>(this));
  }
  void interrupt() {
    interrupted = false;
    queue([this] {
      interrupted = true;
      throw Interrupted();
    });
  }

  std::string id_text() const { return std::to_string(thread_id); }

  std::atomic<bool> interrupted = false;  // by the call of interrupt()

private:
  // A step that never ends would hang the test: it ends the program instead.
  void expect_end() const {
    if (!end.valid() || !waits(30'000)) return;
    std::fprintf(stderr, "%s never ended its step\n", name);
    std::fflush(stderr);
    std::_Exit(1);
  }

  void work() {
    thread_id = GetCurrentThreadId();
    for (;;) {
      begin.WaitForSingleObject(INFINITE, FALSE);
      auto step = std::move(next);
      if (!step.valid()) return;
      step();
    }
  }

  char const* name;
  TEvent begin{false, false};
  unsigned long thread_id = 0;
  std::function<void()> queued;
  std::packaged_task<void()> next;
  std::future<void> end;
  std::thread thread{[this] { work(); }};
};

}  // namespace velt_test
