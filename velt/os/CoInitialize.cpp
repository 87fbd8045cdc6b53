#include "velt/os/CoInitialize.h"

#include <windows.h>

#include <comutil.h>
#include <objbase.h>

using _com_util::CheckError;

CoInitialize::CoInitialize() { CheckError(::CoInitialize(nullptr)); }
CoInitialize::~CoInitialize() { ::CoUninitialize(); }

CoInitializeEx::CoInitializeEx() { CheckError(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
CoInitializeEx::~CoInitializeEx() { ::CoUninitialize(); }
