#!/usr/bin/env bash
# `cmake --install` into a temporary DESTDIR, then the installed tree on its
# own: the files are there, the desktop entry validates, the installed server
# starts with its installed models and answers, the installed rongdian-score
# scores that server's answer and the installed app tells its options and
# starts on it.
#   install-tree.sh BUILD_DIR SOURCE_DIR DETECT_KEY DETECT_SECRET
set -euo pipefail
build=$1
src=$2
key=$3
secret=$4
. "$(dirname "$0")/../support/installed-server.sh" "$build"

prefix=/opt/rongdian
DESTDIR="$work/dest" cmake --install "$build" --prefix "$prefix" >"$work/install.log" ||
  { cat "$work/install.log" >&2; fail "cmake --install failed"; }
p="$work/dest$prefix"

for f in bin/rongdian bin/rongdian-server bin/rongdian-score; do
  [ -x "$p/$f" ] || fail "$f is not installed (or not executable)"
done
for net in tiny_face_detector face_landmark_68 face_expression age_gender; do
  for f in "${net}_model-weights_manifest.json" "${net}_model.bin"; do
    cmp -s "$p/share/rongdian/models/$f" "$src/models/face-api/model/$f" ||
      fail "share/rongdian/models/$f is missing or differs from the model package"
  done
done
desktop="$p/share/applications/rongdian.desktop"
[ -f "$desktop" ] || fail "no desktop entry"
for line in 'Name=容点' 'Exec=rongdian' 'Icon=rongdian' 'Type=Application'; do
  grep -qx "$line" "$desktop" || fail "desktop entry lacks '$line'"
done
icon="$p/share/icons/hicolor/256x256/apps/rongdian.png"
[ "$(head -c 8 "$icon" 2>/dev/null | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] ||
  fail "no PNG icon at $icon"
if command -v desktop-file-validate >/dev/null; then
  out=$(desktop-file-validate "$desktop" 2>&1) || fail "desktop-file-validate: $out"
  [ -z "$out" ] || echo "desktop-file-validate: $out"
else
  echo "desktop-file-validate not available; skipped"
fi
# Nothing the app carries compiled in is installed a second time.
if [ -n "$(find "$p" -name '*.qml' -print -quit)" ]; then fail "QML files installed"; fi

# The installed server, run from elsewhere, on a free port.
mkdir -p "$work/run"
cd "$work/run"
start_server "$p/bin/rongdian-server" --listen 127.0.0.1:0 --data "$work/run/var" --development
grep -qF "face models from $p/share/rongdian/models" "$work/server.err" ||
  { cat "$work/server.err" >&2; fail "the installed server does not use its installed models"; }
[ "$(curl -fsS -m 10 "$url/healthz")" = '{"status":"ok"}' ] || fail "/healthz"

# Its detection answer for the bundled sample, scored by the installed tool.
curl -fsS -m 60 -o "$work/answer.json" \
  -F "img=@$src/app/ui/sample-face.jpg;type=image/jpeg" \
  "$url/v2/detection/detect?api_key=$key&api_secret=$secret&attribute=age,gender,smiling" ||
  fail "detection through the installed server"
"$p/bin/rongdian-score" --answer "$work/answer.json" >"$work/score.json" ||
  fail "installed rongdian-score --answer: $(cat "$work/score.json")"
grep -q '"allResultPoint":"[0-9]*"' "$work/score.json" || fail "score: $(cat "$work/score.json")"
echo "score: $(cat "$work/score.json")"

# The installed app tells its options without a display, then (screens and
# pictures compiled in, Qt's QML modules from the system) comes up on that
# server and its home screen takes input.
env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM timeout 10 "$p/bin/rongdian" --help \
  >"$work/help.out" 2>&1 && grep -q -- '--headless-result <PHOTO>' "$work/help.out" ||
  { cat "$work/help.out" >&2; fail "rongdian --help"; }
ready=$(env XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data" XDG_CACHE_HOME="$work/cache" \
  QT_QPA_PLATFORM=offscreen timeout 60 "$p/bin/rongdian" --quit-when-ready --server "$url" \
  2>"$work/app.err") || { cat "$work/app.err" >&2; fail "the installed app did not come up"; }
echo "$ready" | grep -q '"usableMs":' || { cat "$work/app.err" >&2; fail "app: $ready"; }
echo "app: $ready"

stop_server
echo "install tree: ok"
