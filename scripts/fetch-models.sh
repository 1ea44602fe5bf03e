#!/usr/bin/env bash
# Fetches the pinned face model package from the npm registry into models/
# and checks every file against models.sha256. Data only: no code from the
# package is ever run by the system.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
pkg="@vladmandic/face-api"
ver="1.7.15"
dest="$root/models/face-api"
sums="$here/models.sha256"

if [ -f "$dest/.complete" ] && (cd "$dest" && sha256sum --quiet -c "$sums") 2>/dev/null; then
  exit 0
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "setup: fetching $pkg@$ver model data"
(cd "$tmp" && npm pack --silent "$pkg@$ver" >/dev/null)
tar -xzf "$tmp"/*.tgz -C "$tmp"
mkdir -p "$tmp/out"
cp -r "$tmp/package/model" "$tmp/out/model"
mkdir -p "$tmp/out/demo"
cp "$tmp/package/demo/"sample*.jpg "$tmp/out/demo/"
cp "$tmp/package/package.json" "$tmp/out/package.json"
if [ -s "$sums" ]; then
  (cd "$tmp/out" && sha256sum --quiet -c "$sums") || {
    echo "setup: $pkg@$ver does not match scripts/models.sha256; refusing it" >&2
    exit 1
  }
else
  (cd "$tmp/out" && find . -type f ! -name .complete | sort | xargs sha256sum) >"$sums"
  echo "setup: wrote a new checksum list to $sums"
fi
rm -rf "$dest"
mkdir -p "$(dirname "$dest")"
mv "$tmp/out" "$dest"
touch "$dest/.complete"
echo "setup: model data in $dest"
