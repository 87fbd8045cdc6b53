T=/tmp/wt/faults; B=$T/build/mingw-release
x86_64-w64-mingw32-g++-posix -std=gnu++20 -O1 -fnon-call-exceptions -w -I$T /tmp/f2/$1.cpp -o $B/bin/f2_$1.exe -Wl,--wrap=__gxx_personality_seh0 $B/tests/faults/*build_at_o?.a -L$B/velt -lvelt -lole32 -loleaut32 -luuid -lntdll -Wl,--stack,262144
