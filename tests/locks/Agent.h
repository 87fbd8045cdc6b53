// A thread that does what a test tells it, one step at a time, so that a test
// can say who does what, and when.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace velt_test {

// What the queued call of Agent::interrupt throws.
struct Interrupted {};

class Agent {
public:
  Agent() : Agent("an agent") {}
  explicit Agent(char const* its_name)
      : name(its_name),
        begin(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
        end(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        thread([this] { work(); }) {
    finish_or_give_up();
  }
  Agent(Agent const&) = delete;
  ~Agent() {
    finish_or_give_up();
    stopping = true;
    SetEvent(begin);
    thread.join();
    for (HANDLE const each : {begin, end, handle}) CloseHandle(each);
  }

  // Returns at once.
  void start(std::function<void()> the_step) {
    finish();
    step = std::move(the_step);
    ResetEvent(end);
    SetEvent(begin);
  }

  bool finished_within(unsigned long milliseconds) {
    return WaitForSingleObject(end, milliseconds) == WAIT_OBJECT_0;
  }
  // For showing that a step does not go on.
  bool waits(unsigned long milliseconds = 40) { return !finished_within(milliseconds); }

  // Waits for the step and throws what it threw.
  void finish() {
    finish_or_give_up();
    if (auto const thrown = std::exchange(failure, nullptr)) std::rethrow_exception(thrown);
  }

  void run(std::function<void()> the_step) {
    start(std::move(the_step));
    finish();
  }

  template <class Question>
  auto ask(Question question) {
    decltype(question()) answer{};
    run([&] { answer = question(); });
    return answer;
  }

  // Queues a call, which runs when the step next waits alertably.
  void queue(PAPCFUNC call) { QueueUserAPC(call, handle, reinterpret_cast<ULONG_PTR>(this)); }
  void interrupt() {
    interrupted = false;
    queue([](ULONG_PTR agent) {
      reinterpret_cast<Agent*>(agent)->interrupted = true;
      throw Interrupted();
    });
  }
  // Until the call of interrupt() throws. False if it never does.
  bool is_interrupted_soon() const {
    for (unsigned long passed = 0; passed < patience && !interrupted; ++passed) Sleep(1);
    return interrupted;
  }

  unsigned long id() const { return thread_id; }
  std::string id_text() const { return std::to_string(thread_id); }

private:
  static constexpr unsigned long patience = 30'000;

  // A step that never ends would hang the test: it ends the program instead.
  void finish_or_give_up() {
    if (finished_within(patience)) return;
    std::fprintf(stderr, "%s never ended its step\n", name);
    std::fflush(stderr);
    std::_Exit(1);
  }

  void work() {
    thread_id = GetCurrentThreadId();
    HANDLE const process = GetCurrentProcess();
    DuplicateHandle(process, GetCurrentThread(), process, &handle, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    SetEvent(end);
    for (;;) {
      WaitForSingleObject(begin, INFINITE);
      if (stopping) return;
      try {
        step();
      } catch (...) {
        failure = std::current_exception();
      }
      SetEvent(end);
    }
  }

  char const* name;
  HANDLE begin, end, handle = nullptr;
  unsigned long thread_id = 0;
  bool stopping = false;
  std::atomic<bool> interrupted = false;
  std::function<void()> step;
  std::exception_ptr failure;
  std::thread thread;
};

}  // namespace velt_test
