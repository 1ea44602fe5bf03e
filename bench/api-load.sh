#!/usr/bin/env bash
# Load run of the app's commands against rongdian-server on SQLite, on
# PostgreSQL, and on two instances on one PostgreSQL behind nginx (the load
# split between them, as docs/deploy.md sets them up), beside nginx answering
# a static reply of the same size (the ceiling for this machine). Prints
# requests/s, p50 and p99 per command, the ratio to the static figure, the
# writes against SQLite's, and what bounds the writes.
#
# All set-ups run side by side, idle but for the one under load, and each
# command goes to them in turn, round after round: a machine whose speed
# drifts (a virtual machine's neighbours) slows each set-up alike, and the
# writes are compared round by round. A figure is the median of its rounds.
#   bench/api-load.sh [BUILD_DIR]
# Environment: BENCH_SECONDS (3, per round), BENCH_ROUNDS (3),
# BENCH_CONNECTIONS (64), BENCH_PG_THREADS (the
# server's --threads on PostgreSQL; default: none, the server's own sizing),
# BENCH_PG_OPTIONS (added to the PostgreSQL URL, e.g.
# "options=-csynchronous_commit%3Doff").
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${1:-$root/build}
server="$build/server/rongdian-server"
secs=${BENCH_SECONDS:-3}
rounds=${BENCH_ROUNDS:-3}
conns=${BENCH_CONNECTIONS:-64}
[ -x "$server" ] || { echo "api-load: build rongdian-server first ($server)" >&2; exit 1; }
command -v wrk >/dev/null || { echo "api-load: wrk is missing (scripts/setup.sh)" >&2; exit 1; }
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)

work=$(mktemp -d /tmp/rongdian-bench.XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -d "$work/pg" ] && "$root/scripts/pg-test-server.sh" stop "$work/pg" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

# Below the kernel's ephemeral ports, which the servers (listening on port 0)
# and every client connection take from.
free_port() {
  while :; do
    local p=$((20000 + RANDOM % 12000))
    ss -Hltn "sport = :$p" 2>/dev/null | grep -q . || { echo "$p"; return; }
  done
}

# start_server NAME DATABASE THREADS [DATA [FLAGS...]] -> sets $port
start_server() {
  local name=$1 db=$2 threads=$3 data=${4:-$work/$1}
  shift 4 || shift $#
  mkdir -p "$work/$name" "$data"
  # (the seed's scores are made up: taken as claimed)
  "$server" --listen 127.0.0.1:0 --data "$data" --quiet --database "$db" "$@" \
    ${threads:+--threads "$threads"} --auth-rate-address 0 --signup-rate 0 --vote-rate-item 0 \
    --trust-claimed-scores --development \
    --storage-access-key bench-ak --storage-secret-key bench-sk --storage-bucket bench \
    >"$work/$name/out" 2>"$work/$name/err" &
  pids+=($!)
  for _ in $(seq 100); do
    port=$(sed -n 's/.*listening on http:\/\/127.0.0.1:\([0-9]*\).*/\1/p' "$work/$name/out")
    [ -n "$port" ] && return 0
    sleep 0.1
  done
  echo "api-load: $name server did not start:" >&2
  cat "$work/$name/err" >&2
  exit 1
}

# start_proxy PORT INSTANCE_PORT... -> nginx with docs/deploy/nginx.conf
# listening on PORT over those instances; sets $port to PORT
start_proxy() {
  local up="" p
  port=$1
  shift
  for p in "$@"; do up+="    server 127.0.0.1:$p;\n"; done
  mkdir -p "$work/proxy"
  sed -e "/server 127.0.0.1:808[1-9];/d" -e "s|upstream rongdian {|upstream rongdian {\n$up|" \
    -e "s|listen 127.0.0.1:8080;|listen 127.0.0.1:$port;|" -e "s|worker_processes auto;|worker_processes 1;|" \
    "$root/docs/deploy/nginx.conf" >"$work/proxy/nginx.conf"
  local user=""
  [ "$(id -u)" = 0 ] && user="user root;"
  "$nginx_bin" -p "$work/proxy" -c "$work/proxy/nginx.conf" \
    -g "daemon off; pid $work/proxy/nginx.pid; error_log $work/proxy/error.log; $user" &
  pids+=($!)
  for _ in $(seq 50); do
    curl -sf -o /dev/null "http://127.0.0.1:$port/healthz" && return 0
    sleep 0.1
  done
  echo "api-load: the proxy did not start: $(cat "$work/proxy/error.log")" >&2
  exit 1
}

# Requests an instance answered so far (/metrics).
served() {
  curl -s "http://127.0.0.1:$1/metrics" |
    awk '/^rongdian_requests_total\{route="api:/ {n += $2} END {print n + 0}'
}

api() {  # api PORT CMD BODY
  curl -s -X POST "http://127.0.0.1:$1/api?cmd=$2" -H 'Content-Type: application/json' -d "$3"
}

# An upload token of the bench's storage account, made as the app makes it.
b64url() { openssl base64 -A | tr '+/' '-_'; }
upload_token() {
  local policy sig
  policy=$(printf '{"scope":"bench","deadline":%d}' $(($(date +%s) + 3600)) | b64url)
  sig=$(printf '%s' "$policy" | openssl dgst -sha1 -hmac bench-sk -binary | b64url)
  echo "bench-ak:$sig:$policy"
}

# seed PORT: a user and 30 items, each on a photo of its own, and 8 voters;
# sets $uid, $item (the last one), $items and $voters (comma-separated ids)
seed() {
  local p=$1 token
  uid=$(api "$p" rd_register_user '{"mobile":"13800000000","password":"bench","nickname":"压测"}' |
    sed -n 's/.*"id":"\([0-9a-f]*\)".*/\1/p')
  [ -n "$uid" ] || { echo "api-load: could not register the bench user" >&2; exit 1; }
  token=$(upload_token)
  items=
  for i in $(seq 30); do
    # The server takes a picture's bytes once: each item gets the sample with a
    # comment segment of its own after the JPEG's start marker.
    { printf '\xff\xd8\xff\xfe\x00\x09bench%02d' "$i"; tail -c +3 "$root/app/ui/sample-face.jpg"; } \
      >"$work/bench$i.jpeg"
    curl -s -o /dev/null -F "key=bench$i.jpeg" -F "token=$token" \
      -F "file=@$work/bench$i.jpeg" "http://127.0.0.1:$p/upload"
    item=$(api "$p" rd_add_item "{\"user_id\":\"$uid\",\"base_image_url\":\"http://127.0.0.1:$p/files/bench$i.jpeg?attname=\",\"num_look_score\":$((i * 137)),\"description\":\"压测照片$i\",\"is_enabled_photo\":true}" |
      sed -n 's/.*"item":{"id":\([0-9]*\).*/\1/p')
    items+=${items:+,}$item
  done
  [ -n "$item" ] || { echo "api-load: could not publish the bench items" >&2; exit 1; }
  voters=
  for i in $(seq 8); do
    voters+=${voters:+,}$(api "$p" rd_register_user "{\"mobile\":\"1380000010$i\",\"password\":\"bench\",\"nickname\":\"投票$i\"}" |
      sed -n 's/.*"id":"\([0-9a-f]*\)".*/\1/p')
  done
}

# The seconds the server's writes spent in the store so far (/metrics).
write_seconds() {
  curl -s "http://127.0.0.1:$1/metrics" | awk '$1 == "rongdian_store_write_seconds_total" {print $2} END {print 0}' | head -1
}

# run URL BODY [SCRIPT] -> sets $rps $p50 $p99 $bad $requests
run() {
  local out
  out=$(RD_BODY="$2" RD_USERS="${voters:-}" RD_ITEMS="${items:-}" \
    wrk -t2 -c"$conns" -d"${secs}s" --latency -s "$here/${3:-api-post.lua}" "$1" 2>&1)
  requests=$(awk '/requests in/ {print $1}' <<<"$out")
  rps=$(awk '/^Requests\/sec/ {print $2}' <<<"$out")
  p50=$(awk '$1 == "50%" {print $2}' <<<"$out")
  p99=$(awk '$1 == "99%" {print $2}' <<<"$out")
  bad=$(awk '/Non-2xx/ {print $NF}' <<<"$out")
  bad=${bad:-0}
}

to_ms() {  # wrk latency text (850.00us, 1.20ms, 1.01s) -> milliseconds
  awk -v v="$1" 'BEGIN { n = v + 0; if (v ~ /us$/) n /= 1000; else if (v ~ /[0-9]s$/ && v !~ /ms$/) n *= 1000; printf "%.2f", n }'
}

cmds=(list get like comment)
declare -A cmd_name=([list]=rd_list_items [get]=rd_get_item [like]=rd_like_item [comment]=rd_add_comments)
body_for() {
  case $1 in
    list) echo '{"cmd":"rd_list_items","limit":10,"page":1}' ;;
    get) echo '{"cmd":"rd_get_item"}' ;;
    like) echo "{\"cmd\":\"rd_like_item\",\"item_id\":\"$item\",\"user_id\":\"${voters%%,*}\",\"is_liked\":true}" ;;
    comment) echo "{\"cmd\":\"rd_add_comments\",\"item_id\":\"$item\",\"user_id\":\"$uid\",\"comments\":\"好看好看\"}" ;;
  esac
}

# The set-ups: SQLite; PostgreSQL; two instances on another PostgreSQL
# database behind the proxy.
engines=(sqlite)
declare -A dburl=([sqlite]="sqlite:$work/sqlite.db")
declare -A threads=([sqlite]="" [postgresql]=${BENCH_PG_THREADS:-} [postgresql-x2]=${BENCH_PG_THREADS:-})
if pg=$("$root/scripts/pg-test-server.sh" start "$work/pg" 2>"$work/pg.err") &&
  PGPASSWORD=rongdian "$(ls -d /usr/lib/postgresql/*/bin | sort -V | tail -1)/createdb" -h 127.0.0.1 -p "$(cat "$work/pg/port")" -U rongdian rongdian2 2>>"$work/pg.err"; then
  engines+=(postgresql postgresql-x2)
  opts=${BENCH_PG_OPTIONS:+?$BENCH_PG_OPTIONS}
  dburl[postgresql]=$pg$opts
  dburl[postgresql-x2]=${pg%/*}/rongdian2$opts
else
  echo "api-load: no PostgreSQL (skipping it): $(tail -1 "$work/pg.err")" >&2
fi

declare -A size rps_of p50_of p99_of bad_of writes_of workers_of split_of load_port instances_of
declare -A round_rps round_p50 round_p99 seeded
# Each set-up started and seeded (the same ids on each: a fresh database).
for e in "${engines[@]}"; do
  instances=()
  if [ "$e" = postgresql-x2 ]; then
    # Photos through the proxy's address, in one folder of both.
    proxy_port=$(free_port)
    for n in 1 2; do
      start_server "$e$n" "${dburl[$e]}" "${threads[$e]}" "$work/$e-data" \
        --public-url "http://127.0.0.1:$proxy_port"
      instances+=("$port")
    done
    start_proxy "$proxy_port" "${instances[@]}"
  else
    start_server "${e}1" "${dburl[$e]}" "${threads[$e]}"
    instances+=("$port")
  fi
  workers_of[$e]=$(sed -n 's/.*: \([0-9]*\) worker threads (\(.*\))/\1 workers: \2/p' "$work/${e}1/err")
  workers_of[$e]=${workers_of[$e]:-"--threads ${threads[$e]}"}
  load_port[$e]=$port
  instances_of[$e]=${instances[*]}
  seed "$port"
  seeded[$e]="$uid $item $items $voters"
  for c in "${cmds[@]}"; do
    writes_of[$e.$c]="0 0"
    split_of[$e.$c]=
    bad_of[$e.$c]=0
  done
done

median() { tr ' ' '\n' | grep . | sort -g | awk '{v[NR] = $1} END { print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }

for c in "${cmds[@]}"; do
  for e in "${engines[@]}"; do
    read -r uid item items voters <<<"${seeded[$e]}"
    reply=$(api "${load_port[$e]}" "${cmd_name[$c]}" "$(body_for "$c")")
    [ "$e" = sqlite ] && size[$c]=$(printf '%s' "$reply" | wc -c)
  done
  for r in $(seq "$rounds"); do
    for e in "${engines[@]}"; do
      read -r -a instances <<<"${instances_of[$e]}"
      read -r uid item items voters <<<"${seeded[$e]}"
      before=0 served_before=()
      for p in "${instances[@]}"; do
        before=$(awk -v a="$before" -v b="$(write_seconds "$p")" 'BEGIN {print a + b}')
        served_before+=("$(served "$p")")
      done
      # Likes: each one a vote that changes something (bench/api-vote.lua).
      run "http://127.0.0.1:${load_port[$e]}/api?cmd=${cmd_name[$c]}" "$(body_for "$c")" \
        "$([ "$c" = like ] && echo api-vote.lua || echo api-post.lua)"
      round_rps[$e.$c]+=" $rps" round_p50[$e.$c]+=" $(to_ms "$p50")" round_p99[$e.$c]+=" $(to_ms "$p99")"
      bad_of[$e.$c]=$((bad_of[$e.$c] + bad))
      after=0 split=
      for i in "${!instances[@]}"; do
        after=$(awk -v a="$after" -v b="$(write_seconds "${instances[$i]}")" 'BEGIN {print a + b}')
        split+=${split:+/}$(($(served "${instances[$i]}") - ${served_before[$i]}))
      done
      read -r n held <<<"${writes_of[$e.$c]}"
      writes_of[$e.$c]="$((n + requests)) $(awk -v h="$held" -v a="$before" -v b="$after" 'BEGIN {print h + b - a}')"
      split_of[$e.$c]+=${split_of[$e.$c]:+, }$split
    done
  done
  for e in "${engines[@]}"; do
    rps_of[$e.$c]=$(median <<<"${round_rps[$e.$c]}")
    p50_of[$e.$c]=$(median <<<"${round_p50[$e.$c]}")
    p99_of[$e.$c]=$(median <<<"${round_p99[$e.$c]}")
  done
done
for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
wait 2>/dev/null || true
pids=()

# nginx answering a fixed body of each reply's size.
nport=$(free_port)
mkdir -p "$work/nginx/logs"
{
  echo "worker_processes auto; daemon off; pid $work/nginx/nginx.pid; error_log $work/nginx/error.log;"
  [ "$(id -u)" = 0 ] && echo "user root;"
  echo "events { worker_connections 1024; }"
  echo "http { access_log off; client_body_temp_path $work/nginx/body; proxy_temp_path $work/nginx/proxy;"
  echo "  fastcgi_temp_path $work/nginx/fcgi; uwsgi_temp_path $work/nginx/uwsgi; scgi_temp_path $work/nginx/scgi;"
  echo "  server { listen 127.0.0.1:$nport; default_type application/json;"
  for c in "${cmds[@]}"; do
    n=${size[$c]}
    pad=$(head -c $((n > 12 ? n - 12 : 1)) /dev/zero | tr '\0' 'x')
    echo "    location = /static/$c { return 200 '{\"static\":\"$pad\"}'; }"
  done
  echo "  }"
  echo "}"
} >"$work/nginx/nginx.conf"
"$nginx_bin" -p "$work/nginx" -c "$work/nginx/nginx.conf" &
pids+=($!)
for _ in $(seq 50); do
  curl -s -o /dev/null -X POST "http://127.0.0.1:$nport/static/list" && break
  sleep 0.1
done
declare -A static_rps
for c in "${cmds[@]}"; do
  run "http://127.0.0.1:$nport/static/$c" "$(body_for "$c")"
  static_rps[$c]=$rps
done

echo
echo "rongdian-server api load: $rounds rounds of ${secs}s per set-up and command (the median shown), $conns connections, $(nproc) cores (wrk shares them)"
printf '%-13s %-16s %7s %11s %9s %9s %12s %7s\n' engine command bytes "requests/s" "p50 ms" "p99 ms" "static rq/s" ratio
for e in "${engines[@]}"; do
  for c in "${cmds[@]}"; do
    r=${rps_of[$e.$c]:-0}
    s=${static_rps[$c]:-0}
    ratio=$(awk -v a="$r" -v b="$s" 'BEGIN { if (b > 0) printf "%.0f%%", 100 * a / b; else print "-" }')
    printf '%-13s %-16s %7s %11s %9s %9s %12s %7s' "$e" "${cmd_name[$c]}" "${size[$c]}" "$r" \
      "${p50_of[$e.$c]}" "${p99_of[$e.$c]}" "$s" "$ratio"
    [ "${bad_of[$e.$c]}" != 0 ] && printf '  (%s error replies)' "${bad_of[$e.$c]}"
    [ "$e" = postgresql-x2 ] && printf '  (served %s)' "${split_of[$e.$c]}"
    echo
  done
done
echo "goal: rd_list_items at least 40% of the static figure, p99 under 10 ms; on PostgreSQL"
echo "      at least 16,784 requests/s (twice 8,392, the figure with --threads 8 before its"
echo "      replies were kept), with no flag"
for e in "${engines[@]}"; do echo "$e: ${workers_of[$e]}"; done

# The writes on PostgreSQL against SQLite's of the same round: the median
# of the rounds' ratios, and their range.
echo
echo "writes against SQLite, round by round (load: $(uptime | sed 's/.*load average: //'))"
printf '%-16s %-14s %11s %8s %7s  %s\n' command set-up "requests/s" "p99 ms" ratio "(rounds)"
for c in like comment; do
  for e in "${engines[@]}"; do
    ratios=$(awk -v a="${round_rps[$e.$c]:-}" -v b="${round_rps[sqlite.$c]:-}" 'BEGIN {
      n = split(a, x, " "); split(b, y, " ")
      for (i = 1; i <= n; i++) printf "%s%.2f", (i > 1 ? " " : ""), (y[i] > 0 ? x[i] / y[i] : 0) }')
    ratio=$(median <<<"${ratios:-0}")
    range=$(tr ' ' '\n' <<<"${ratios:-0}" | sort -g | sed -n '1p;$p' | paste -sd- -)
    awk -v c="${cmd_name[$c]}" -v e="$e" -v r="${rps_of[$e.$c]:-0}" -v q="$ratio" -v g="$range" \
      -v p="${p99_of[$e.$c]}" 'BEGIN { printf "%-16s %-14s %11.0f %8s %6.2fx  (%s)\n", c, e, r, p, q, g }'
  done
done
echo "goal: PostgreSQL at least 1.00x, p99 under 50 ms"

# What bounds the writes: the time each one spends in the store. SQLite takes
# one writer at a time (WAL, synchronous=NORMAL: no flush to disk per commit),
# so the write lock allows 1/(time held) writes a second at most; on
# PostgreSQL the likes and comments that come in together go as one batch,
# one statement and one commit for all (a write's time is its batch's), so
# the requests in flight per batch time bound them.
echo
echo "writes: time in the store per write, and how busy that kept the one SQLite write lock"
for e in "${engines[@]}"; do
  for c in like comment; do
    read -r n held <<<"${writes_of[$e.$c]}"
    awk -v e="$e" -v c="${cmd_name[$c]}" -v n="${n:-0}" -v held="${held:-0}" -v secs="$((secs * rounds))" 'BEGIN {
      if (n <= 0 || held <= 0) { printf "%-11s %-16s (no figures)\n", e, c; exit }
      per = held / n * 1e6
      if (e == "sqlite")
        printf "%-11s %-16s %7.1f us held per write, lock busy %3.0f%% of the run: ceiling %.0f writes/s\n", e, c, per, 100 * held / secs, 1e6 / per
      else
        printf "%-11s %-16s %7.1f us per write, its batch on its way to the database and its disk\n", e, c, per
    }'
  done
done
