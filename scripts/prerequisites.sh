# For the scripts of this project to source: says what it does, and installs what a machine lacks.
# Debian and its kin: apt-get; macOS: brew.

say() { printf '%s\n' "$*" >&2; }
fail() { say "error: $*"; exit 1; }

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

install_missing() {
  [ -n "$missing" ] || return 0
  say "installing:$missing"
  case $(uname -s) in
    Darwin)
      command -v brew >/dev/null || fail "please install Homebrew, or by hand:$missing"
      # shellcheck disable=SC2086
      brew install $missing >&2 || fail "brew could not install:$missing"
      ;;
    *)
      command -v apt-get >/dev/null || fail "please install by hand:$missing"
      as_root=''
      [ "$(id -u)" = 0 ] || as_root=sudo
      install_log=$(mktemp)
      # shellcheck disable=SC2086
      if ! { $as_root apt-get update && $as_root env DEBIAN_FRONTEND=noninteractive \
             apt-get install -y --no-install-recommends $missing; } >"$install_log" 2>&1; then
        cat "$install_log" >&2
        rm -f "$install_log"
        fail "apt-get could not install:$missing"
      fi
      rm -f "$install_log"
      ;;
  esac
  missing=''
}

# What every build needs.
need_build_tools() {
  need_command cmake cmake cmake
  need_command make make -
  need_command c++ g++ -
}

need_googletest() {
  header=include/gtest/gtest.h
  need_file "/usr/$header /usr/local/$header /opt/homebrew/$header" libgtest-dev googletest
}

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
  quiet_log=$(mktemp)
  if "$@" >"$quiet_log" 2>&1; then
    rm -f "$quiet_log"
  else
    cat "$quiet_log" >&2
    rm -f "$quiet_log"
    fail "this failed: $*"
  fi
}
