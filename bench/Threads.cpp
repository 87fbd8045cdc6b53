#include "bench/Threads.h"

#include <windows.h>

#include <memory>
#include <thread>
#include <vector>

#include "bench/Harness.h"

namespace bench {
namespace {

class Helper {
public:
  explicit Helper(int number) : index(number), thread([this] { serve(); }) { thread.detach(); }

  void begin(void (*what)(int, std::uint64_t), std::uint64_t count) {
    work = what;
    passes = count;
    SetEvent(started);
  }
  void wait() { WaitForSingleObject(ended, INFINITE); }

private:
  void serve() {
    for (;;) {
      WaitForSingleObject(started, INFINITE);
      work(index, passes);
      SetEvent(ended);
    }
  }

  int index;
  void (*work)(int, std::uint64_t) = nullptr;
  std::uint64_t passes = 0;
  HANDLE started = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  HANDLE ended = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  std::thread thread;
};

// They live as long as the process does.
std::vector<std::unique_ptr<Helper>>& helpers() {
  static auto& all = *new std::vector<std::unique_ptr<Helper>>;
  return all;
}

}  // namespace

void on_threads(int count, void (*work)(int, std::uint64_t), std::uint64_t passes) {
  auto& all = helpers();
  while (static_cast<int>(all.size()) < count - 1)
    all.push_back(std::make_unique<Helper>(static_cast<int>(all.size()) + 1));
  for (int i = 0; i < count - 1; ++i) all[static_cast<std::size_t>(i)]->begin(work, passes);
  work(0, passes);
  for (int i = 0; i < count - 1; ++i) all[static_cast<std::size_t>(i)]->wait();
}

void work_shortly() {
  std::uint64_t value = 1;
  for (int i = 0; i != 25; ++i) keep(value = value * 6364136223846793005u + 1);
}

}  // namespace bench
