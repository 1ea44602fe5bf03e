#!/usr/bin/env bash
# Installs the Node reference used by the engine's agreement test and
# benchmark (test tooling only; nothing here is used at run time):
# @tensorflow/tfjs + @tensorflow/tfjs-backend-wasm + @vladmandic/face-api,
# pinned in tests/reference/package.json, into tests/reference/node_modules.
# Idempotent: returns at once when the installed set matches package.json.
# Several test processes may call it at the same time; a lock serialises them.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
dir=$(cd "$here/../tests/reference" && pwd)
stamp="$dir/node_modules/.rd-installed"
want=$(sha256sum "$dir/package.json" | cut -d' ' -f1)

command -v npm >/dev/null || { echo "setup-reference: npm is missing (scripts/setup.sh installs nodejs)" >&2; exit 1; }

exec 9>"$dir/.install.lock"
flock 9
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  exit 0
fi
echo "setup-reference: installing the Node face reference into $dir/node_modules"
(cd "$dir" && npm install --no-audit --no-fund --no-package-lock --loglevel=error >/dev/null)
node -e "require('$dir/node_modules/@tensorflow/tfjs-backend-wasm'); require('$dir/node_modules/@vladmandic/face-api/dist/face-api.node-wasm.js')" >/dev/null
echo "$want" >"$stamp"
echo "setup-reference: done"
