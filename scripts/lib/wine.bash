# Sourced. How the project runs Wine: one prefix in the build folder, quiet,
# without a display, and in one locale whatever the user's is.

velt_build=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

export WINEPREFIX=$velt_build/wine
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe='
# Wine takes its code pages and the texts of the system from the locale, and
# file names are only right in a UTF-8 one.
export LC_ALL=C.UTF-8
unset DISPLAY WAYLAND_DISPLAY

# Wine links the user's folders into the prefix and leaves caches in the home.
# Called where only Wine follows: other programs may need the real one.
use_home_in_prefix() { export HOME=$WINEPREFIX; }

# The mark is written last, so a prefix whose making was interrupted has none.
wine_prefix_is_ready() { [ -e "$WINEPREFIX/velt-ready" ]; }

# Makes the prefix if there is none, and starts its server if it does not run.
# Programs that start at once in a new prefix would each try to make it, so the
# first one does it and the others wait. Descriptor 8 is the lock; what outlives
# this must not inherit it.
start_wine() {
  mkdir -p "$WINEPREFIX" || return
  (
    flock 8
    use_home_in_prefix
    wine_prefix_is_ready || make_wine_prefix 8>&- || exit
    start_wine_server 8>&-
  ) 8>"$WINEPREFIX.lock"
}

# Only the server's end brings the registry to the disk.
make_wine_prefix() {
  timeout 180 "$wine" wineboot -i </dev/null && stop_wine && touch "$WINEPREFIX/velt-ready"
}

# The services of Wine start with the first program and keep its output open as
# long as they run: whoever reads that to its end, as CTest does, would wait for
# them. So they are started by a program of no output, and stay for a minute
# after the last one.
start_wine_server() {
  local already_running=2 status=0
  "$wineserver" -p60 >/dev/null 2>&1 || status=$?
  [ "$status" != "$already_running" ] || return 0
  "$wine" cmd /c exit </dev/null >/dev/null 2>&1
}

# Ends every program in the prefix and waits for the server to be gone. None
# running is no failure.
stop_wine() {
  timeout 30 "$wineserver" -k 2>/dev/null || true
}
