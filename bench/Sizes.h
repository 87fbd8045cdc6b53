// The sizes of the library's small types.
#pragma once

namespace bench {

// A table for people, or lines of a name, a tab and the bytes.
void print_sizes(bool tab_separated);

}  // namespace bench
