#!/bin/bash
# The bash completion against the tool itself: for every command and
# subcommand it offers exactly the options that `shmtool ... --help` lists
# (with the global ones), the commands and subcommands the help lists, and
# the application names registered on the store:
#
#   tests/sandbox.sh /bin/bash tools/shmtool/check-completion.sh COMPLETION [EMULATOR...] TOOL
#
# Inside the sandbox, so the names are registered on a private store.
set -u
export LC_ALL=C
completion=$1
shift
dir=$(mktemp -d) && trap 'rm -rf "$dir"' EXIT
# The completion runs the tool by the command line's first word: one program.
printf '#!/bin/sh\nexec %s "$@"\n' "$(printf '%q ' "$@")" > "$dir/shmtool" && chmod +x "$dir/shmtool"
tool=$dir/shmtool

# What the completion needs of bash-completion, reduced to the plain case.
_init_completion() {
    words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
    cur=${words[cword]} prev=${words[cword - 1]}
}
_filedir() { COMPREPLY=(FILE); }
# shellcheck source=/dev/null
source "$completion"

offered() {  # what completing the last of the words offers, sorted
    COMP_WORDS=("$tool" "$@") COMP_CWORD=$# COMPREPLY=()
    _shmtool
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}" | sort
}
help_section() {  # the first words of the lines of one section of the help
    "$tool" "${@:2}" --help | sed -n "/^$1:/,/^\$/s/^  \\([^ ][^ ]*\\).*/\\1/p" | tr ',' '\n' | sort -u
}

failed=0
check() {
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1 (< expected, > offered)"
        diff <(echo "$2") <(echo "$3") | grep '^[<>]' | sed 's/^/    /'
        failed=1
    fi
}

globals=$(help_section Options)
check "commands" "$(help_section Subcommands)" "$(offered '')"
for command in $(help_section Subcommands); do
    subs=$(help_section Subcommands "$command")
    [ -z "$subs" ] || check "$command: subcommands" "$subs" "$(offered "$command" '')"
    for path in "$command" $(for sub in $subs; do echo "$command/$sub"; done); do
        words=(${path/\// })
        check "${words[*]}: options" "$(sort -u <(echo "$globals") <(help_section Options "${words[@]}"))" \
            "$(offered "${words[@]}" -)"
    done
done

"$tool" sdc register alpha >/dev/null && "$tool" sdc register 'beta two' >/dev/null || exit 1
for command in poll follow unregister; do
    check "sdc $command: names" "$(printf '%s\n' alpha 'beta\ two')" "$(offered sdc "$command" '')"
done
check "sdc follow -i 1 a: names" alpha "$(offered sdc follow -i 1 a)"

[ "$failed" -eq 0 ] || exit 1
echo "ok: the completion offers every command's options and the registered names"
