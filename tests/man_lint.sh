#!/bin/sh
# Checks the manual pages named on the command line: each must format without
# a single warning or error. Uses groff with all warnings on (on a terminal
# device and on the default typesetter), or mandoc's lint mode where groff is
# missing. Exit 0 when every page is clean, 1 when one is not, 77 (skipped)
# when neither formatter is installed.
set -u

if [ $# -eq 0 ]; then
    echo "usage: $0 PAGE..." >&2
    exit 2
fi

if command -v groff >/dev/null 2>&1; then
    check() {
        for device in utf8 ps; do
            out=$(groff -ww -z -man -T"$device" "$1" 2>&1) || {
                echo "$1: groff -T$device failed"
                [ -n "$out" ] && echo "$out"
                return 1
            }
            if [ -n "$out" ]; then
                echo "$1: groff -T$device warns:"
                echo "$out"
                return 1
            fi
        done
    }
elif command -v mandoc >/dev/null 2>&1; then
    check() {
        out=$(mandoc -T lint -W warning "$1" 2>&1) || {
            echo "$1: mandoc -T lint failed"
            [ -n "$out" ] && echo "$out"
            return 1
        }
        if [ -n "$out" ]; then
            echo "$1: mandoc warns:"
            echo "$out"
            return 1
        fi
    }
else
    echo "neither groff nor mandoc is installed: the manual pages are not checked"
    exit 77
fi

status=0
for page in "$@"; do
    if [ ! -r "$page" ]; then
        echo "$page: cannot be read"
        status=1
        continue
    fi
    # The pages are plain ASCII: other characters are written as roff escapes.
    if LC_ALL=C grep -n '[^[:print:][:space:]]' "$page" >/dev/null; then
        echo "$page: holds characters outside ASCII (write them as roff escapes):"
        LC_ALL=C grep -n '[^[:print:][:space:]]' "$page"
        status=1
        continue
    fi
    check "$page" || status=1
done
[ $status -eq 0 ] && echo "$# manual pages clean"
exit $status
