#!/bin/sh
# Checks the built manual against the library's exported names:
#
#   sh man/check-documented.sh BUILT_MAN_DIR EXPORTS_FILE
#
# BUILT_MAN_DIR holds man3/ and man7/ as the build makes them (pages from
# scdoc and one-line link pages ".so man3/PAGE"); EXPORTS_FILE is
# src/lib/libshm.exports. It fails, listing the names, when
#   - an exported name has neither a link page NAME.3 nor a page of its own
#     (dlopen, dlsym and dlclose: when no built page has it in its NAME
#     section),
#   - a link page points to a page that was not built,
#   - a link page exists for a name the library does not export, or for one
#     of dlopen, dlsym and dlclose, whose system pages it would shadow.
# Only those three are accepted through a NAME section: every other name
# needs its link page, because a name in a NAME section reaches `man NAME`
# only once mandb(8) has indexed the pages, never in the build tree.
set -eu

if [ $# -ne 2 ] || [ ! -d "$1" ] || [ ! -f "$2" ]; then
    echo "usage: $0 BUILT_MAN_DIR EXPORTS_FILE" >&2
    exit 2
fi
dir=$1 exports=$2
unlinked="dlopen dlsym dlclose"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The exported names, one per line.
grep -E '^[A-Za-z_]' "$exports" | sed 's/[[:space:]].*//' | sort -u >"$work/exports"

# Built pages and link pages, as paths relative to $dir (man3/x.3).
: >"$work/built"
: >"$work/links"
for path in "$dir"/man[1-9]/*.[1-9]; do
    [ -f "$path" ] || continue
    rel=${path#"$dir"/}
    if head -c 4 "$path" | grep -q '^\.so '; then
        echo "$rel" >>"$work/links"
    else
        echo "$rel" >>"$work/built"
    fi
done
if [ ! -s "$work/built" ]; then
    echo "no built man pages in $dir (is the libshm-man target built?)"
    exit 1
fi

# Plain text of a page: font escapes and roff's hyphen escape removed.
plain() { sed -e 's/\\f[BIRP]//g' -e 's/\\-/-/g' -e 's/\\&//g' "$1"; }

# The names in the NAME sections of the built pages: the text between ".SH
# NAME" and the next ".SH", up to the " - " that starts the description.
while read -r rel; do
    plain "$dir/$rel" | awk '
        /^\.SH/ { if (inname) exit; if ($0 ~ /^\.SH "?NAME"?$/) inname = 1; next }
        inname && !/^\./ { text = text " " $0 }
        END { sub(/ - .*/, "", text); print text }'
done <"$work/built" | tr ', ' '\n\n' | sed '/^$/d' | sort -u >"$work/named"

failed=0
report() {  # report TITLE FILE: prints the file's lines under the title, fails
    if [ -s "$2" ]; then
        echo "$1:"
        sed 's/^/    /' "$2"
        failed=1
    fi
}

# Exported names without a page.
: >"$work/missing"
: >"$work/unnamed"
while read -r name; do
    case " $unlinked " in
        *" $name "*) grep -qxF "$name" "$work/named" || echo "$name" >>"$work/unnamed" ;;
        *) [ -f "$dir/man3/$name.3" ] || echo "$name" >>"$work/missing" ;;
    esac
done <"$work/exports"
report "exported names without a link page (a line in man/names.txt makes one)" "$work/missing"
report "exported names missing from the NAME section of libshm_log.3" "$work/unnamed"

# Link pages whose target was not built.
: >"$work/broken"
while read -r rel; do
    target=$(sed -n '1s/^\.so[[:space:]]*//p' "$dir/$rel")
    grep -qxF "$target" "$work/built" || echo "$rel -> $target" >>"$work/broken"
done <"$work/links"
report "link pages pointing to a page that was not built" "$work/broken"

# Link pages for names that are not exported, or that must not have one.
: >"$work/stray"
while read -r rel; do
    name=$(basename "$rel" | sed 's/\.[1-9]$//')
    case " $unlinked " in
        *" $name "*) echo "$rel (shadows the system's $name page)" >>"$work/stray"; continue ;;
    esac
    grep -qxF "$name" "$work/exports" || echo "$rel (not exported)" >>"$work/stray"
done <"$work/links"
report "link pages that must not exist" "$work/stray"

if [ "$failed" -ne 0 ]; then
    echo "FAILED"
    exit 1
fi
echo "ok: $(wc -l <"$work/exports") exported names documented," \
     "$(wc -l <"$work/links") link pages, $(wc -l <"$work/built") pages"
