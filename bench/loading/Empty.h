#pragma once

extern "C" {
extern __declspec(dllexport) void (*const imports[])();
__declspec(dllexport) void throw_and_catch();
}
