#!/usr/bin/env bash
# Each public header is complete in itself, in C and in C++:  headers.sh CC CXX HEADERS
set -euo pipefail
cc=$1 cxx=$2 headers=$3
strict=(-Wall -Wextra -Wpedantic -Werror -I"$headers" -fsyntax-only)
for header in "$headers"/*.h; do
  program=$(printf '#include <%s>\n' "${header##*/}" "${header##*/}" && echo 'extern int something;')
  "$cc" -std=c11 -Wstrict-prototypes "${strict[@]}" -x c - <<<"$program"
  "$cxx" -std=c++17 "${strict[@]}" -x c++ - <<<"$program"
done
