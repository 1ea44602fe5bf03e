#!/usr/bin/env bash
# `make run`: starts rongdian-server on its embedded defaults, then the app
# pointed at it. With no display, runs the main job headless instead: the
# sample photo through the app's own flow to a rendered result screen.
# Ctrl-C (SIGINT) or SIGTERM stops the app and the server and waits for both.
#   scripts/run.sh [BUILD_DIR]
# RONGDIAN_LISTEN (default 127.0.0.1:8080; port 0 picks a free one),
# RONGDIAN_DATA (default ./var), RONGDIAN_HEADLESS=1 (headless even with a display).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
cd "$root"

listen=${RONGDIAN_LISTEN:-127.0.0.1:8080}
data=${RONGDIAN_DATA:-$root/var}
mkdir -p "$data"
data=$(cd "$data" && pwd)

server="$build/server/rongdian-server"
app="$build/app/ui/rongdian"
log="$data/server.log"

if [ "${listen##*:}" != 0 ] && curl -fsS -m 2 "http://$listen/healthz" >/dev/null 2>&1; then
  echo "run: something already answers on http://$listen; stop it first (or set RONGDIAN_LISTEN=HOST:PORT)" >&2
  exit 1
fi

server_pid=
app_pid=
# Stops what was started, the app first (it holds a push connection to the
# server), and waits for each so nothing is left behind.
stop_all() {
  local pid
  trap '' INT TERM HUP  # a second Ctrl-C does not cut the stopping short
  for pid in $app_pid $server_pid; do
    if kill -0 "$pid" 2>/dev/null; then
      kill -TERM "$pid" 2>/dev/null || true
      for _ in $(seq 1 100); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
      done
      kill -KILL "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
}
trap 'stop_all' EXIT
trap 'echo; echo "run: stopping"; exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# The log exists before the server starts: the loop below reads it at once,
# and the background process may not have opened it yet on a busy machine.
# A development install: the server takes the built-in keys the app is built with.
: >"$log"
"$server" --listen "$listen" --data "$data" --development >>"$log" 2>&1 &
server_pid=$!

# The server's first line tells where it listens (the port, when 0 was asked
# for). It is given a minute: loading the models takes longer on a busy machine.
url=
deadline=$((SECONDS + 60))
while [ "$SECONDS" -lt "$deadline" ]; do
  url=$(sed -n 's/^rongdian-server: listening on \(http:[^ ]*\).*/\1/p' "$log")
  [ -n "$url" ] && curl -fsS -m 2 "$url/healthz" >/dev/null 2>&1 && break
  url=
  kill -0 "$server_pid" 2>/dev/null || { echo "run: rongdian-server did not start:" >&2; cat "$log" >&2; exit 1; }
  sleep 0.1
done
[ -n "$url" ] || { echo "run: rongdian-server did not answer in 60 s; see $log" >&2; exit 1; }
echo "run: rongdian-server is up on $url (data in $data, log in $log)"

# The app runs in the background and the script waits for it, so that a
# signal to the script is handled at once rather than when the app ends.
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${RONGDIAN_HEADLESS:-}" ]; then
  echo "run: starting the app (close its window or press Ctrl-C to stop)"
  "$app" --server "$url" &
  app_pid=$!
  status=0
  wait "$app_pid" || status=$?
  app_pid=
  [ "$status" = 0 ] || echo "run: the app ended with status $status" >&2
  exit "$status"
fi

photo="$root/app/ui/sample-face.jpg"  # from the model package's sample1.jpg, cut to one face
out="$data/result.png"
echo "run: no display; running the main job headless on $photo"
QT_QPA_PLATFORM=offscreen "$app" --server "$url" --headless-result "$photo" --out "$out" &
app_pid=$!
status=0
wait "$app_pid" || status=$?
app_pid=
[ "$status" = 0 ] || { echo "run: the headless run failed (status $status)" >&2; exit "$status"; }
echo "run: the result screen is in $out"
