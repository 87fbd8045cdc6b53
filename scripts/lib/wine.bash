# Sourced. How the project runs Wine: one prefix in the build folder, quiet,
# without a display, and in one locale whatever the user's is.

velt_build=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

export WINEPREFIX=$velt_build/wine
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES='mscoree=;mshtml='
# Wine takes its code pages and the texts of the system from the locale, and
# file names are only right in a UTF-8 one.
export LC_ALL=C.UTF-8
unset DISPLAY WAYLAND_DISPLAY

# The mark is written last, so a prefix whose making was interrupted has none.
wine_prefix_is_ready() { [ -e "$WINEPREFIX/velt-ready" ]; }

# Makes the prefix if there is none. Programs that start at once in a new prefix
# would each try to make it, so the first one makes it and the others wait.
make_wine_prefix() {
  wine_prefix_is_ready && return
  mkdir -p "$WINEPREFIX" || return
  (
    flock 8
    wine_prefix_is_ready && exit
    # The server outlives the command: it must not inherit the lock, and only
    # its end brings the registry to the disk.
    timeout 180 "$wine" wineboot -i </dev/null 8>&- &&
      stop_wine &&
      touch "$WINEPREFIX/velt-ready"
  ) 8>"$WINEPREFIX.lock"
}

# Ends every program in the prefix and waits for the server to be gone. None
# running is no failure.
stop_wine() {
  timeout 30 "$wineserver" -k 8>&- 2>/dev/null || true
}
