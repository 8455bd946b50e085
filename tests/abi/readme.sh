#!/usr/bin/env bash
# The service and the app of the README compile and link as they stand:  readme.sh CXX README HEADERS LIBRARY
set -euo pipefail
cxx=$1 readme=$2 headers=$3 library=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
awk -v to="$scratch/" '/^```cpp$/ { file = to (++n) ".cpp"; next } /^```/ { file = "" } file { print > file }' "$readme"
for example in 1 2; do
  "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -I"$headers" "$scratch/$example.cpp" "$library" -o "$scratch/$example"
done
