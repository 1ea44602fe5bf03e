# Sourced by the scripts that run an installed rongdian-server
# (tests/install, tests/package): a work folder under BUILD_DIR removed on exit
# together with a server still running, fail, and starting and stopping the
# server with its output in $work/server.out and $work/server.err.
#   . installed-server.sh BUILD_DIR
work=$(mktemp -d "$1/$(basename "$0" .sh).XXXXXX")
server_pid=
cleanup() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill -KILL "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# start_server COMMAND...: runs it in the background and sets url from the
# server's first line.
start_server() {
  "$@" >"$work/server.out" 2>"$work/server.err" &
  server_pid=$!
  url=
  for _ in $(seq 1 300); do
    url=$(sed -n 's/^rongdian-server: listening on \(http:[^ ]*\).*/\1/p' "$work/server.out")
    [ -n "$url" ] && return 0
    kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.err" >&2; fail "the installed server exited"; }
    sleep 0.1
  done
  fail "the installed server did not start"
}

# stop_server: SIGTERM, which it must answer by ending with status 0.
stop_server() {
  local status=0
  kill -TERM "$server_pid"
  wait "$server_pid" || status=$?
  server_pid=
  [ "$status" = 0 ] || fail "SIGTERM: the installed server stopped with status $status"
  grep -q '^rongdian-server: stopped' "$work/server.out" || fail "the server did not say it stopped"
}
