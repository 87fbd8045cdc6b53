// Dump files that are not whole. A writer may answer that it has written a dump
// although the disk was full.
#pragma once

namespace velt::detail {

// Does the file have all that its header and its directory lead to? False also if it
// cannot be read.
bool is_whole_dump(char const* path) noexcept;

}  // namespace velt::detail
