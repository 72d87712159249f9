#!/bin/sh
# Keeps the sources small: fails when a function under src/ or tools/ is
# longer than 60 lines or a source file (.cpp, .hpp) longer than 500 lines,
# and lists each of them. The three longest functions and largest files are
# shown for information. Function lengths come from universal ctags; without
# it the check is skipped (exit 77).
# Usage: code_size.sh [SOURCE-ROOT]   (default: the directory above this script)
set -u
max_function=60
max_file=500
root=${1:-$(dirname "$0")/..}
cd "$root" || exit 2
if ! ctags --version 2>/dev/null | grep -q 'Universal Ctags'; then
    echo "code_size: universal ctags is not installed (package universal-ctags):" \
         "the sizes are not checked"
    exit 77
fi
dirs=""
for dir in src tools; do [ -d "$dir" ] && dirs="$dirs $dir"; done
[ -n "$dirs" ] || { echo "code_size: neither src nor tools in $root" >&2; exit 2; }
tab=$(printf '\t')
set -f
# One line per function: LINES<tab>FILE<tab>NAME, longest first. A lambda
# has no name; a member function is named with its class.
# shellcheck disable=SC2086
functions=$(ctags --languages=C++ --kinds-C++=f --fields=+ne --excmd=number -o - -R $dirs |
    awk -F'\t' -v OFS='\t' '
        /^!/ { next }
        {
            line = ""; end = ""; scope = ""
            for (i = 4; i <= NF; i++) {
                if ($i ~ /^line:/) line = substr($i, 6)
                else if ($i ~ /^end:/) end = substr($i, 5)
                else if ($i ~ /^(class|struct):/) { scope = $i; sub(/^[a-z]*:(.*::)?/, "", scope) }
            }
            if (line == "" || end == "") next
            name = $1 ~ /^__anon/ ? "(lambda at line " line ")" : $1
            if (scope != "" && scope !~ /__anon/) name = scope "::" name
            print end - line + 1, $2, name
        }' | LC_ALL=C sort -t "$tab" -k1,1nr -k2,2 -k3,3)
[ -n "$functions" ] || { echo "code_size: ctags found no functions under$dirs" >&2; exit 2; }
# One line per source file: LINES<tab>FILE, largest first.
# shellcheck disable=SC2086
files=$(find $dirs -type f \( -name '*.cpp' -o -name '*.hpp' \) | while read -r file; do
    printf '%s\t%s\n' "$(wc -l < "$file" | tr -d ' ')" "$file"
done | LC_ALL=C sort -t "$tab" -k1,1nr -k2,2)

echo "longest functions:"
printf '%s\n' "$functions" | head -n 3 | awk -F'\t' '{ printf "  %5d  %s  %s\n", $1, $2, $3 }'
echo "largest files:"
printf '%s\n' "$files" | head -n 3 | awk -F'\t' '{ printf "  %5d  %s\n", $1, $2 }'
# The offenders, functions first; any of them fails the check.
{
    printf '%s\n' "$functions" | awk -F'\t' -v max="$max_function" \
        '$1 > max { printf "%s: function %s has %d lines (at most %d)\n", $2, $3, $1, max }'
    printf '%s\n' "$files" | awk -F'\t' -v max="$max_file" \
        '$1 > max { printf "%s: file has %d lines (at most %d)\n", $2, $1, max }'
} | awk '{ print } END { exit NR > 0 }'
