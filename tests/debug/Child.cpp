// Writes to the ready streams from its first static constructor to its last static
// destructor, and ends while threads write. An argument makes it end at once.
#include <windows.h>

#include <atomic>
#include <thread>

#include "velt/debug/DebugStream.h"

namespace {

struct StaticUser {
  StaticUser() {
    Debug.ChangeWriter(MakeCounted<TFileWriter>("debug"));
    Debug << "constructed " << 1 << "\n";
  }
  ~StaticUser() { Debug << "destroyed " << 2 << "\n"; }
} static_user;

std::atomic<int> writing = 0;

// Keeps away from the heap where it can: this platform may hang at the end of any
// process whose threads were stopped in the heap.
void write_for_ever(TDebugStream& stream) {
  for (int statement = 0;; ++statement) {
    stream << "line " << statement << " of xxxxxxxxxxxxxxxxxxxx" << "\n";
    if (statement == 0) ++writing;
  }
}

}  // namespace

int main(int count, char**) {
  TDebugStream& own = *new TDebugStream(MakeCounted<TPermanentFileWriter>("own"));
  for (auto const stream : {&own, &own, &Debug, &Debug})
    std::thread([stream] { write_for_ever(*stream); }).detach();
  while (writing < 4) Sleep(1);
  Sleep(30);
  if (count > 1) ExitProcess(7);
  return 7;
}
