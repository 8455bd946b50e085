# shellcheck shell=bash
# What the scripts share; to be sourced.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
jobs=$(nproc)
readonly jobs

# Notes PACKAGE as missing unless COMMAND succeeds: what a developer installed by other ways is as good.
want() { # PACKAGE COMMAND [ARGUMENT...]
  local package=$1
  shift
  "$@" >/dev/null 2>&1 || missing+=("$package")
}

# Installs what the build and the tests need and the machine does not have. Asks nothing, and leaves a machine that has
# everything alone.
install_missing() {
  local missing=()
  want g++ command -v g++
  want cmake command -v cmake
  want make command -v make
  want pkg-config command -v pkg-config
  want libwebsockets-dev pkg-config --exists libwebsockets
  want libjsoncpp-dev pkg-config --exists jsoncpp
  want libssl-dev pkg-config --exists libcrypto
  want libgtest-dev pkg-config --exists gtest
  want python3 test -x /usr/bin/python3
  want python3-websockets /usr/bin/python3 -c 'import websockets'
  if [ ${#missing[@]} -eq 0 ]; then return; fi

  install_packages "${missing[@]}"
}

# Installs PACKAGE unless COMMAND succeeds: what only one script needs.
install_unless() { # PACKAGE COMMAND [ARGUMENT...]
  local missing=()
  want "$@"
  if [ ${#missing[@]} -gt 0 ]; then install_packages "${missing[@]}"; fi
}

install_packages() { # PACKAGE...
  echo "Installing $*" >&2
  if ! command -v apt-get >/dev/null; then
    echo "There is no apt-get here: install them, or what they are called on this system, and come back." >&2
    return 1
  fi
  local as_root=(env DEBIAN_FRONTEND=noninteractive)
  if [ "$(id -u)" -ne 0 ]; then as_root=(sudo "${as_root[@]}"); fi
  "${as_root[@]}" apt-get -qq update </dev/null >&2
  "${as_root[@]}" apt-get -qq install -y --no-install-recommends "$@" </dev/null >&2
}

# Configures and builds the tree in DIRECTORY.
build() { # DIRECTORY [CMAKE-OPTION...]
  cmake -S "$root" -B "$@" && cmake --build "$1" --parallel "$jobs"
}
