#!/usr/bin/env bash
# The library's name, what it exports and what it needs:  symbols.sh LIBRARY HEADERS NAME|NAME...
# The names are the libraries that it may need besides those that every build needs.
set -euo pipefail
export LC_ALL=C
library=$1 headers=$2 also=$3
listed=$(dirname "${BASH_SOURCE[0]}")/exported_symbols.txt

declared() {
  sed -nE 's/^NIRA_IPC_EXPORT .*\b(nira_ipc_[a-z_]+)\(.*/\1/p' "$headers"/*.h |
    sed 's/^nira_ipc_func_result_get_json$/_Z29&Pv/' | sort
}
dynamic() { readelf -dW "$library" | sed -nE "s/.*\($1\).*\[(.*)\]/\1/p"; }

failed=0
check() { # WHAT WANTED FOUND
  diff <(echo "$2") <(echo "$3") || { echo "$1: < wanted, > found" && failed=1; }
}
check "symbols" "$(<"$listed")" "$(nm -D --defined-only "$library" | awk '{print $3}' | sort)"
check "declarations" "$(<"$listed")" "$(declared)"
check "file" libnira-ipc.so.1.0.2 "$(basename "$(readlink -f "$library")")"
check "SONAME" libnira-ipc.so.1 "$(dynamic SONAME)"

everywhere='lib(jsoncpp|websockets|crypto|stdc\+\+|gcc_s|m|c)'
check "libraries that it should not need" "" "$(dynamic NEEDED | grep -vE "^($everywhere|lib($also)|ld-linux.*)\.so" || true)"
check "first of the libraries" libwebsockets.so "$(dynamic NEEDED | grep -o '^libwebsockets\.so')"
exit $failed
