#!/usr/bin/zsh -f
# complete.zsh FOLDER: reads command lines from standard input, the cursor at their ends, and prints for
# each what zsh would offer there, one offer a line, and an empty line. FOLDER holds the completion.
#
# The completion system works in an interactive shell only, so there is one on a terminal of its own. Its
# compadd, through which every offer goes, prints them instead.
zmodload zsh/zpty
typeset folder=$1:a

interactive() {
    PROMPT=
    stty -echo -onlcr
    fpath=($folder $fpath)
    autoload -Uz compinit
    compinit -u -D
    zstyle ':completion:*' completer _complete
    unsetopt listbeep
    compadd() {
        # With -O, -A or -D the matches are asked for, not offered.
        if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
            builtin compadd "$@"
            return $?
        fi
        typeset -a offers
        builtin compadd -A offers "$@"
        (( $#offers == 0 )) || print -lr -- "OFFER "$^offers
        # Something must be added, or the next completer is tried.
        (( $#offers > 0 ))
    }
    offer() {
        compprefuncs=()
        _main_complete
        print -r -- DONE
        compstate[insert]=
        compstate[list]=
    }
    zle -C offer complete-word offer
    bindkey '^I' offer
    bindkey '^U' kill-whole-line
    print -r -- DONE
}

zpty shell zsh -f -i
zpty -w shell "folder=${(q)folder}; $(functions interactive); interactive"

# Prints the offers up to the mark that they are complete.
take_offers() {
    local line
    while zpty -r shell line; do
        line=${${line%%[[:space:]]#}//$'\r'/}
        [[ $line != *DONE ]] || return 0
        [[ $line != *OFFER\ * ]] || print -r -- ${line##*OFFER }
    done
    return 1
}
setopt extendedglob
take_offers >/dev/null || exit 1
while IFS= read -r line; do
    zpty -w -n shell $'\C-U'"$line"$'\t'
    take_offers | sort -u || exit 1
    print
done
zpty -d shell
