// Work on several threads at once, for rows that are about contention.
#pragma once

#include <cstdint>

namespace bench {

// Calls work(index) on as many threads at once, the calling one among them, and
// returns when all have. The others wait for the next call on an event, so a
// call costs their waking and no making of threads.
void on_threads(int count, void (*work)(int index, std::uint64_t passes), std::uint64_t passes);

// What threads do under a lock that they contend for: some ten nanoseconds, as a look at
// a table takes.
void work_shortly();

}  // namespace bench
