#!/usr/bin/env bash
# Runs a Windows program under Wine, headless and quiet:
#
#   tools/wine-run.sh PREFIX PROGRAM [ARGS...]
#
# PREFIX is the Wine prefix (a folder inside the build folder); it is made on
# first use, once, even when several programs start at the same time. The
# prefix runs as the machine the library's recorded Windows answers come from:
# locale en-US (code pages 1252 and 437), time zone UTC.
set -euo pipefail
prefix=$1
shift
export WINEPREFIX=$prefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
export LC_ALL=C.UTF-8 TZ=UTC
unset DISPLAY WAYLAND_DISPLAY
wine=$(command -v wine64 || true)
[ -n "$wine" ] || wine=/usr/lib/wine/wine64
if [ ! -f "$prefix/.quarnel-ready" ]; then
  mkdir -p "$prefix"
  (
    flock 9
    if [ ! -f "$prefix/.quarnel-ready" ]; then
      "$wine" wineboot --init >/dev/null 2>&1 || true
      touch "$prefix/.quarnel-ready"
    fi
  ) 9>"$prefix.lock"
fi
exec "$wine" "$@"
