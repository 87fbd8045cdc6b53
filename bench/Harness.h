// The harness of the benchmarks: what a row is, how a row is measured, and the
// two guards that keep the compiler from doing the work of a row in advance or
// not at all.
//
// A row is one entry of a table:
//
//   {"trim", loop([] { keep(trim(input(padded), " ")); }),
//    {{"boost::trim_copy", 0.7, loop([] { keep(boost::trim_copy(input(padded))); })}}},
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace bench {

// Runs the work that is measured `count` times.
using Loop = void (*)(std::uint64_t count);

// The loop around a body that captures nothing. Rivals get the same loop.
template <class Body>
  requires std::is_empty_v<Body>
Loop loop(Body) {
  return [](std::uint64_t count) {
    for (; count != 0; --count) Body()();
  };
}

// The object, of which the compiler no longer knows what it holds.
template <class T>
T& input(T& object) {
  T* address = &object;
  asm volatile("" : "+r"(address) : : "memory");
  return *address;
}

// Makes the compiler believe that the object is read, and all memory with it.
template <class T>
void keep(T const& object) {
  asm volatile("" : : "r"(&object) : "memory");
}

// Goal of a peer that is only shown.
inline constexpr double no_goal = 0;

struct Peer {
  char const* name;
  double goal;  // the most that velt may take, as a multiple of the peer's time
  Loop run;
};

struct Row {
  std::string name;
  Loop velt;
  std::vector<Peer> peers;
};

struct Timing {
  double velt;                // nanoseconds for one pass of the body, the median of the rounds
  std::vector<double> peers;  // in the order of the row
};

// Runs velt and its peers in turn, round after round, each with the number of
// passes that fills its share of a round. Takes about 0.1 s for each of them, but
// up to 10 s or six passes of each where one pass is slow.
Timing measure(Row const& row);

enum class Verdict { ok, missed, shown };

struct Comparison {
  double ratio;  // velt to peer
  Verdict verdict;
};

Comparison compare(double velt, double peer, double goal);

}  // namespace bench
