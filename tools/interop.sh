#!/usr/bin/env bash
# The files that cross between the builds: the Windows build (under Wine)
# writes every stored form into a folder and the Linux build reads each one,
# byte for byte and for its content; then the other way round. Builds the
# interop program in the plain and win32 presets first (configuring them if
# needed).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc 2>/dev/null || echo 2)
for preset in plain win32; do
  [ -f "build/$preset/CMakeCache.txt" ] || cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs" --target quarnel_interop >/dev/null
done
linux=$root/build/plain/tests/interop/quarnel_interop
export LD_LIBRARY_PATH=$root/build/plain${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}  # libvellores.so
windows=$root/build/win32/quarnel_interop.exe
wine() { "$root/tools/wine-run.sh" "$root/build/win32/wine" "$@"; }

folder=$root/build/interop
rm -rf "$folder"
mkdir -p "$folder/from-win32" "$folder/from-linux"
status=0
echo "== Windows writes, Linux reads and changes, Windows reopens"
wine "$windows" write "$folder/from-win32"
"$linux" check "$folder/from-win32" || status=1
"$linux" change "$folder/from-win32" || status=1
wine "$windows" reopen "$folder/from-win32" || status=1
echo "== Linux writes, Windows reads and changes, Linux reopens"
"$linux" write "$folder/from-linux"
wine "$windows" check "$folder/from-linux" || status=1
wine "$windows" change "$folder/from-linux" || status=1
"$linux" reopen "$folder/from-linux" || status=1
# Either way round, the same changes to the same files leave the same bytes.
for file in store.chk settings.ini; do
  cmp "$folder/from-win32/$file" "$folder/from-linux/$file" || status=1
done
exit $status
