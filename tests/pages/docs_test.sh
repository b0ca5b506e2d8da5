#!/usr/bin/env bash
# docs/ has what the programs have; and what makes a page untrue is found.
#
#   docs_test.sh KELM_PAGES DOCS
set -euo pipefail
pages=$1
docs=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$pages" check "$docs"

failed=0
# A change of a page | what is told.
while IFS='|' read -r file change complaint; do
    cp "$docs"/*.md "$work"
    sed -i "$change" "$work/$file"
    ! cmp -s "$docs/$file" "$work/$file" || { failed=1; echo "'$change' changes nothing"; }
    told=$("$pages" check "$work" 2>&1) && { failed=1; echo "'$change' passes"; }
    [[ "$told" = *"$complaint"* ]] || { failed=1; echo "'$change': $told"; }
done <<'ROWS'
configuration.md|s/below 1 counts as 1 /below 2 counts as 1 /|configuration.md: its generated parts
kelmctl.md|s/let the service open/let it open/|renew them: cmake
kelmctl-top.md|$a Try `--fast`.|no command has the option --fast
kelmctl.md|/generated: kelmctl stop/d|no page of docs/ has the part 'kelmctl stop'
kelmctl.md|s/generated: kelmctl stop/generated: kelmctl load/|twice
tracing.md|$a <!-- generated: keys no -->\n<!-- end -->|nothing is generated for 'keys no'
tracing.md|/<!-- end -->/d|has no <!-- end -->
ROWS
# Renewed, it is as it was.
cp "$docs"/*.md "$work"
sed -i '/^| `--/d' "$work"/*.md
"$pages" renew "$work"
for page in "$docs"/*.md; do diff "$page" "$work" || failed=1; done
exit $failed
