#!/usr/bin/env bash
# `make bench`: every benchmark, one after the other; each prints its own figures.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
status=0
run() {
  echo
  echo "=== $*"
  "$@" || { echo "bench: '$*' failed" >&2; status=1; }
}
run "$build/bench/bench_engine"
run "$build/bench/bench_detect"
run "$build/bench/bench_rules"
run "$root/bench/api-load.sh" "$build"
for b in "$build"/bench/bench_app*; do
  [ -x "$b" ] && run "$b"
done
exit $status
