# shellcheck shell=sh
# For the scripts of this project to source, from the project's folder: says what is done, removes at
# the end what was made on the way, builds, and installs what a machine lacks.
# Debian and its kin: apt-get; macOS: brew.

say() { printf '%s\n' "$*" >&2; }
fail() { say "error: $*"; exit 1; }

# begin SCRIPT ARGUMENT...: what each script does first, with its own arguments. --help prints the
# comment at the script's top; else there is a folder $scratch, with its real path, until the script
# ends, however it ends. A script that has more to undo gives `undo` another body.
begin() {
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
    fail "cannot make a folder in ${TMPDIR:-/tmp}; TMPDIR has to name one that can be written to"
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

# misused WHAT: for arguments that the script does not take.
misused() { fail "$*; see $script --help"; }

# The packages that are missing, gathered by the functions below until install_missing.
missing=''

# need_command COMMAND DEBIAN_PACKAGE BREW_FORMULA: '-' where a system needs no package for it.
need_command() {
  command -v "$1" >/dev/null 2>&1 || add_missing "$2" "$3"
}

# need_file FILES DEBIAN_PACKAGE BREW_FORMULA: for what is no command; any of the files will do.
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
    fail "Homebrew is missing: type the line that its home page, brew.sh, shows; then this again"
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
      command -v apt-get >/dev/null 2>&1 || fail "please install by hand:$missing"
      installer="apt-get install -y --no-install-recommends$missing"
      as_root=''
      if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null 2>&1 ||
          fail "there is no sudo; type as root: apt-get update && $installer"
        as_root=sudo
      fi
      say "installing:$missing"
      # Another run may be at it too. Old lists do no harm, as long as all is found.
      $as_root apt-get update >"$scratch/update.log" 2>&1 || cat "$scratch/update.log" >&2
      quietly $as_root env DEBIAN_FRONTEND=noninteractive $installer -o DPkg::Lock::Timeout=600
      ;;
  esac
  missing=''
}

# What every build needs.
need_build_tools() {
  if [ "$(uname -s)" = Darwin ]; then
    # The command c++ is there on any Mac, and asks for this in a window.
    xcode-select -p >/dev/null 2>&1 || fail "no compiler is installed; type: xcode-select --install"
  fi
  need_command cmake cmake cmake
  need_command make make -
  need_command c++ g++ -
  need_file /usr/include/histedit.h libedit-dev - # line editing at the virtual reader's terminal
}

# The clang++ of the system, whatever other there is on the path: it is the one that has sanitizers,
# libFuzzer and libc++ in packages of their own.
need_clang() {
  need_file /usr/bin/clang++ clang -
  need_file '/usr/lib/llvm-*/lib/clang/*/lib/*/libclang_rt.fuzzer*' libclang-rt-dev -
}

# GoogleTest's sources, where cmake/googletest.cmake looks for them.
need_googletest() {
  if [ "$(uname -s)" != Darwin ]; then
    need_file /usr/src/googletest/googletest/src/gtest-all.cc googletest -
  elif [ ! -d build/googletest ]; then
    # What Homebrew installs of it is compiled for the Mac's own processor.
    need_brew
    quietly brew unpack --destdir="$scratch" googletest
    mkdir -p build && mv "$scratch"/googletest-* build/googletest || fail "cannot write to $PWD/build"
  fi
}

# What building and running all tests needs.
need_test_tools() {
  need_build_tools
  need_googletest
  need_command node nodejs node
  need_command python3 python3 python3
  need_command pgrep procps -
}

# hold FOLDER: makes a build folder, and waits until no other of these scripts builds in it; until
# `release`, or until this script ends and all that it started.
hold() {
  mkdir -p "$1" 2>/dev/null && [ -w "$1" ] || fail "cannot write to the folder $PWD/$1"
  exec 9>"$1/.lock"
  # macOS has no command for this; its perl and Debian's take the lock for the descriptor.
  perl -e 'open my $f, ">&=", 9; exit !flock $f, 6' || {
    say "waiting for another run in $1 ..."
    perl -e 'open my $f, ">&=", 9; exit !flock $f, 2' || fail "cannot lock the folder $1"
  }
}
release() { exec 9>&-; }

# configure FOLDER CMAKE_ARGUMENT...: makes it the build folder of this project, and holds it.
configure() {
  hold "$1"
  home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$1/CMakeCache.txt" 2>/dev/null)
  [ -z "$home" ] || [ "$(CDPATH='' cd -P -- "$home" 2>/dev/null && pwd)" = "$PWD" ] ||
    fail "$1 was made for the sources in $home; remove it, for instance: rm -r '$PWD/$1'"
  configured=$1
  shift
  quietly cmake -S . -B "$configured" "$@"
}

# build FOLDER CMAKE_ARGUMENT...: builds what was configured there, on all processors.
build() {
  quietly cmake --build "$@" --parallel "$(getconf _NPROCESSORS_ONLN)"
}

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
  "$@" >"$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    fail "this failed: $*"
  }
}
