#!/bin/sh
# Checks the manual pages named on the command line: each must be plain ASCII
# and format without a single warning, with groff (all warnings on, terminal
# and typesetter devices) or, where groff is missing, mandoc's lint mode.
# Exit 0 when every page is clean, 1 when one is not, 77 (skipped) when
# neither formatter is installed.
set -u
[ $# -gt 0 ] || { echo "usage: $0 PAGE..." >&2; exit 2; }
if command -v groff >/dev/null 2>&1; then devices="utf8 ps"
elif command -v mandoc >/dev/null 2>&1; then devices=lint
else echo "neither groff nor mandoc is installed: the manual pages are not checked"; exit 77
fi
status=0
for page in "$@"; do
    if [ ! -r "$page" ]; then echo "$page: cannot be read"; status=1; continue; fi
    if LC_ALL=C grep -n '[^[:print:][:space:]]' "$page"; then
        echo "$page: holds characters outside ASCII (write them as roff escapes)"; status=1; continue
    fi
    for device in $devices; do
        if [ "$device" = lint ]; then out=$(mandoc -T lint -W warning "$page" 2>&1)
        else out=$(groff -ww -z -man -T"$device" "$page" 2>&1)
        fi
        if [ $? -ne 0 ] || [ -n "$out" ]; then
            echo "$page: -T$device fails or warns:"; echo "$out"; status=1
        fi
    done
done
[ $status -eq 0 ] && echo "$# manual pages clean"
exit $status
