#!/usr/bin/env bash
# Builds and runs every test: the plain build, the AddressSanitizer +
# UndefinedBehaviorSanitizer build, and the thread tests (every test whose
# name contains "Thread") under ThreadSanitizer. Pass preset names to run
# only some of them: tools/test.sh plain. The win32 preset (not run unless
# named: tools/test.sh win32) cross-builds for Windows and runs every test
# program under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(plain asan tsan)
jobs=$(nproc 2>/dev/null || echo 2)

for preset in "${presets[@]}"; do
  echo "== $preset build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset tests"
  if [ "$preset" = tsan ]; then
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
      ctest --preset tsan -j "$jobs" -R 'Thread' --no-tests=error
  else
    ctest --preset "$preset" -j "$jobs" --no-tests=error
  fi
done
