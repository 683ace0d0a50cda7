#!/usr/bin/env bash
# run-mutations.sh SRC WORK [FILTER]: applies each mutation of mutations.txt
# to a copy of the source tree SRC in WORK, builds it, runs the whole test
# suite and restores the file. Prints one line per mutation and a summary;
# exit code 1 when fewer than 95 % are caught. FILTER (a grep pattern)
# picks mutations by their line.
set -euo pipefail

src=$(cd "$1" && pwd)
work=$2
filter=${3:-}
list="$src/tests/mutate/mutations.txt"
tree="$work/src"
build="$work/build"

mkdir -p "$tree"
# Build directories stay behind.
# Changed files get the time of the copy, not the source's: an object built
# from a mutated file can be newer than the source's own time.
rsync -rlpD --checksum --delete --include '/build-aux/' --exclude '/build*' --exclude '/.git' "$src/" "$tree/"
if [ ! -f "$build/build.ninja" ]; then
    meson setup "$build" "$tree" >/dev/null
fi
# The copy has no ../shared beside it: the real drive data stays the
# source tree's.
meson configure "$build" -Drealdata="$src/../shared/realdata" >/dev/null
ninja -C "$build" >/dev/null
# Here and below without the lint suite: a style finding is no caught bug.
meson test -C "$build" --no-rebuild --no-suite lint >/dev/null || {
    echo "run-mutations: the suite fails without mutations" >&2
    exit 2
}

# mutate FILE ORIGINAL REPLACEMENT: exactly one occurrence is replaced.
mutate() {
    python3 - "$@" <<'PY'
import sys
path, original, replacement = (a.replace("⏎", "\n") for a in sys.argv[1:])
text = open(path, encoding="utf-8").read()
count = text.count(original)
if count != 1:
    sys.exit(f"{count} occurrences of {original!r} in {path}")
open(path, "w", encoding="utf-8").write(text.replace(original, replacement))
PY
}

caught=0
survived=0
while IFS=$'\t' read -r file original replacement; do
    [[ -z "$file" || "$file" == \#* ]] && continue
    line="$file: $original => $replacement"
    [[ -n "$filter" && ! "$line" =~ $filter ]] && continue
    cp "$tree/$file" "$work/saved"
    if ! mutate "$tree/$file" "$original" "$replacement"; then
        echo "BROKEN   $line"
        exit 2
    fi
    if ! ninja -C "$build" >/dev/null 2>&1; then
        # A mutation must build: one that does not is a fault of the list.
        echo "BROKEN   $line"
        cp "$work/saved" "$tree/$file"
        ninja -C "$build" >/dev/null
        exit 2
    elif ! timeout 600 meson test -C "$build" --no-rebuild --maxfail 1 \
        --no-suite lint >/dev/null 2>&1; then
        result="caught"
    else
        result="SURVIVED"
    fi
    cp "$work/saved" "$tree/$file"
    if [ "$result" = SURVIVED ]; then
        survived=$((survived + 1))
    else
        caught=$((caught + 1))
    fi
    printf '%-16s %s\n' "$result" "$line"
done < "$list"
ninja -C "$build" >/dev/null

total=$((caught + survived))
echo "mutations: $total, caught: $caught, survived: $survived"
[ "$total" -gt 0 ] && [ $((caught * 100)) -ge $((total * 95)) ]
