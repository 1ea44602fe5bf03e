#!/usr/bin/env bash
# `make run`'s script, headless, stopped with SIGINT (what Ctrl-C sends) while
# the app is at work: it must end within seconds with status 130 and leave
# neither the server nor the app running; a second run must then start and
# finish the main job.
#   run-interrupt.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
. "$(dirname "$0")/run-common.sh"
unset DISPLAY WAYLAND_DISPLAY
start_run
wait_for "the main job" grep -q "running the main job headless" "$work/run.out"
both_up() { [ "$(leftovers | wc -l)" -ge 2 ]; }
wait_for "the server and the app running" both_up
start=$(date +%s%N)
stop_run
echo "run.sh stopped in $((($(date +%s%N) - start) / 1000000)) ms"
# Stopped at once, not after the job: the app never got to its result.
[ ! -e "$work/var/result.png" ] || fail "the app ran to its end before the run stopped"
grep -q "run: stopping" "$work/run.out" || fail "no 'run: stopping'"

# Again, to the end: the same data folder, a result screen written.
"$src/scripts/run.sh" "$build" >"$work/run.out" 2>&1 || fail "the second run failed"
grep -q '"allResultPoint"' "$work/run.out" || fail "no score printed"
[ -s "$work/var/result.png" ] || fail "no result screen"
[ -z "$(leftovers)" ] || fail "still running after the run ended"
echo "run.sh: ok"
