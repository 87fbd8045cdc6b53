# Sourced. The project runs Wine with a prefix in the build folder, without Wine's own
# messages, without a display, and in one locale, whatever the user's is.

velt_build=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build

wine64=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

# Programs start at addresses that are not random. Otherwise one start in some 4,000 fails
# under Debian 12: the kernel puts the heap of a program without position-independent code,
# which Wine is, at a random place, now and then over a page that Wine needs. A container
# may forbid fixed addresses; programs then start as usual.
wine=("$wine64")
! setarch --addr-no-randomize true 2>/dev/null || wine=(setarch --addr-no-randomize "$wine64")

# use_wine_prefix NAME: for this process and those that it starts. Prefixes share nothing:
# each has a server of its own.
use_wine_prefix() {
  export VELT_WINE_PREFIX=$1
  export WINEPREFIX=$velt_build/$1
}

use_wine_prefix "${VELT_WINE_PREFIX:-wine}"
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe='
# Wine takes its code pages and the system's texts from the locale. File names are
# correct in a UTF-8 locale only.
export LC_ALL=C.UTF-8
unset DISPLAY WAYLAND_DISPLAY

# Wine links the user's folders into the prefix and writes caches to the home folder.
# Call this only before Wine: other programs may need the real home folder.
use_home_in_prefix() { export HOME=$WINEPREFIX; }

# The mark is written last, so an unfinished prefix has none.
wine_prefix_is_ready() { [ -e "$WINEPREFIX/velt-ready" ]; }

# Creates the prefix if there is none, and starts its server if it does not run. Programs
# that start at the same time in a new prefix would each try to create it, so the first
# one does it and the others wait. Descriptor 8 is the lock; a process that goes on
# running must not inherit it.
start_wine() {
  mkdir -p "$WINEPREFIX" || return
  (
    flock 8
    use_home_in_prefix
    wine_prefix_is_ready || make_wine_prefix 8>&- || exit
    start_wine_server 8>&-
  ) 8>"$WINEPREFIX.lock"
}

# The server writes the registry to the disk only when it ends.
make_wine_prefix() {
  timeout 180 "${wine[@]}" wineboot -i </dev/null && stop_wine && touch "$WINEPREFIX/velt-ready"
}

# Wine's services start with the first program and keep its output open while they run. A
# caller that reads the output to its end, as CTest does, would wait for them. So a
# program without output starts them, and they stay for a minute after the last program.
start_wine_server() {
  local already_running=2 status=0
  "$wineserver" -p60 >/dev/null 2>&1 || status=$?
  [ "$status" != "$already_running" ] || return 0
  "${wine[@]}" cmd /c exit </dev/null >/dev/null 2>&1
}

# Ends every program in the prefix and waits until the server has ended. It is not a
# failure if none is running.
stop_wine() {
  timeout 30 "$wineserver" -k 2>/dev/null || true
}
