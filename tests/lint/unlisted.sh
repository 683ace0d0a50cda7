#!/usr/bin/env bash
# unlisted.sh ROOT LISTED...: fails when a Python, shell or YAML file of the
# tree (tracked, or new and not ignored) is in none of the lint suite's lists
# (tests/lint/meson.build), so that a new script does not go unchecked.
# Skipped outside a git checkout.
set -euo pipefail

root=$1
shift
declare -A listed=()
for f in "$@"; do
    listed[$f]=1
done
git -C "$root" rev-parse --is-inside-work-tree >/dev/null 2>&1 || exit 77

status=0
while IFS= read -r -d '' f; do
    [ -f "$root/$f" ] || continue
    case $f in
        *.py | *.sh | *.yml | *.yaml) ;;
        *)
            # Scripts without a suffix, such as .ci/run, by their first line.
            [ -x "$root/$f" ] || continue
            first=
            IFS= read -r -n 128 first <"$root/$f" || true
            [[ $first =~ ^#!.*(python|sh)[0-9.]*([[:space:]]|$) ]] || continue
            ;;
    esac
    if [ -z "${listed[$f]:-}" ]; then
        echo "$f: in no list of tests/lint/meson.build" >&2
        status=1
    fi
done < <(git -C "$root" ls-files -z --cached --others --exclude-standard)
exit $status
