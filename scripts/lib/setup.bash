# Sourced by the commands of this folder: the steps that they share. Each step prints
# what it does in one line, and does nothing if nothing is left to do. Its output goes
# to build/<step>.log; only if it fails, the end of that is shown.
set -uo pipefail
# shellcheck source=scripts/lib/wine.bash
. "$(dirname "${BASH_SOURCE[0]}")/wine.bash"

root=$(dirname "$velt_build")
command_name=scripts/$(basename "$0")
say_to=1          # where progress goes
failure_status=1  # of a step that failed

# Needed to build and run anything.
base_packages=(cmake g++-mingw-w64-x86-64-posix ninja-build wine64)

say() { printf 'velt: %s\n' "$*" >&"$say_to"; }

fail() {
  printf 'velt: %s\n' "$*" >&2
  exit "$failure_status"
}

# For a command that passes on the output and the status of a program.
output_is_a_programs() {
  say_to=2
  failure_status=3
}

# Reports a mistake in the command line in one line, before anything is done.
usage_error() {
  printf '%s: %s (see %s --help)\n' "$command_name" "$*" "$command_name" >&2
  exit 2
}

# Ends the command, after the last lines of a step's log and a message.
fail_with_log() {
  tail -n 15 "$1" >&2
  fail "$2 (log: ${1#"$root"/})"
}

# begin PACKAGE...: checks the machine, waits until no other command works in the build
# folder, and installs the packages that are missing.
begin() {
  check_machine
  mkdir -p "$velt_build" 2>/dev/null && [ -w "$velt_build" ] ||
    fail "cannot write to $velt_build"
  [ ! -e "$WINEPREFIX" ] || [ -O "$WINEPREFIX" ] ||
    fail "build/wine belongs to another user; remove the folder build and try again"
  trap stop_wine_at_end EXIT
  trap 'fail interrupted' INT TERM HUP
  take_turn
  install_packages "$@"
  prepare_wine
}

debian_version() { [ ! -r /etc/os-release ] || (. /etc/os-release && printf %s "${VERSION_ID:-}"); }

check_machine() {
  local id='' version name='an unknown system'
  version=$(debian_version)
  if [ -r /etc/os-release ]; then
    id=$(. /etc/os-release && printf %s "${ID:-}")
    name=$(. /etc/os-release && printf %s "${PRETTY_NAME:-$name}")
  fi
  [ "$id" = debian ] ||
    fail "this command needs Debian 12 or 13, and this is $name; README.md tells how to build elsewhere"
  [ "$(dpkg --print-architecture)" = amd64 ] ||
    fail "Wine runs 64-bit Windows programs on amd64 only, and this is $(dpkg --print-architecture)"
  case $version in 12 | 13) ;; *) say "tested on Debian 12 and 13; trying it on $name" ;; esac
}

# Descriptor 9 is the lock. Commands that may leave a Wine server running are started
# without it, since the server would keep the lock.
take_turn() {
  exec 9>"$velt_build/lock" || fail "cannot write to $velt_build"
  flock -n 9 && return
  say "waiting for another command that works in the folder build"
  flock 9
}

stop_wine_at_end() {
  [ ! -x "$wineserver" ] || stop_wine 9>&-
}

install_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0

  as_root=()
  if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null ||
      fail "not root, and no sudo: install these packages first: ${missing[*]}"
    as_root=(sudo)
  fi
  say "installing Debian packages: ${missing[*]}"
  # If sudo needs the password, it asks here, where the user sees the question.
  "${as_root[@]}" env true 9>&- ||
    fail "sudo refused: install these packages first: ${missing[*]}"
  local log=$velt_build/packages.log
  : >"$log"
  # The usual reason for a failure is that package lists are missing or out of date.
  if apt-cache show "${missing[@]}" >/dev/null 2>&1 && apt_get install "${missing[@]}"; then
    return
  fi
  say "updating the package lists"
  apt_get update && apt_get install "${missing[@]}" && return
  if grep -qE 'Temporary failure resolving|Could not (resolve|connect)|Unable to connect|Connection (failed|timed out)' "$log"; then
    fail "could not install the packages: no network (log: ${log#"$root"/})"
  fi
  fail_with_log "$log" "could not install the packages"
}

apt_get() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive LC_ALL=C apt-get -q -y \
    --no-install-recommends -o DPkg::Lock::Timeout=300 -o Acquire::Retries=1 \
    -o Acquire::http::Timeout=30 "$@" >>"$velt_build/packages.log" 2>&1 9>&-
}

prepare_wine() {
  wine_prefix_is_ready && return
  say "creating the Wine prefix build/wine"
  local log=$velt_build/wine.log
  start_wine >"$log" 2>&1 9>&- || fail_with_log "$log" "could not create the Wine prefix"
}

# configure PRESET [-DNAME=VALUE...]
configure() {
  local preset=$1 log=$velt_build/$1-configure.log
  say "configuring $preset"
  (cd "$root" && cmake --preset "$@") >"$log" 2>&1 9>&- ||
    fail_with_log "$log" "could not configure $preset"
}

# The same for a command that needs no tests. A build folder that has them keeps them:
# switched off, they would have to be built again later.
configure_without_tests() {
  [ -e "$velt_build/$1/CMakeCache.txt" ] || set -- "$@" -DVELT_TESTS=OFF
  configure "$@"
}

# build PRESET [TARGET...]: all, or these targets
build() {
  local preset=$1 log=$velt_build/$1-build.log
  shift
  say "building $preset"
  (cd "$root" && NINJA_STATUS='[%f/%t] ' cmake --build --preset "$preset" ${*:+--target "$@"}) \
    2>&1 9>&- | show_progress "$log"
  [ "${PIPESTATUS[0]}" = 0 ] && return
  # Shows the log from the first failed step on, or its end if no step failed.
  if grep -q '^FAILED:' "$log"; then
    sed -n '/^FAILED:/,$p' "$log" | head -n 60 >&2
    fail "could not build $preset (log: ${log#"$root"/})"
  fi
  fail_with_log "$log" "could not build $preset"
}

# Writes Ninja's output to a log. Shows one changing line on a terminal; elsewhere, one
# line for every quarter of a long build.
show_progress() {
  local line percent quarter=0 terminal=
  [ -t "$say_to" ] && terminal=1
  while IFS= read -r line; do
    printf '%s\n' "$line" >&7
    [[ $line =~ ^\[([0-9]+)/([0-9]+)\]\ (.*) ]] || continue
    percent=$((100 * BASH_REMATCH[1] / BASH_REMATCH[2]))
    if [ "$terminal" ]; then
      printf '\r\033[K%3d%% %.70s' "$percent" "${BASH_REMATCH[3]}" >&"$say_to"
    elif [ "${BASH_REMATCH[2]}" -ge 20 ] && [ $((percent / 25)) -gt "$quarter" ]; then
      quarter=$((percent / 25))
      printf '  %3d%%\n' "$percent" >&"$say_to"
    fi
  done 7>"$1"
  [ ! "$terminal" ] || printf '\r\033[K' >&"$say_to"
}

# Runs a program of the build under Wine and returns its status. Its output gets the
# line ends of this system.
run_program() {
  "$root/scripts/run-under-wine" "$@" 9>&- </dev/null | sed -u 's/\r$//'
  return "${PIPESTATUS[0]}"
}
