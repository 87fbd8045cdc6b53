#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/torture/Torture.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/value/HolderCacheInternal.h"

namespace velt_test {
namespace {

struct Options {
  Scene const* scene = nullptr;
  unsigned int seconds = 4, threads = 0;
  unsigned int seed = static_cast<unsigned int>(GetTickCount64());
};

bool read_number(std::string_view text, unsigned int& number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

bool read(std::vector<std::string_view> const& arguments, Options& options) {
  for (auto const& each : Registered::scenes)
    if (!arguments.empty() && arguments[0] == each.name) options.scene = &each;
  if (!options.scene || arguments.size() % 2 == 0) return false;
  options.threads = options.scene->threads;
  for (std::size_t i = 1; i < arguments.size(); i += 2) {
    auto const number = arguments[i] == "--seconds"   ? &options.seconds
                        : arguments[i] == "--seed"    ? &options.seed
                        : arguments[i] == "--threads" ? &options.threads
                                                      : nullptr;
    if (!number || !read_number(arguments[i + 1], *number)) return false;
  }
  return options.threads >= options.scene->fewest && options.threads <= options.scene->most;
}

unsigned int threads_of_process() {
  HANDLE const snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  unsigned int count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    count += entry.th32OwnerProcessID == GetCurrentProcessId();
  CloseHandle(snapshot);
  return count;
}

// The thread that finishes an overflow may end a moment after the overflow.
bool threads_become(unsigned int count) {
  for (int tries = 0; tries < 200; ++tries, ::Sleep(10))
    if (threads_of_process() == count) return true;
  return false;
}

void watch_over_moves() {
  constexpr int patience_s = 30;
  unsigned int last = moves;
  for (int still_s = 0; still_s < patience_s; ++still_s, ::Sleep(1000))
    if (unsigned int const now = moves; now != last) last = now, still_s = 0;
  fail("nothing moves");
}

void run_round(Scene const& scene, Round round, long& late_handles) {
  long const handles = open_handles();
  unsigned int const threads = threads_of_process();
  known_handles = 0;
  scene.round(round);
  state = nullptr;
  ++moves;
  expect(threads_become(threads), "a thread is left");
  if (round.number == 0) return;
  long const stay = handles + known_handles;
  expect(open_handles_fall_to(stay + late_handles), "handles were lost");
  late_handles -= std::max(0l, open_handles() - stay);
}

void run(Options const& options) {
  std::printf("torture %s --seconds %u --seed %u --threads %u\n", options.scene->name,
              options.seconds, options.seed, options.threads);
  std::fflush(stdout);
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  try {
    ThrowSystemException(ERROR_GEN_FAILURE);  // opens what every exception needs
  } catch (ESystemException const&) {
  }
  std::thread(watch_over_moves).detach();

  ULONGLONG const end = GetTickCount64() + options.seconds * 1'000ull;
  long late_handles = options.scene->late_handles;
  unsigned int number = 0;
  do {
    run_round(*options.scene,
              {number, options.threads, std::mt19937(options.seed * 1'000u + number),
               std::min(GetTickCount64() + 1'000, end)},
              late_handles);
    ++number;
  } while (GetTickCount64() < end);
  expect(velt::detail::live_holders() == 0, "values were lost");
  std::printf("%u rounds, %s\n", number, options.scene->result().c_str());
}

}  // namespace

void fail(std::string const& fault) {
  std::printf("torture: %s\n", fault.c_str());
  if (state) std::printf("%s\n", state().c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

}  // namespace velt_test

int main(int count, char** arguments) {
  velt_test::Options options;
  if (!velt_test::read({arguments + 1, arguments + count}, options)) {
    std::fprintf(stderr, "usage: torture");
    for (auto const& each : velt_test::Registered::scenes)
      std::fprintf(stderr, "%s%s (%u to %u threads)",
                   &each == &velt_test::Registered::scenes.front() ? " " : "|", each.name,
                   each.fewest, each.most);
    std::fprintf(stderr, " [--seconds N] [--seed S] [--threads T]\n");
    return 2;
  }
  try {
    velt_test::run(options);
  } catch (std::exception const& error) {
    velt_test::fail(error.what());
  }
}
