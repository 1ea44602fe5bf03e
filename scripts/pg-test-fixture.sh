#!/usr/bin/env bash
# CTest fixture around pg-test-server.sh: one throwaway PostgreSQL server for
# a whole test run. The URL goes to DIR/url, where the tests look for it.
#   pg-test-fixture.sh start DIR   (uses $RONGDIAN_TEST_PG_URL instead when set)
#   pg-test-fixture.sh stop DIR
set -euo pipefail
cmd=${1:-}; dir=${2:-}
[ -n "$cmd" ] && [ -n "$dir" ] || { echo "usage: $0 start|stop DIR" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$dir"
case "$cmd" in
  start)
    rm -f "$dir/url"
    if [ -n "${RONGDIAN_TEST_PG_URL:-}" ]; then
      echo "$RONGDIAN_TEST_PG_URL" >"$dir/url"
      exit 0
    fi
    # The server runs as "postgres", which must reach its folder: keep it under /tmp.
    if [ -f "$dir/pgdir" ] && [ -d "$(cat "$dir/pgdir")" ]; then
      pgdir=$(cat "$dir/pgdir")
    else
      pgdir=$(mktemp -d /tmp/rongdian-pg.XXXXXX)
      chmod 755 "$pgdir"
      echo "$pgdir" >"$dir/pgdir"
    fi
    url=$("$here/pg-test-server.sh" start "$pgdir/server")
    echo "$url" >"$dir/url"
    echo "test PostgreSQL server: $url"
    ;;
  stop)
    rm -f "$dir/url"
    if [ -f "$dir/pgdir" ]; then
      pgdir=$(cat "$dir/pgdir")
      "$here/pg-test-server.sh" stop "$pgdir/server" || true
      rm -rf "$pgdir" "$dir/pgdir"
    fi
    ;;
  *) echo "usage: $0 start|stop DIR" >&2; exit 2 ;;
esac
