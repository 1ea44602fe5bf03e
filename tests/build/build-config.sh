#!/usr/bin/env bash
# The build itself: a second build with nothing changed does nothing, and the
# addresses derived from RD_SERVER_URL follow it when it changes on an
# existing configuration (the ones set by hand stay).
#   build-config.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
fail() { echo "FAIL: $*" >&2; exit 1; }

# Nothing to do after the build that ran these tests.
out=$(cmake --build "$build" 2>&1)
echo "$out" | grep -q "no work to do" || fail "a build with nothing changed would run: $(echo "$out" | head -20)"

work=$(mktemp -d "$build/build-config.XXXXXX")
trap 'rm -rf "$work"' EXIT
header="$work/generated/BuildConfig.h"
configure() { cmake -S "$src" -B "$work" -G Ninja -DBUILD_TESTING=OFF -DRD_BUILD_APP=OFF "$@" >"$work.log" 2>&1 ||
  { cat "$work.log" >&2; fail "configure failed"; }; }
value() { sed -n "s/.*$1 = \"\\(.*\\)\";/\\1/p" "$header"; }

configure
[ "$(value kBackendEndpoint)" = "http://127.0.0.1:8080/api" ] || fail "default endpoint: $(value kBackendEndpoint)"
[ "$(value kPushUrl)" = "ws://127.0.0.1:8080/push" ] || fail "default push: $(value kPushUrl)"

configure -DRD_SERVER_URL=https://rd.example.com -DRD_FACEPP_REGION1_URL=https://faces.example.com/v2/
for pair in kBackendEndpoint=https://rd.example.com/api kPushUrl=wss://rd.example.com/push \
  kStorageUploadUrl=https://rd.example.com/upload kStorageDownloadPrefix=https://rd.example.com/files/ \
  kFaceppRegion0Url=https://rd.example.com/v2/ kFaceppRegion1Url=https://faces.example.com/v2/; do
  [ "$(value "${pair%%=*}")" = "${pair#*=}" ] || fail "${pair%%=*} is $(value "${pair%%=*}"), expected ${pair#*=}"
done

# Back to following: the one set by hand is cleared.
configure -DRD_SERVER_URL=http://rd-test.invalid:9000 -DRD_FACEPP_REGION1_URL=
[ "$(value kFaceppRegion1Url)" = "http://rd-test.invalid:9000/v2/" ] || fail "region 1 did not follow: $(value kFaceppRegion1Url)"
[ "$(value kPushUrl)" = "ws://rd-test.invalid:9000/push" ] || fail "push did not follow: $(value kPushUrl)"
rm -f "$work.log"
echo "build configuration: ok"
