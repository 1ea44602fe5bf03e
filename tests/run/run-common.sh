# Shared by the `make run` script tests (sourced): a work folder under the
# build, the processes a run started, and SIGINT as a terminal sends it.
#   . run-common.sh SOURCE_DIR BUILD_DIR
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
  cat "$work/run.out" "$work/var/server.log" >&2 2>/dev/null || true
  exit 1
}

# Job control on: the script gets SIGINT as from a terminal (a plain
# background job of a non-interactive shell would ignore it).
set -m
export RONGDIAN_LISTEN=127.0.0.1:0 RONGDIAN_DATA="$work/var"
start_run() {
  "$src/scripts/run.sh" "$build" >"$work/run.out" 2>&1 &
  run_pid=$!
}

# wait_for WHAT COMMAND...: until COMMAND succeeds while the run goes on. The
# script reports each step, so this ends on its report or on its end; the
# limit only keeps a hung run from holding the test until CTest's time-out.
wait_for() {
  local what=$1 deadline=$((SECONDS + 240))
  shift
  while [ "$SECONDS" -lt "$deadline" ]; do
    "$@" && return 0
    kill -0 "$run_pid" 2>/dev/null || { "$@" && return 0; fail "run.sh ended before $what"; }
    sleep 0.1
  done
  fail "$what did not happen"
}

# stop_run: SIGINT; the run ends with 130 and leaves nothing running.
stop_run() {
  kill -INT "$run_pid"
  status=0
  wait "$run_pid" || status=$?
  run_pid=
  [ "$status" = 130 ] || fail "status $status after SIGINT, expected 130"
  local left
  left=$(leftovers)
  [ -z "$left" ] || fail "still running after SIGINT: $left"
  grep -q "rongdian-server: stopped" "$work/var/server.log" || fail "the server did not stop cleanly"
}
