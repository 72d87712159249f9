#!/usr/bin/env bash
# Makes sure the packages the build and the tests need are installed.
# As root with apt-get, missing packages are installed (and said so);
# otherwise the script stops and names what is missing.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libpq-dev libgtest-dev postgresql groff-base universal-ctags "$@")

missing=()
for pkg in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$pkg")
    fi
done

[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -eq 0 ]] && command -v apt-get >/dev/null 2>&1; then
    echo "ensure-deps: installing missing packages: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
    exit 0
fi

echo "ensure-deps: missing packages: ${missing[*]}" >&2
echo "ensure-deps: install them (e.g. 'sudo apt-get install ${missing[*]}') and run make again." >&2
exit 1
