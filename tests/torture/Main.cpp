#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/torture/Torture.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/value/HolderCacheInternal.h"

namespace velt_test {
namespace {

using Numbers = std::map<std::string, unsigned long>;

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

void run(Scene const& scene, Numbers const& numbers) {
  auto const seed = static_cast<unsigned int>(numbers.at("--seed"));
  auto const threads = static_cast<unsigned int>(numbers.at("--threads"));
  std::printf("torture %s --seconds %lu --seed %u --threads %u\n", scene.name.c_str(),
              numbers.at("--seconds"), seed, threads);
  std::fflush(stdout);
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  // Opens what every exception needs.
  try {
    ThrowSystemException(ERROR_GEN_FAILURE);
  } catch (ESystemException const&) {
  }
  std::thread(watch_over_moves).detach();

  ULONGLONG const end = GetTickCount64() + numbers.at("--seconds") * 1'000ull;
  // The run time keeps a list of threads, whose lock opens an event for good when two of
  // them first meet there.
  long late_handles = 1;
  unsigned int number = 0;
  do {
    std::mt19937 const random(seed * 1'000u + number);
    run_round(scene, {number, threads, random, std::min(GetTickCount64() + 1'000, end)},
              late_handles);
    ++number;
  } while (GetTickCount64() < end);
  expect(velt::detail::live_holders() == 0, "values were lost");
  std::printf("%u rounds, %s\n", number, scene.result().c_str());
}

}  // namespace

void fail(std::string const& fault) {
  std::printf("torture: %s\n", fault.c_str());
  if (state) std::printf("%s\n", state().c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

}  // namespace velt_test

int main(int count, char** arguments) try {
  auto const& scenes = velt_test::Registered::scenes;
  auto const scene = std::ranges::find(scenes, std::string(arguments[1]), &velt_test::Scene::name);
  if (scene == scenes.end()) throw std::invalid_argument(arguments[1]);
  velt_test::Numbers numbers{
      {"--seconds", 4}, {"--seed", GetTickCount64() % 1'000'000}, {"--threads", scene->threads}};
  for (int i = 2; i < count; i += 2) numbers.at(arguments[i]) = std::stoul(arguments[i + 1]);
  velt_test::run(*scene, numbers);
} catch (std::logic_error const& error) {
  std::fprintf(stderr, "%s\nusage: torture lock|interruption|pool|snapshots [--seconds N] "
               "[--seed S] [--threads T]\n", error.what());
  return 2;
} catch (std::exception const& error) {
  velt_test::fail(error.what());
}
