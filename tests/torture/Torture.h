// A torture does at random whatever is allowed, in rounds of about a second, and
// looks for what must never happen:
//
//   torture SCENE [--seconds N] [--seed S] [--threads T]
//
// Ends with 0 if nothing was found, with 1 after a fault, and with 2 after arguments
// that it does not know.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace velt_test {

// What a scene is given for a round. Rounds that have no end of their own run until
// they are over.
struct Round {
  unsigned int number, threads;
  std::mt19937 random;
  ULONGLONG end;

  bool is_over() const { return GetTickCount64() >= end; }
};

// A round leaves no thread, no handle and no value behind. The first one is free to
// open what stays open.
struct Scene {
  std::string name;
  unsigned int threads;
  void (*round)(Round& round);
  std::string (*result)();  // what all rounds did; fails if they did not do enough
};

// At namespace scope, one for each file of a scene.
struct Registered {
  explicit Registered(Scene const& scene) { scenes.push_back(scene); }
  static inline std::vector<Scene> scenes;
};

// Ends the program, as its threads cannot be trusted any more.
[[noreturn]] void fail(std::string const& fault);
inline void expect(bool is_so, std::string const& fault) {
  if (!is_so) fail(fault);
}

// The scene counts here whatever shows that its threads go on: when nothing is
// counted for half a minute, the torture fails.
inline std::atomic<unsigned int> moves = 0;
// Handles that this round leaves open, as is known.
inline std::atomic<long> known_handles = 0;
// What fail() adds to the fault.
inline std::function<std::string()> state;

}  // namespace velt_test
