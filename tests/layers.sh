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
if [ -z "$files" ]; then
    echo "layers: no sources under $root/src" >&2
    exit 2
fi
set -f
# shellcheck disable=SC2086
awk '
BEGIN {
    rank["sys"] = 0; rank["log"] = 1; rank["config"] = 2
    rank["db"] = 3; rank["loader"] = 3
    rank["steps"] = 4; rank["update"] = 5; rank["cli"] = 6
    bad = 0
}
FNR == 1 {
    n = split(FILENAME, folder, "/")
    layer = n > 2 ? folder[2] : ""
    if (!(layer in rank)) {
        printf "%s: lies in no known layer\n", FILENAME
        bad++
    }
}
/^[ \t]*#[ \t]*include[ \t]*"/ && (layer in rank) {
    header = $0
    sub(/^[^"]*"/, "", header)
    sub(/".*$/, "", header)
    slash = index(header, "/")
    if (slash == 0) {
        next
    }
    used = substr(header, 1, slash - 1)
    if (!(used in rank)) {
        where = "no known"
    } else if (rank[used] > rank[layer]) {
        where = "a higher"
    } else if (rank[used] == rank[layer] && used != layer) {
        where = "a sibling"
    } else {
        next
    }
    printf "%s:%d: includes \"%s\" from %s layer\n", FILENAME, FNR, header, where
    bad++
}
END {
    if (bad > 0) {
        printf "layers: %d offence(s) against the layer order\n", bad
        exit 1
    }
}
' $files
