#!/usr/bin/env bash
# `make run`'s script, headless, stopped with SIGINT (what Ctrl-C sends) while
# the app is at work: it must end within seconds with status 130 and leave
# neither the server nor the app running; a second run must then start and
# finish the main job.
#   run-interrupt.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
work=$(mktemp -d "$build/run-test.XXXXXX")
run_pid=
url=
# The processes a run started, found by the data folder on their command lines.
leftovers() {
  local f
  for f in /proc/[0-9]*/cmdline; do
    tr '\0' ' ' 2>/dev/null <"$f" | grep -qF -e "$work/var" ${url:+-e "--server $url "} &&
      basename "$(dirname "$f")"
  done
  return 0
}
cleanup() {
  [ -n "$run_pid" ] && kill -TERM "$run_pid" 2>/dev/null
  local pid
  for pid in $(leftovers); do kill -KILL "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  cat "$work/run.out" >&2 2>/dev/null || true
  exit 1
}

# Job control on: the script gets SIGINT as from a terminal (a plain
# background job of a non-interactive shell would ignore it).
set -m
unset DISPLAY WAYLAND_DISPLAY
export RONGDIAN_LISTEN=127.0.0.1:0 RONGDIAN_DATA="$work/var"
"$src/scripts/run.sh" "$build" >"$work/run.out" 2>&1 &
run_pid=$!
for _ in $(seq 1 300); do
  grep -q "running the main job headless" "$work/run.out" 2>/dev/null && break
  kill -0 "$run_pid" 2>/dev/null || fail "run.sh ended before the main job"
  sleep 0.1
done
grep -q "running the main job headless" "$work/run.out" || fail "the main job did not start"
sleep 0.3
[ "$(leftovers | wc -l)" -ge 2 ] || fail "expected the server and the app running: $(leftovers)"

kill -INT "$run_pid"
start=$(date +%s%N)
status=0
wait "$run_pid" || status=$?
run_pid=
ms=$((($(date +%s%N) - start) / 1000000))
echo "run.sh stopped in $ms ms with status $status"
[ "$status" = 130 ] || fail "status $status after SIGINT, expected 130"
[ "$ms" -lt 15000 ] || fail "stopping took $ms ms"
# Stopped at once, not after the job: the app never got to its result.
[ ! -e "$work/var/result.png" ] || fail "the app ran to its end before the run stopped"
grep -q "run: stopping" "$work/run.out" || fail "no 'run: stopping'"
left=$(leftovers)
[ -z "$left" ] || fail "still running after SIGINT: $left"
grep -q "rongdian-server: stopped" "$work/var/server.log" || fail "the server did not stop cleanly"

# Again, to the end: the same data folder, a result screen written.
"$src/scripts/run.sh" "$build" >"$work/run.out" 2>&1 || fail "the second run failed"
grep -q '"allResultPoint"' "$work/run.out" || fail "no score printed"
[ -s "$work/var/result.png" ] || fail "no result screen"
[ -z "$(leftovers)" ] || fail "still running after the run ended"
echo "run.sh: ok"
