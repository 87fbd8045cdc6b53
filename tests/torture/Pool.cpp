// Pools under everything that clients do to them at once: jobs and tasks of all
// kinds, cancels, changed limits, cleared queues, waits, stops. Each round has a
// pool of its own.
//
// A calm round has nothing in it that drops or interrupts jobs: each must then
// have run once. Only there the stack overflows, which must not be interrupted.
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/torture/Torture.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/threads/Thread.h"
#include "velt/threads/ThreadPool.h"

using namespace velt_test;

namespace {

constexpr int patience = 60'000;

struct Game;
using Deed = void (*)(Game&);

std::atomic<unsigned int> added, run, live, all_run;

struct Work final : IThreadJob {
  Work(Game& its_game, Deed its_deed) : game(its_game), deed(its_deed) { ++live; }
  ~Work() override { --live; }
  void Run(SmartPtr<IThreadContext> const&) override {
    ++run;
    ++moves;
    deed(game);
    done = true;
  }

  Game& game;
  Deed const deed;
  std::atomic<bool> done = false;
};

struct Task {
  SmartPtr<IThreadTask> task;
  SmartPtr<Work> work;
};

struct Game {
  bool const calm;
  SmartPtr<IThreadPool> const pool;
  TEvent open{true, false};  // lets jobs go that wait

  void act(std::mt19937 random);
  void step(std::mt19937& random, std::vector<Task>& tasks);
  void add(Deed deed, std::vector<Task>* tasks = nullptr);
  void finish();
};

[[gnu::noipa]] int overflow_stack(int depth) {
  char volatile room[300];
  room[0] = static_cast<char>(depth);
  return depth == 0 ? 0 : overflow_stack(depth + 1) + room[0];
}

// The first is for calm rounds, the last two are for wild ones.
constexpr int deed_count = 10;
Deed const deeds[deed_count] = {
    [](Game&) { overflow_stack(1); },
    [](Game&) {},
    [](Game&) { for (int i = 0; i < 20'000; ++i) YieldProcessor(); },
    [](Game&) { TThread::Pause(); },
    [](Game&) { throw EGeneric({"Text", "fails"}); },
    [](Game&) { throw 5; },
    [](Game&) { *static_cast<int volatile*>(nullptr) = 1; },
    [](Game& game) { game.add([](Game&) {}); },
    [](Game& game) { game.open.Signaled(patience); },
    [](Game&) { throw EThreadInterrupt(); },
};

void Game::add(Deed deed, std::vector<Task>* tasks) try {
  auto const work = MakeCounted<Work>(*this, deed);
  if (tasks)
    tasks->push_back({pool->AddJob([work] { work->Run(nullptr); }), work});
  else
    pool->AddJob(SmartPtr<IThreadJob>(work));
  ++added;
} catch (EGeneric const& error) {
  expect(error["Text"].as_string() == "Thread pool overflowed", error.what());
}

// A worker that is started again leaves the handle of its thread before open.
void cancel(IThreadTask& task) {
  ++known_handles;
  task.Cancel();
  expect(task.IsFinished(), "a cancelled task is not finished");
}

void Game::step(std::mt19937& random, std::vector<Task>& tasks) {
  auto const below = [&](int limit) { return static_cast<int>(random() % limit); };
  Deed const deed = deeds[calm ? below(deed_count - 2) : 1 + below(deed_count - 1)];
  switch (below(calm ? 13 : 16)) {
    case 0: return pool->SetLimits(below(7), below(3), 0);
    case 1: pool->WaitForIdle(below(3)); return;
    case 2: case 3: case 4: case 5: return add(deed, &tasks);
    case 13: return pool->ClearQueue();
    case 14: case 15:
      if (below(32) == 0) {
        pool->Stop();
        pool->SetLimits(3, 0, 0);
      }
      if (!tasks.empty()) cancel(*tasks[random() % tasks.size()].task);
      return;
    default: return add(deed);
  }
}

void Game::act(std::mt19937 random) {
  std::vector<Task> tasks;
  for (auto steps = 50 + random() % 200; steps > 0; --steps) {
    step(random, tasks);
    if (random() % 32 == 0) ::Sleep(1);
  }
  for (auto const& [task, work] : tasks)
    expect(!task->IsFinished() || task->IsException() || work->done,
           "a task reads finished without an exception, and was not done");
}

void Game::finish() {
  if (calm) {
    // A maximum of 0 may have left jobs waiting.
    pool->SetLimits(2, 0, 0);
    expect(pool->WaitForIdle(patience), "a calm pool does not become idle");
    expect(run == added, "jobs were lost or run twice");
  }
  pool->Stop();
  expect(pool->describe().find(" Threads=0 Queue=0 Idle=0 ") != std::string::npos,
         "not empty after the stop");
  expect(pool.use_count() == 1, "somebody holds on to the stopped pool");
}

void play(Round& round) {
  UseVEH = ExtendDebugInformationFromException = false;
  Debug.ChangeWriter(nullptr);
  added = run = 0;
  auto const below = [&](int limit) { return static_cast<int>(round.random() % limit); };
  bool const calm = round.number % 4 == 0;
  {
    Game game{calm, CreateNewThreadPool(1 + below(6), below(3), 0,
                                        calm ? 1'000'000 : 1 + below(300))};
    state = [&pool = *game.pool] { return pool.describe(); };
    {
      std::vector<std::jthread> actors;
      for (unsigned int i = 0; i < round.threads; ++i)
        actors.emplace_back(&Game::act, &game, std::mt19937(round.random()));
    }
    if (below(2) == 0) game.open.Set();
    game.finish();
    state = nullptr;
  }
  expect(live == 0, "jobs were never released");
  all_run += run;
}

Registered const pool{
    {"pool", 3, play, [] { return std::to_string(all_run) + " jobs run"; }}};

}  // namespace
