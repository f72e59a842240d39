# shellcheck shell=sh
# For the scripts of this project to source, from the project's folder. Prints messages, removes
# temporary files at the end, builds, and installs missing packages (apt-get or brew).

say() { printf '%s\n' "$*" >&2; }
fail() { say "error: $*"; exit 1; }

# init_script SCRIPT ARGUMENT...: each script calls this first, with its own arguments. --help prints
# the comment at the script's top. $scratch is a temporary folder, by its real path, which is removed
# however the script exits. A script with more to clean up redefines `undo`.
init_script() {
  script=$1
  shift
  for argument in "$@"; do
    [ "$argument" != --help ] && [ "$argument" != -h ] || {
      sed -n '1d; /^#/!q; s/^# \{0,1\}//p' "$script"
      exit 0
    }
  done
  trap 'undo; rm -rf "$scratch"' EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 131' QUIT
  trap 'exit 143' TERM
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/card-reader.XXXXXX" 2>/dev/null) &&
    scratch=$(CDPATH='' cd -P -- "$scratch" && pwd) ||
    fail "cannot make a folder in ${TMPDIR:-/tmp}; set TMPDIR to a writable folder"
}
scratch=''
undo() { :; }
caller=${OLDPWD-} # the folder in which the script was started

# from_caller PATH: a path that was given to the script, from anywhere.
from_caller() {
  case $1 in
    /*) printf '%s\n' "$1" ;;
    *) printf '%s\n' "$caller/$1" ;;
  esac
}

# usage_error WHAT: exits because of arguments that the script does not take.
usage_error() { fail "$*; see $script --help"; }

# The missing packages: need_* functions add to them, install_missing installs them.
missing=''

# need_command COMMAND DEBIAN_PACKAGE BREW_FORMULA: '-' if that system needs no package.
need_command() {
  command -v "$1" >/dev/null 2>&1 || add_missing "$2" "$3"
}

# need_file PATTERN DEBIAN_PACKAGE BREW_FORMULA: at least one file must match.
need_file() {
  for candidate in $1; do
    [ ! -e "$candidate" ] || return 0
  done
  add_missing "$2" "$3"
}

add_missing() {
  case $(uname -s) in
    Darwin) [ "$2" = - ] || missing="$missing $2" ;;
    *) [ "$1" = - ] || missing="$missing $1" ;;
  esac
}

need_brew() {
  command -v brew >/dev/null 2>&1 ||
    fail "Homebrew is missing; install it as its home page says, then run this again"
}

# shellcheck disable=SC2086 # packages and commands of several words
install_missing() {
  [ -n "$missing" ] || return 0
  case $(uname -s) in
    Darwin)
      need_brew
      say "installing:$missing"
      brew install $missing >&2 || fail "brew could not install:$missing"
      ;;
    *)
      command -v apt-get >/dev/null 2>&1 || fail "missing packages:$missing; install them by hand"
      installer="apt-get install -y --no-install-recommends$missing"
      as_root=''
      if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null 2>&1 ||
          fail "sudo is missing; as root, run: apt-get update && $installer"
        as_root=sudo
      fi
      say "installing:$missing"
      # Another run may hold the lists. Old lists do no harm if they name every package.
      $as_root apt-get update >"$scratch/update.log" 2>&1 || cat "$scratch/update.log" >&2
      quietly $as_root env DEBIAN_FRONTEND=noninteractive $installer -o DPkg::Lock::Timeout=600
      ;;
  esac
  missing=''
}

# Requires what every build needs.
need_build_tools() {
  if [ "$(uname -s)" = Darwin ]; then
    # Every Mac has a command c++, which only offers to install the compiler.
    xcode-select -p >/dev/null 2>&1 || fail "no compiler is installed; run: xcode-select --install"
  fi
  need_command cmake cmake cmake
  need_command make make -
  need_command c++ g++ -
}

# Requires Debian's clang++, whatever other one is on the path: its packages have the sanitizers,
# libFuzzer and libc++.
need_clang() {
  need_file /usr/bin/clang++ clang -
  need_file '/usr/lib/llvm-*/lib/clang/*/lib/*/libclang_rt.fuzzer*' libclang-rt-dev -
}

# Requires GoogleTest's sources where cmake/googletest.cmake looks for them.
need_googletest() {
  if [ "$(uname -s)" != Darwin ]; then
    need_file /usr/src/googletest/googletest/src/gtest-all.cc googletest -
  elif [ ! -d build/googletest ]; then
    # Homebrew's compiled package is for the Mac's own processor only.
    need_brew
    quietly brew unpack --destdir="$scratch" googletest
    mkdir -p build && mv "$scratch"/googletest-* build/googletest || fail "cannot write to $PWD/build"
  fi
}

# Requires what building and running all tests needs. The tests ask no package index.
need_test_tools() {
  need_build_tools
  need_googletest
  need_command node nodejs node
  need_command python3 python3 python3
  need_file '/usr/lib/python3*/ensurepip' python3-venv -
  for module in pip setuptools wheel; do
    need_file /usr/lib/python3/dist-packages/$module python3-$module -
  done
  need_command pgrep procps -
}

# hold FOLDER: makes a build folder and locks it against the other scripts, until `release` or until
# this script and everything it started have exited.
hold() {
  mkdir -p "$1" 2>/dev/null && [ -w "$1" ] ||
    fail "cannot write to the folder $1 in $PWD; build elsewhere: cmake -S '$PWD' -B FOLDER"
  exec 9>"$1/.lock"
  lock_descriptor -n || {
    say "waiting for another run in $1 ..."
    lock_descriptor || fail "cannot lock the folder $1"
  }
}
release() { exec 9>&-; }

# lock_descriptor [-n]: locks descriptor 9; with -n, fails if another process has locked it.
lock_descriptor() {
  if command -v flock >/dev/null; then
    flock "$@" 9
  else # macOS has no such command, but Perl
    command -v perl >/dev/null || fail "cannot lock a folder: neither flock nor perl is installed"
    perl -e 'open my $f, ">&=", 9; exit !flock $f, @ARGV ? 6 : 2' -- "$@"
  fi
}

# configure FOLDER CMAKE_ARGUMENT...: makes it a build folder of this project and locks it.
configure() {
  hold "$1"
  home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$1/CMakeCache.txt" 2>/dev/null)
  [ -z "$home" ] || [ "$(CDPATH='' cd -P -- "$home" 2>/dev/null && pwd)" = "$PWD" ] ||
    fail "$1 was configured for the sources in $home; remove it: rm -r '$PWD/$1'"
  configured=$1
  shift
  quietly cmake -S . -B "$configured" "$@"
}

# build FOLDER CMAKE_ARGUMENT...: builds on all processors.
build() {
  quietly cmake --build "$@" --parallel "$(getconf _NPROCESSORS_ONLN)"
}

# quietly COMMAND...: shows its output only if it fails.
quietly() {
  "$@" >"$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    fail "command failed: $*"
  }
}
