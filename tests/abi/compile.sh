#!/usr/bin/env bash
# Each public header is complete in itself, in C and in C++, and the README's service and app compile as they stand.
set -euo pipefail
strict=(-Wall -Wextra -Wpedantic -Werror -I"$SOURCE/include" -fsyntax-only)
cpp() { "$CXX" -std=c++17 "${strict[@]}" -x c++ - <<<"$1"; }

for header in "$SOURCE"/include/*.h; do
  program=$(printf '#include <%s>\n' "${header##*/}" "${header##*/}" && echo 'extern int something;')
  "$CC" -std=c11 -Wstrict-prototypes "${strict[@]}" -x c - <<<"$program"
  cpp "$program"
done
for n in 1 2; do
  program=$(awk -v n=$n '/^```/ { inside = /^```cpp$/; n -= inside; next } inside && n == 0' "$SOURCE/README.md")
  cpp "${program:?the README has fewer}"
done
