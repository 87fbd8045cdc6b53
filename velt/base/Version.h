// The version of the library. This is the one place that holds it: the build,
// the package files and the version resource of the DLL read it from here.
#pragma once

#define VELT_VERSION_MAJOR 0
#define VELT_VERSION_MINOR 2
#define VELT_VERSION_PATCH 0
