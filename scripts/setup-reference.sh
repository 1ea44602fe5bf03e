#!/usr/bin/env bash
# Installs the Node tooling of a test folder (test tooling only; nothing here
# is used at run time), pinned in its package.json, into its node_modules:
#   tests/reference (default): @tensorflow/tfjs + @tensorflow/tfjs-backend-wasm
#     + @vladmandic/face-api, the reference of the engine's agreement test and
#     benchmark;
#   tests/storage-sdk: the cloud storage's Node SDK (qiniu), the client of the
#     storage's upload tests.
# Idempotent: returns at once when the installed set matches package.json.
# Several test processes may call it at the same time; a lock serialises them.
#   scripts/setup-reference.sh [tests/FOLDER]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
dir=$(cd "$here/../${1:-tests/reference}" && pwd)
stamp="$dir/node_modules/.rd-installed"
want=$(sha256sum "$dir/package.json" | cut -d' ' -f1)

command -v npm >/dev/null || { echo "setup-reference: npm is missing (scripts/setup.sh installs nodejs)" >&2; exit 1; }

exec 9>"$dir/.install.lock"
flock 9
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  exit 0
fi
echo "setup-reference: installing the Node tooling of $dir"
(cd "$dir" && npm install --no-audit --no-fund --no-package-lock --loglevel=error >/dev/null)
# Every pinned package loads.
(cd "$dir" && node -e "for (const d of Object.keys(require('./package.json').dependencies)) require.resolve(d)") >/dev/null
echo "$want" >"$stamp"
echo "setup-reference: done"
