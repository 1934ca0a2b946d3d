# Shell functions shared by the install and package checks.

# build_consumers PREFIX WORKDIR HERE: builds consumer.c against the tree
# under PREFIX through pkg-config and through CMake, and runs both.
build_consumers() {
  prefix="$1"
  work="$2"
  here="$3"
  mkdir -p "$work"
  pcdir=$(dirname "$(find "$prefix" -name vekutil.pc | head -n 1)")
  libdir=$(dirname "$pcdir")
  PKG_CONFIG_PATH="$pcdir" cc -std=c11 -Wall -Wextra -Werror "$here/consumer.c" -o "$work/with_pkgconfig" \
    $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs vekutil)
  LD_LIBRARY_PATH="$libdir" "$work/with_pkgconfig"
  cmake -S "$here/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCONSUMER_SOURCE="$here/consumer.c" > /dev/null
  cmake --build "$work/cmake-build" > /dev/null
  LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"
}

# check_tool TOOL MANPAGE: every command answers --help on standard output
# with status 0, bad usage gives status 2, and the manual page names every
# command that --help lists.
check_tool() {
  tool="$1"
  manpage="$2"
  "$tool" --help > "$work/help.txt"
  commands=$(sed -n '/^commands:/,/^$/s/^  \([a-z0-9][a-z0-9-]*\).*/\1/p' "$work/help.txt")
  [ -n "$commands" ] || { echo "no commands in --help"; return 1; }
  for c in $commands; do
    "$tool" "$c" --help > "$work/one.txt" || { echo "$c --help failed"; return 1; }
    grep -q "^usage: vekutil $c" "$work/one.txt" || { echo "$c --help: no usage line"; return 1; }
    grep -q "^\.B $c" "$manpage" || { echo "manual page lacks $c"; return 1; }
  done
  status=0
  "$tool" no-such-command 2> "$work/err.txt" || status=$?
  [ "$status" -eq 2 ] && [ -s "$work/err.txt" ] || { echo "unknown command: status $status"; return 1; }
  echo "tool: $(echo $commands | wc -w) commands answer --help"
}
