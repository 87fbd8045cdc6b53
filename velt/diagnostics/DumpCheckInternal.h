// Detects incomplete dump files. A writer may report success although the disk was
// full.
#pragma once

namespace velt::detail {

// Does the file contain everything that its header and its directory refer to? False
// also if it cannot be read.
bool is_whole_dump(char const* path) noexcept;

}  // namespace velt::detail
