// Threads that look settings up and threads that store them again, as in a service that
// reloads its settings while it works.
#pragma once

#include <string>
#include <vector>

#include "examples/typed_values/Settings.h"
#include "velt/debug/DebugStream.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/TimedLock.h"
#include "velt/time/Stopwatches.h"
#include "velt/value/PropertyList.h"

struct shared_settings {
  TPropertyList list;
  // The list locks each of its operations by itself. This lock covers two operations
  // together: on a setting, and on the revision of the list.
  TMultiLock lock;
  TTimedLock timed_lock{lock};
  TDebugStream log;
};

// Puts the items into the list, which then has revision 0.
void fill(shared_settings& settings, std::vector<setting> const& items);

// The number of times that a thread has stored a setting since then.
int revision(shared_settings const& settings);

enum class task { read, write };

struct worker {
  task does;
  std::string name;
  int operations = 0;
  int lines = 0;  // in the log
};

// Goes through the items until the watch shows these seconds, and logs some of the
// operations. Throws what locks and streams throw.
worker work(worker self, std::vector<setting> items, shared_settings& settings, _pcounter_t watch,
            double seconds);
