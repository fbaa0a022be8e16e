#!/usr/bin/env bash
# Installs the library into a temporary prefix other than the one it was
# configured with (as `cmake --install --prefix` does) and builds a consumer
# against it twice: through find_package(quarnel) and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake -S . -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DQUARNEL_BUILD_TESTS=OFF \
  -DQUARNEL_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX="$work/configured" >/dev/null
cmake --build "$work/build" -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null
if [ -e "$work/configured" ]; then
  echo "install: something went to the configured prefix instead of --prefix" >&2
  exit 1
fi

# Only public headers are installed, and each finds what it includes there.
inc="$work/prefix/include"
for h in quarnel/compress/testdata.h quarnel/compress/compress_reference.h; do
  if [ -e "$inc/$h" ]; then echo "install: test-only header $h was installed" >&2; exit 1; fi
done
if grep -q '#include "quarnel/platform/faults.h"' "$inc/quarnel/quarnel.h"; then
  echo "install: the umbrella header includes the fault seam" >&2; exit 1
fi
grep -rhoE '#include "quarnel/[^"]+"' "$inc/quarnel" | sed 's/#include "//; s/"$//' | sort -u |
  while read -r h; do
    if [ ! -e "$inc/$h" ]; then echo "install: $h is included but not installed" >&2; exit 1; fi
  done

cmake -S tests/install -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/consumer/consumer"

pcdir=$(dirname "$(find "$work/prefix" -name quarnel.pc | head -n 1)")
# shellcheck disable=SC2046
g++ tests/install/consumer.cpp -o "$work/consumer_pc" \
  $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs quarnel)
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/consumer_pc"
echo "install: find_package and pkg-config consumers built and ran"
