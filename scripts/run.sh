#!/usr/bin/env bash
# `make run`: starts rongdian-server on its embedded defaults, then the app
# pointed at it. With no display, runs the main job headless instead: the
# sample photo through the app's own flow to a rendered result screen.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
cd "$root"

listen=${RONGDIAN_LISTEN:-127.0.0.1:8080}
url="http://$listen"
data=${RONGDIAN_DATA:-$root/var}
mkdir -p "$data"

server="$build/server/rongdian-server"
app="$build/app/ui/rongdian"
log="$data/server.log"

if curl -fsS -m 2 "$url/healthz" >/dev/null 2>&1; then
  echo "run: something already answers on $url; stop it first (or set RONGDIAN_LISTEN=HOST:PORT)" >&2
  exit 1
fi

"$server" --listen "$listen" --data "$data" >"$log" 2>&1 &
server_pid=$!
stop_server() {
  if kill -0 "$server_pid" 2>/dev/null; then
    kill -TERM "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
}
trap 'stop_server' EXIT
trap 'echo; echo "run: stopping"; exit 130' INT TERM

for _ in $(seq 1 300); do
  curl -fsS -m 1 "$url/healthz" >/dev/null 2>&1 && break
  kill -0 "$server_pid" 2>/dev/null || { echo "run: rongdian-server did not start:" >&2; cat "$log" >&2; exit 1; }
  sleep 0.1
done
echo "run: rongdian-server is up on $url (data in $data, log in $log)"

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${RONGDIAN_HEADLESS:-}" ]; then
  echo "run: starting the app (close its window or press Ctrl-C to stop)"
  "$app" --server "$url" &
  app_pid=$!
  trap 'kill -TERM "$app_pid" 2>/dev/null; wait "$app_pid" 2>/dev/null; echo; echo "run: stopping"; exit 130' INT TERM
  wait "$app_pid" || true
  exit 0
fi

photo="$root/app/ui/sample-face.jpg"  # from the model package's sample1.jpg, cut to one face
out="$data/result.png"
echo "run: no display; running the main job headless on $photo"
QT_QPA_PLATFORM=offscreen "$app" --server "$url" --headless-result "$photo" --out "$out"
echo "run: the result screen is in $out"
