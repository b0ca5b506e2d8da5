#!/usr/bin/env bash
# What a shell offers at the end of a line, by the completion that the build has made.
#
#   completion_test.sh bash|zsh SHARE
set -euo pipefail
shell=$1
share=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir folder
touch net.graph 'in put.bin'

# A word a line. Bash splits at "=".
offer() { # line
    if [ "$shell" = zsh ]; then
        timeout 60 zsh -f "$here/offer.zsh" "$share" "$1"
        return
    fi
    SHARE=$share LINE=$1 bash --norc -c '
        . "$SHARE/bash-completion/completions/${LINE%% *}"
        read -ra COMP_WORDS <<<"${LINE//=/ = }"
        [[ "$LINE" != *" " ]] || COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        "_${LINE%% *}"
        printf "%s\n" "${COMPREPLY[@]}"'
}

failed=0
# The line | words that are offered | words that are not.
while IFS='|' read -r line offered missing; do
    words=$(offer "$line" | tr -d "\\\\" | tr " " _)
    for word in $offered; do
        grep -qxF -- "$word" <<<"$words" || { failed=1; echo "'$line' does not offer $word"; }
    done
    for word in $missing; do
        ! grep -qxF -- "$word" <<<"$words" || { failed=1; echo "'$line' offers $word"; }
    done
done <<'ROWS'
kelmctl |infer wait-ready version|check net.graph
kelmctl w|wait-ready|infer
kelmctl --|--version --help|--graph
kelmctl infer --p|--pad|--input
kelmctl infer --input |net.graph in_put.bin folder|infer --pad
kelmctl infer --input=n|net.graph|in_put.bin
kelmctl infer --tag ||net.graph load
kelmctl infer --tag load --o|--output|--hold
kelmctl load --wait |net.graph folder|--hold status
kelmctl config |check show|status
kelmctl config check --|--config-file|--origin
kelmctl config show --|--config-file --origin|--graph
kelmctl config check |net.graph|show
kelmctl trace -o |net.graph folder|--threads
kelmctl status --watch --|--json|--graph
kelmctl stop ||net.graph
kelm-gateway --|--models --tls-cert --help|--graph
kelm-gateway --models |net.graph folder|--rest
kelm-gateway --threads 1 --r|--rest|--models
kelm-gateway --grpc ||net.graph
ROWS
exit $failed
