#!/usr/bin/env bash
# Runs a Windows program under Wine, headless and quiet:
#
#   tools/wine-run.sh PREFIX PROGRAM [ARGS...]
#
# PREFIX is the Wine prefix (a folder inside the build folder); it is made on
# first use, once, even when several programs start at the same time. The
# prefix runs as the machine the library's recorded Windows answers come from:
# locale en-US (code pages 1252 and 437), time zone UTC. No debugger is
# started for an unhandled exception: the process ends with the exception's
# code, as on a Windows machine without one.
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
ready=$prefix/.quarnel-ready-2
if [ ! -f "$ready" ]; then
  mkdir -p "$prefix"
  (
    flock 9
    if [ ! -f "$ready" ]; then
      "$wine" wineboot --init >/dev/null 2>&1 || true
      "$wine" reg delete 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' \
        /v Debugger /f >/dev/null 2>&1 || true
      WINESERVER=$(dirname "$wine")/wineserver
      [ -x "$WINESERVER" ] || WINESERVER=wineserver
      "$WINESERVER" -w 2>/dev/null || true
      touch "$ready"
    fi
  ) 9>"$prefix.lock"
fi
exec "$wine" "$@"
