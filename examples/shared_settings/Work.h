// Threads that look settings up and threads that store them anew, as in a
// service that reloads its settings while it works.
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
  // The list locks each of its operations by itself. This lock holds several
  // together: a setting and the revision of the list that it was seen in.
  TMultiLock lock;
  TTimedLock timed_lock{lock};
  TDebugStream log;
};

// Puts the items into the list, as its revision 0.
void fill(shared_settings& settings, std::vector<setting> const& items);

// How often a thread has stored a setting since then.
int revision(shared_settings const& settings);

enum class task { read, write };

struct worker {
  task does;
  std::string name;
  int operations = 0;
  int lines = 0;  // in the log
};

// Goes through the items until the watch shows these seconds, and logs some
// of the operations. Throws what locks and streams throw.
worker work(worker self, std::vector<setting> items, shared_settings& settings, _pcounter_t watch,
            double seconds);
