// How the cost of an operation grows with its work.
#pragma once

namespace bench {

// Measures each series of a growing work. Prints its times and the power of the work by
// which they grow: by least squares over the logarithms, and between the last two.
void print_growth(bool tab_separated);

}  // namespace bench
