// The rows of each subsystem, from the source of that name.
#pragma once

#include <vector>

#include "bench/Harness.h"

namespace bench {

// What the machine's locked instructions and calls of its platform cost, by which the
// other rows differ from machine to machine.
std::vector<Row> machine_rows();
std::vector<Row> value_rows();
std::vector<Row> text_rows();
std::vector<Row> time_rows();
std::vector<Row> exception_rows();
std::vector<Row> lock_rows();
std::vector<Row> debug_rows();
std::vector<Row> os_rows();
std::vector<Row> diagnostics_rows();
std::vector<Row> thread_rows();
std::vector<Row> pool_rows();
std::vector<Row> loading_rows();

}  // namespace bench
