#!/usr/bin/env bash
# clang-format.sh SOURCE [--fix]: every C++ file of the checkout as
# .clang-format lays it out. Without --fix the files that differ are listed
# and the check fails; with it they are rewritten. .clang-format needs
# clang-format 16 (Debian 12's default is 14).
set -euo pipefail
cd "$1"
if [ "${2:-}" = --fix ]; then
    git ls-files -z '*.cpp' '*.hpp' | xargs -0 clang-format-16 -i
    exit 0
fi
unformatted=$(git ls-files -z '*.cpp' '*.hpp' |
    xargs -0 clang-format-16 --dry-run 2>&1 |
    sed -n 's/^\([^:]*\):[0-9]*:[0-9]*: warning: .*/\1/p' | sort -u)
if [ -n "$unformatted" ]; then
    echo "$unformatted"
    echo "clang-format: the files above differ from .clang-format" \
        "(ninja -C build format applies it)"
    exit 1
fi
echo "clang-format: every file as .clang-format lays it out"
