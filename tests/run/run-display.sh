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
. "$(dirname "$0")/run-common.sh"
unset RONGDIAN_HEADLESS
export XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data" XDG_CACHE_HOME="$work/cache"
start_run
# The app's window is up once it has connected for pushes and loaded the feed.
window_up() {
  grep -q " /push push 101 " "$work/var/server.log" 2>/dev/null &&
    grep -q "api:rd_list_items 200" "$work/var/server.log" 2>/dev/null
}
wait_for "the app's window talking to the server" window_up
grep -q "run: starting the app" "$work/run.out" || fail "the app was not started"
url=$(sed -n 's/^run: rongdian-server is up on \(http:[^ ]*\).*/\1/p' "$work/run.out")
[ "$(leftovers | wc -l)" -ge 2 ] || fail "expected the server and the app running: $(leftovers)"
stop_run
echo "run.sh with a display: ok"
