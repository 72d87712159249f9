#!/bin/sh
# Checks that every source under src/ includes only headers of its own layer
# and of the layers below it:
#   sys <- log <- config <- db, loader <- steps <- update <- cli
# db and loader stand side by side and include neither each other. A header
# named without a folder is one of the file's own. Each offending line is
# printed as "FILE:LINE: includes "HEADER" from a higher layer" (or "from a
# sibling layer", "from no known layer"), and so is a folder under src/ that
# is no layer. Exit 0 when all is in order, 1 otherwise.
# Usage: layers.sh [SOURCE-ROOT]   (default: the directory above this script)
set -u
root=${1:-$(dirname "$0")/..}
cd "$root" || exit 2
files=$(find src -type f \( -name '*.cpp' -o -name '*.hpp' \) 2>/dev/null | LC_ALL=C sort)
[ -n "$files" ] || { echo "layers: no sources under $root/src" >&2; exit 2; }
set -f
# shellcheck disable=SC2086
awk '
BEGIN { split("sys log config db loader steps update cli", name, " ")
        for (i = 1; i <= 8; i++) rank[name[i]] = i - (i > 4) }
FNR == 1 {
    layer = split(FILENAME, folder, "/") > 2 ? folder[2] : ""
    if (!(layer in rank)) { printf "%s: lies in no known layer\n", FILENAME; bad++ }
}
/^[ \t]*#[ \t]*include[ \t]*"[^"\/]*\// && (layer in rank) {
    header = $0; sub(/^[^"]*"/, "", header); sub(/".*$/, "", header)
    used = substr(header, 1, index(header, "/") - 1)
    if (!(used in rank)) where = "no known"
    else if (rank[used] > rank[layer]) where = "a higher"
    else if (rank[used] == rank[layer] && used != layer) where = "a sibling"
    else next
    printf "%s:%d: includes \"%s\" from %s layer\n", FILENAME, FNR, header, where; bad++
}
END { if (bad > 0) { printf "layers: %d offence(s) against the layer order\n", bad; exit 1 } }
' $files
