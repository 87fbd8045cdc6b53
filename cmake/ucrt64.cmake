# Toolchain file: as mingw-w64.cmake, for the universal run time (ucrtbase.dll). Debian
# builds these tools with the posix thread model only.
set(velt_tools x86_64-w64-mingw32ucrt)
set(velt_thread_model "")
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
