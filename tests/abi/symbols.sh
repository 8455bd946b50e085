#!/usr/bin/env bash
# The library's name, what it exports and what it needs:  symbols.sh [LIBRARY NAME|NAME...]
# The names are the libraries that it may need besides those that every build needs. Without arguments: this build's.
set -euxo pipefail # the last line of the trace tells what failed
export LC_ALL=C
library=${1:-$BUILD/libnira-ipc.so} also=${2:-nira-platform|asan|ubsan|tsan}
listed=$SOURCE/tests/abi/exported_symbols.txt

[ "$(basename "$(readlink -f "$library")")" = libnira-ipc.so.1.0.2 ]
nm -D --defined-only "$library" | awk '{ print $3 }' | sort | diff "$listed" -
sed -nE 's/^NIRA_IPC_EXPORT .*\b(nira_ipc_[a-z_]+)\(.*/\1/p' "$SOURCE"/include/*.h |
  sed 's/^nira_ipc_func_result_get_json$/_Z29&Pv/' | sort | diff "$listed" -
dynamic() { readelf -dW "$library" | sed -nE "s/.*\($1\).*\[(.*)\]/\1/p"; }
[ "$(dynamic SONAME)" = libnira-ipc.so.1 ]
dynamic NEEDED | grep '^libwebsockets\.so'
[ -z "$(dynamic NEEDED | grep -vE "^(lib(jsoncpp|websockets|crypto|stdc\+\+|gcc_s|m|c|$also)|ld-linux.*)\.so")" ]
