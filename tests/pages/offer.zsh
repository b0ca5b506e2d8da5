# What zsh offers at the end of a line, a word a line: offer.zsh SHARE LINE. It completes on a
# terminal only, so a second one is typed into, and notes what it is offered in the file "offered".
zmodload zsh/zpty
rm -f offered
cat >inner.zsh <<'INNER'
fpath=($SHARE/zsh/vendor-completions $fpath)
autoload -Uz compinit
compinit -u -D
# Calls that only sort matches into arrays offer nothing yet.
compadd() {
    local -a hits
    if [[ ${@[1,(i)(-|--)]} != *-(O|A|D)\ * ]]; then
        builtin compadd -A hits "$@"
        print -rl -- $hits >>offered
    fi
    builtin compadd "$@"
}
complete() { zle complete-word; print -n 'DO''NE' }
zle -C complete-word complete-word _main_complete
zle -N complete
bindkey '\t' complete
setopt no_list_beep no_auto_list
print -n 'TY''PE'
INNER
export SHARE=$1
zpty terminal zsh -f -i
zpty -w terminal 'source ./inner.zsh'
zpty -r terminal said '*TYPE*' || exit 1
zpty -w -n terminal "$2"$'\t'
zpty -r terminal said '*DONE*' || exit 1
zpty -d terminal
[[ ! -e offered ]] || cat offered
