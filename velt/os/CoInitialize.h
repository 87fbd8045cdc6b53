// CoInitialize and CoInitializeEx: enter a COM apartment for a scope.
//
//   void serve() {
//     class CoInitializeEx const apartment;
//     ...
//   }
//
// The classes have the names of the platform's functions. Both can be seen at
// once, whichever header comes first; a name alone then means the function, and
// with `class` in front the class. Write `class` everywhere.
#pragma once

#include "velt/base/Export.h"

// Both throw the COM error of the platform's call, 0x80010106 if the thread is in
// an apartment of the other kind. To enter the same kind again is no failure: the
// thread leaves with its last guard. A guard goes on the thread that made it.

// The thread becomes an apartment of its own (STA); it should then pump messages.
class VELT_API CoInitialize {
public:
  CoInitialize();
  CoInitialize(CoInitialize const&) = delete;
  CoInitialize& operator=(CoInitialize const&) = delete;
  ~CoInitialize();
};

// The thread joins the process's apartment of many threads (MTA).
class VELT_API CoInitializeEx {
public:
  CoInitializeEx();
  CoInitializeEx(CoInitializeEx const&) = delete;
  CoInitializeEx& operator=(CoInitializeEx const&) = delete;
  ~CoInitializeEx();
};
