// CoInitialize and CoInitializeEx: guards that enter a COM apartment for a scope.
//
//   void serve() {
//     class CoInitializeEx const apartment;
//     ...
//   }
//
// The classes have the names of the platform's functions. If both are declared, in
// either order, the plain name means the function, and `class` in front of it the
// class. So always write `class`.
#pragma once

#include "velt/base/Export.h"

// Both throw the COM error of the platform's call: 0x80010106 if the thread is already
// in an apartment of the other kind. Guards of the same kind may be nested, and the
// thread leaves the apartment with the last one. A guard must be destroyed on the
// thread that made it.

// The thread gets an apartment of its own (STA); it should then pump messages.
class VELT_API CoInitialize {
public:
  CoInitialize();
  CoInitialize(CoInitialize const&) = delete;
  CoInitialize& operator=(CoInitialize const&) = delete;
  ~CoInitialize();
};

// The thread joins the multithreaded apartment of the process (MTA).
class VELT_API CoInitializeEx {
public:
  CoInitializeEx();
  CoInitializeEx(CoInitializeEx const&) = delete;
  CoInitializeEx& operator=(CoInitializeEx const&) = delete;
  ~CoInitializeEx();
};
