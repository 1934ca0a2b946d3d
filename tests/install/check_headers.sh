#!/bin/sh
# Every public header must compile on its own as strict C11 and as C++.
set -e
inc="$1"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
status=0
for h in "$inc"/vekutil/*.h; do
  name=$(basename "$h")
  printf '#include <vekutil/%s>\ntypedef int header_check_t;\n' "$name" > "$tmp/t.c"
  cp "$tmp/t.c" "$tmp/t.cpp"
  cc -std=c11 -pedantic -Wall -Wextra -Werror -I"$inc" -fsyntax-only "$tmp/t.c" || { echo "C: $name"; status=1; }
  c++ -std=c++20 -Wall -Wextra -Werror -I"$inc" -fsyntax-only "$tmp/t.cpp" || { echo "C++: $name"; status=1; }
done
exit $status
