#!/bin/sh
# Prints how much of the source is tests: lines of the tracked source files
# (C++, QML, JavaScript, shell, CMake, Lua) under tests/ against all of them.
# Exits 1 when the tests pass a third of all lines.
set -eu
cd "$(dirname "$0")/.."
count() { git ls-files -- "$@" | grep -E '\.(cpp|h|qml|js|sh|cmake|lua)$|CMakeLists\.txt$' |
  tr '\n' '\0' | xargs -0 cat | wc -l; }
tests=$(count tests)
all=$(count .)
awk -v t="$tests" -v a="$all" 'BEGIN {
  printf "tests: %d of %d lines (%.1f%%), code: %d lines\n", t, a, 100 * t / a, a - t
  exit (3 * t > a) ? 1 : 0 }'
