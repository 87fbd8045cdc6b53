// Tag for the constructors that build a resource wrapper without acquiring its
// resource, or a stopwatch without reading its clock.
#pragma once

#include "velt/base/Export.h"

struct _DoNotInitialize {};

// The only object that programs need of the tag.
extern VELT_API const _DoNotInitialize DoNotInitialize;
