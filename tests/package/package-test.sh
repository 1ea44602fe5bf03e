#!/usr/bin/env bash
# The Debian packages as `make package` makes them: their dependencies and
# contents, lintian, the man pages and the service unit; then both unpacked
# into a throwaway root, where the installed rongdian-server refuses the
# development keys, starts as a development install, scores the sample photo
# for the installed rongdian-score and stops cleanly on SIGTERM.
#   package-test.sh BUILD_DIR SOURCE_DIR QT_QML_DIR
set -euo pipefail
build=$1
src=$2
qml=$3
. "$(dirname "$0")/../support/installed-server.sh" "$build"

cpack --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack"; }
app_deb=$(echo "$work"/out/rongdian_*.deb)
server_deb=$(echo "$work"/out/rongdian-server_*.deb)
[ -f "$app_deb" ] && [ -f "$server_deb" ] || { ls "$work/out" >&2; fail "not the two packages"; }

# Dependencies: computed library packages, and for the app the package of
# every QML module its screens import.
depends() { dpkg-deb --field "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//'; }
needs() {  # needs DEB PACKAGE...
  local deb=$1 p
  shift
  for p in "$@"; do
    depends "$deb" | grep -qx "$p" || fail "$(basename "$deb") does not depend on $p: $(depends "$deb" | tr '\n' ' ')"
  done
}
needs "$app_deb" libc6 libqt6core6 libqt6gui6 libqt6qml6 libqt6quick6 libqt6network6
for module in $(grep -rhoE '^import [A-Za-z][A-Za-z0-9_.]*' --include='*.qml' "$src/app" | awk '{print $2}' | sort -u); do
  [ "$module" = Rongdian ] && continue  # the app's own, compiled in
  owner=$(dpkg-query --search "$qml/${module//.//}/qmldir" | cut -d: -f1)
  needs "$app_deb" "$owner"
done
needs "$server_deb" libc6 libsqlite3-0 libpq5 libsodium23 libssl3 adduser
depends "$server_deb" | grep -q '^libopencv-dnn' || fail "rongdian-server does not depend on OpenCV DNN"
! depends "$server_deb" | grep -q '^libqt6gui\|^libqt6quick\|^qml6' || fail "the server depends on the app's Qt"

# Contents.
contents() { dpkg-deb --contents "$1" | awk '{print $6}' | sed 's|^\./|/|; s|/$||'; }
has() {  # has DEB PATH...
  local deb=$1 f
  shift
  for f in "$@"; do
    contents "$deb" | grep -qx "$f" || fail "$(basename "$deb") lacks $f"
  done
}
has "$app_deb" /usr/bin/rongdian /usr/bin/rongdian-score /usr/share/applications/rongdian.desktop \
  /usr/share/icons/hicolor/256x256/apps/rongdian.png /usr/share/man/man1/rongdian.1.gz \
  /usr/share/man/man1/rongdian-score.1.gz /usr/share/doc/rongdian/copyright
has "$server_deb" /usr/bin/rongdian-server /usr/share/man/man1/rongdian-server.1.gz \
  /usr/lib/systemd/system/rongdian-server.service /etc/default/rongdian-server /var/lib/rongdian \
  /usr/share/doc/rongdian-server/copyright
for net in tiny_face_detector face_landmark_68 face_expression age_gender; do
  has "$server_deb" "/usr/share/rongdian/models/${net}_model.bin" \
    "/usr/share/rongdian/models/${net}_model-weights_manifest.json"
done
! contents "$app_deb" | grep -q 'rongdian-server\|/models/' || fail "the app package holds server files"
! contents "$server_deb" | grep -qx '/usr/bin/rongdian\|/usr/bin/rongdian-score' ||
  fail "the server package holds the app"
dpkg-deb --info "$server_deb" conffiles | grep -qx /etc/default/rongdian-server ||
  fail "/etc/default/rongdian-server is not a conffile"

# Lintian: no errors (warnings are printed). Tags that follow from packages
# made from a build tree rather than a Debian source package are left out.
if command -v lintian >/dev/null; then
  lintian --fail-on error --suppress-tags no-changelog,initial-upload-closes-no-bugs \
    "$app_deb" "$server_deb" >"$work/lintian.out" 2>&1 ||
    { cat "$work/lintian.out" >&2; fail "lintian"; }
  cat "$work/lintian.out"
else
  echo "lintian not available; skipped"
fi

root="$work/root"
dpkg-deb --extract "$app_deb" "$root"
dpkg-deb --extract "$server_deb" "$root"

# The man pages are the programs' --help.
for prog in rongdian rongdian-score rongdian-server; do
  page="$root/usr/share/man/man1/$prog.1.gz"
  out=$(zcat "$page" | LC_ALL=C.UTF-8 MANWIDTH=100 man --warnings -l - 2>&1 >"$work/$prog.txt") ||
    fail "man $prog: $out"
  [ -z "$out" ] || fail "man $prog warns: $out"
done
grep -q -- '--development' "$work/rongdian-server.txt" || fail "rongdian-server.1 lacks --development"
grep -q 'RONGDIAN_DETECT_KEY' "$work/rongdian-server.txt" || fail "rongdian-server.1 lacks its variables"
grep -q -- '--headless-result' "$work/rongdian.txt" || fail "rongdian.1 lacks --headless-result"
grep -q -- '--answer' "$work/rongdian-score.txt" || fail "rongdian-score.1 lacks --answer"

# The unit, against the unpacked tree.
unit="$root/usr/lib/systemd/system/rongdian-server.service"
if command -v systemd-analyze >/dev/null; then
  sed "s|/usr/bin/rongdian-server|$root/usr/bin/rongdian-server|; s|^EnvironmentFile=/|EnvironmentFile=$root/|" \
    "$unit" >"$work/rongdian-server.service"
  out=$(SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$work/rongdian-server.service" 2>&1) ||
    fail "systemd-analyze verify: $out"
  ! echo "$out" | grep -q 'rongdian-server.service' || fail "systemd-analyze verify: $out"
else
  echo "systemd-analyze not available; skipped"
fi
for setting in 'User=rongdian' 'NoNewPrivileges=yes' 'ProtectSystem=strict' 'PrivateTmp=yes' \
  'StateDirectory=rongdian' 'Environment=RONGDIAN_DATA=/var/lib/rongdian'; do
  grep -qx "$setting" "$unit" || fail "the unit lacks $setting"
done

# The installed server with the packaged settings, as the unit starts it: on
# the development keys it refuses to start until told it is a development install.
server="$root/usr/bin/rongdian-server"
settings=$(grep -v '^#' "$root/etc/default/rongdian-server" | grep .)
status=0
env -i PATH=/usr/bin:/bin $settings RONGDIAN_LISTEN=127.0.0.1:0 RONGDIAN_DATA="$work/data" \
  "$server" >"$work/server.out" 2>"$work/server.err" || status=$?
[ "$status" = 2 ] || { cat "$work/server.err" >&2; fail "the server started on the development keys (status $status)"; }
grep -q 'RONGDIAN_DETECT_KEY.*local-development default' "$work/server.err" ||
  { cat "$work/server.err" >&2; fail "the refusal does not say why"; }

start_server env -i PATH=/usr/bin:/bin $settings RONGDIAN_LISTEN=127.0.0.1:0 RONGDIAN_DATA="$work/data" \
  RONGDIAN_DEVELOPMENT=1 "$server"
grep -qF "face models from $root/usr/share/rongdian/models" "$work/server.err" ||
  { cat "$work/server.err" >&2; fail "the installed server does not use its packaged models"; }

# The installed rongdian-score: the sample photo through the app's flow and
# the installed server's detection.
"$root/usr/bin/rongdian-score" "$src/app/ui/sample-face.jpg" --server "$url" >"$work/score.json" 2>"$work/score.err" ||
  { cat "$work/score.err" >&2; fail "installed rongdian-score against the installed server"; }
grep -q '"allResultPoint":"[0-9]*"' "$work/score.json" || fail "score: $(cat "$work/score.json")"
echo "score: $(cat "$work/score.json")"

stop_server
echo "packages: ok ($(basename "$app_deb"), $(basename "$server_deb"))"
