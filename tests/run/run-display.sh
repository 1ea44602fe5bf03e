#!/usr/bin/env bash
# `make run`'s script with a display (a virtual X server when none is set):
# the server and the app start, the app's window comes up and talks to the
# server (push connection, the home screen's feed), and SIGINT stops both.
#   run-display.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run >/dev/null || { echo "no display and no xvfb-run; skipped"; exit 0; }
  exec xvfb-run -a -s "-screen 0 720x1280x24" "$0" "$@"
fi
src=$1
build=$2
work=$(mktemp -d "$build/run-test.XXXXXX")
run_pid=
url=
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
  cat "$work/run.out" "$work/var/server.log" >&2 2>/dev/null || true
  exit 1
}

set -m  # the script gets SIGINT as from a terminal
unset RONGDIAN_HEADLESS
export RONGDIAN_LISTEN=127.0.0.1:0 RONGDIAN_DATA="$work/var"
export XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data" XDG_CACHE_HOME="$work/cache"
"$src/scripts/run.sh" "$build" >"$work/run.out" 2>&1 &
run_pid=$!
# The app's window is up once it has connected for pushes and loaded the feed.
for _ in $(seq 1 300); do
  if grep -q " /push push 101 " "$work/var/server.log" 2>/dev/null &&
    grep -q "api:rd_list_items 200" "$work/var/server.log" 2>/dev/null; then
    break
  fi
  kill -0 "$run_pid" 2>/dev/null || fail "run.sh ended early"
  sleep 0.1
done
grep -q "run: starting the app" "$work/run.out" || fail "the app was not started"
url=$(sed -n 's/^run: rongdian-server is up on \(http:[^ ]*\).*/\1/p' "$work/run.out")
grep -q "api:rd_list_items 200" "$work/var/server.log" || fail "the app did not load its feed"
[ "$(leftovers | wc -l)" -ge 2 ] || fail "expected the server and the app running: $(leftovers)"

kill -INT "$run_pid"
status=0
wait "$run_pid" || status=$?
run_pid=
[ "$status" = 130 ] || fail "status $status after SIGINT, expected 130"
left=$(leftovers)
[ -z "$left" ] || fail "still running after SIGINT: $left"
grep -q "rongdian-server: stopped" "$work/var/server.log" || fail "the server did not stop cleanly"
echo "run.sh with a display: ok"
