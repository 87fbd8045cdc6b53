#include "bench/Harness.h"

#include <algorithm>
#include <chrono>

namespace bench {
namespace {

// Many short rounds rather than few long ones: a turn that another program
// interrupts is lost, and most turns of this length are not interrupted.
constexpr std::size_t most_rounds = 101;
constexpr double share = 1e6;  // nanoseconds of one contender in one round

// Where a single pass takes far longer than its share, fewer rounds must do.
constexpr std::size_t fewest_rounds = 5;
constexpr double most_time = 10e9;

double time_of(Loop run, std::uint64_t count) {
  using clock = std::chrono::steady_clock;
  auto const start = clock::now();
  run(count);
  return std::chrono::duration<double, std::nano>(clock::now() - start).count();
}

double median(std::vector<double> values) {
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// One of those that a row compares.
class Contender {
public:
  // Doubles the passes until they fill their share, which warms up as well. The
  // best of three does not take a first call or an interruption for the work.
  explicit Contender(Loop work) : run(work) {
    double time;
    while ((time = best_of_three()) < share / 2) count *= 2;
    double const pass = time / static_cast<double>(count);
    count = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(share / pass));
    turn = pass * static_cast<double>(count);
  }

  void take_turn() { times.push_back(time_of(run, count) / static_cast<double>(count)); }
  double result() const { return median(times); }
  // What a turn is expected to take.
  double turn_time() const { return turn; }

private:
  // Work that takes long is not mistaken for other, so once will do.
  double best_of_three() const {
    double best = time_of(run, count);
    for (int more = 2; more != 0 && best < 100 * share; --more)
      best = std::min(best, time_of(run, count));
    return best;
  }

  Loop run;
  std::uint64_t count = 1;
  double turn;
  std::vector<double> times;
};

std::size_t rounds_of(std::vector<Contender> const& contenders) {
  double round = 0;
  for (auto const& contender : contenders) round += contender.turn_time();
  auto const affordable = static_cast<std::size_t>(most_time / round);
  return std::clamp(affordable, fewest_rounds, most_rounds);
}

}  // namespace

Timing measure(Row const& row) {
  std::vector<Contender> contenders{Contender(row.velt)};
  for (auto const& peer : row.peers) contenders.emplace_back(peer.run);

  // Each round begins with another contender, so that none always follows the
  // same one.
  for (std::size_t round = 0, rounds = rounds_of(contenders); round != rounds; ++round)
    for (std::size_t turn = 0; turn < contenders.size(); ++turn)
      contenders[(round + turn) % contenders.size()].take_turn();

  Timing timing{contenders[0].result(), {}};
  for (std::size_t i = 1; i < contenders.size(); ++i)
    timing.peers.push_back(contenders[i].result());
  return timing;
}

Comparison compare(double velt, double peer, double goal) {
  double const ratio = velt / peer;
  if (goal == no_goal) return {ratio, Verdict::shown};
  return {ratio, ratio <= goal ? Verdict::ok : Verdict::missed};
}

}  // namespace bench
