#!/usr/bin/env bash
# complete.bash FOLDER: reads command lines from standard input, the cursor at their ends, and prints for
# each what bash would offer there, one offer a line, and an empty line. FOLDER holds the completions.

. /usr/share/bash-completion/bash_completion
. "$1/corvalentd"
. "$1/corvalentctl"

while IFS= read -r COMP_LINE; do
    read -ra COMP_WORDS <<<"$COMP_LINE"
    [[ $COMP_LINE != *" " ]] || COMP_WORDS+=("")
    COMP_POINT=${#COMP_LINE} COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_TYPE=9 COMP_KEY=9 COMPREPLY=()
    "_${COMP_WORDS[0]}"
    printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort -u
    echo
done
