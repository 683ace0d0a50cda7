#!/bin/sh
# skipMissing.sh PROGRAM...: stands in for a test whose programs this
# machine lacks. meson reports it SKIPPED (77) with their names; with
# QV_NO_SKIP set (./run.sh test, which installs them all) it fails, so a
# missing install step cannot hide behind a skip.
echo "not installed: $*"
if [ -n "${QV_NO_SKIP:-}" ]; then
    exit 1
fi
exit 77
