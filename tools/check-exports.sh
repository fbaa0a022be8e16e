#!/usr/bin/env bash
# Compares what libquarnel.so exports with the checked-in list of the public
# interface, tools/exports.txt (demangled names with their symbol versions).
#
#   tools/check-exports.sh            CI: fails on any difference
#   tools/check-exports.sh --update   rewrites tools/exports.txt
#
# The rule: a change that adds, removes or changes public interface (a
# QUARNEL_API class, member or function) runs --update and commits the new
# list with the code, so that the list's diff shows the interface change for
# review. Whatever is not interface stays hidden: drop QUARNEL_API from it, or
# put it in quarnel_internal or an internal/ header. The script refuses
# names that must never leave: quarnel_internal::, standard-library template
# instances, and the test seams other than the fault seam's arming calls
# (UFailCall, UClearFaults and their kin in quarnel/platform/faults.h).
#
# Builds the shared library with the plain preset first.
set -euo pipefail
cd "$(dirname "$0")/.."

update=0
if [ "${1:-}" = --update ]; then update=1; fi

cmake --preset plain >/dev/null
cmake --build --preset plain --target quarnel -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
lib=$(readlink -f build/plain/libquarnel.so)

actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
# Fields: address, type, then the demangled name (which may hold spaces).
nm -DC --defined-only --with-symbol-versions "$lib" | cut -d' ' -f3- | LC_ALL=C sort -u >"$actual"

# Standard-library instances and internals, by their mangled prefixes (the
# same prefixes the version script keeps local); the hidden test seams by name.
mangled=$(nm -D --defined-only "$lib" | cut -d' ' -f3-)
if grep -E '^_Z(N|NK|Z|ZN|ZNK|GVZ|GVZN|TV|TI|TS|TVN|TIN|TSN)?(St|9__gnu_cxx|16quarnel_internal)' \
    <<<"$mangled" | c++filt; then
  echo "check-exports: the names above must not be exported" >&2
  exit 1
fi
seams='UShouldFail|USetTickOffset|UGetTickOffset|UFreezeTickCount|USetClockOverride'
seams+='|USetMessageBoxResponder|UMessageBoxDefaultButton|USetDebugOutputSink|USetHeapFreeDeferred'
seams+='|USetVirtualReserveLimit|USetGlobalMemoryStatusOverride|UDebugBreakCount|SetAssertionObserver'
if grep -E "^($seams)\(" "$actual"; then
  echo "check-exports: the test seams above must not be exported" >&2
  exit 1
fi
if grep -v -E '@@QUARNEL_[0-9]+\.[0-9]+$' "$actual" | grep -v -E '^QUARNEL_[0-9]+\.[0-9]+$'; then
  echo "check-exports: the names above carry no symbol version" >&2
  exit 1
fi

if [ "$update" = 1 ]; then
  cp "$actual" tools/exports.txt
  echo "check-exports: tools/exports.txt now lists $(wc -l <tools/exports.txt) exports"
  exit 0
fi
if ! diff -u tools/exports.txt "$actual"; then
  echo "check-exports: the exports differ from tools/exports.txt (lines with + are new)." >&2
  echo "If the interface change is intended, run tools/check-exports.sh --update and commit the list." >&2
  exit 1
fi
echo "check-exports: $(wc -l <"$actual") exports, as listed"
