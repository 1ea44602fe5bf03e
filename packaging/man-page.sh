#!/bin/sh
# A program's man page from its --help, compressed as Debian keeps them.
#   man-page.sh HELP2MAN PROGRAM NAME VERSION DESCRIPTION OUT.1.gz
set -eu
help2man=$1 program=$2 name=$3 version=$4 description=$5 out=$6
tmp="$out.tmp"
# --version-string: help2man then asks only for --help; in UTF-8, as the texts
# are partly Chinese. The page names the installed program, not the build
# tree's path.
"$help2man" --no-info --no-discard-stderr --section=1 --locale=C.UTF-8 \
  --version-string="$name $version" --name="$description" --output="$tmp" "$program"
sed -i "s|$(dirname "$program")/||g" "$tmp"
gzip -9n <"$tmp" >"$out"
rm -f "$tmp"
