#!/usr/bin/env bash
# Every page of the manual formats without a warning, and has a name that an index finds.
#
#   man_test.sh SHARE
set -euo pipefail
cd "$1/man"
failed=0
pages=0
for page in man*/*; do
    pages=$((pages + 1))
    warnings=$(groff -ww -man -Tutf8 -Z "$page" 2>&1 >/dev/null)
    # In words as people have them on a narrow terminal.
    warnings+=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" \
        2>&1 >/dev/null)
    name=$(basename "$page" ".${page: -1}")
    [ -z "$warnings" ] || { failed=1; echo "$page: $warnings"; }
    [[ $(lexgrog "$page") = "$page: \"$name - "* ]] || { failed=1; echo "$page has no name"; }
done
[ $pages -gt 12 ] || { echo "only $pages pages in $PWD"; exit 1; }
exit $failed
