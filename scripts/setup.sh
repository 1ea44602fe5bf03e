#!/usr/bin/env bash
# Installs what the build, the run and the tests need, and fetches the face
# model package. Idempotent: a second run only checks and returns quickly.
#   scripts/setup.sh            packages + model data
#   scripts/setup.sh --run      what the build and `make run` need + model data
#   scripts/setup.sh --models   model data only
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# install_packages [run]: all the listed packages, or with "run" those above
# the "[tests]" line.
install_packages() {
  local all=() want=() have p
  while read -r p; do
    [ -z "$p" ] && continue
    case "$p" in \#*) continue ;; esac
    if [ "$p" = "[tests]" ]; then
      [ "${1:-}" = run ] && break
      continue
    fi
    all+=("$p")
  done <"$here/packages.txt"
  # One dpkg query for the whole list (a second run is back in a blink).
  have=" $(dpkg-query -W -f='${Package}:${db:Status-Abbrev} ' "${all[@]}" 2>/dev/null |
    tr ' ' '\n' | sed -n 's/:ii$//p' | tr '\n' ' ' || true) "
  for p in "${all[@]}"; do
    case "$have" in *" $p "*) ;; *) want+=("$p") ;; esac
  done
  if [ ${#want[@]} -gt 0 ]; then
    echo "setup: installing ${#want[@]} Debian packages: ${want[*]}"
    as_root apt-get update -q
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${want[@]}"
  fi
}

case "${1:-}" in
  --models) ;;
  --run) install_packages run ;;
  *) install_packages ;;
esac
"$here/fetch-models.sh"
