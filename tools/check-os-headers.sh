#!/usr/bin/env bash
# Fails when a file outside quarnel/platform/ includes an operating-system
# header: the platform folder is the library's only seam to the system.
set -euo pipefail
cd "$(dirname "$0")/.."
os_hdr='#[[:space:]]*include[[:space:]]*<(unistd|fcntl|dlfcn|iconv|pthread|signal|langinfo|dirent|termios|syslog|execinfo|ucontext|link|elf|malloc|poll|sched|spawn|pwd|grp|netdb|mntent|semaphore|glob|fnmatch|nl_types|windows|winbase|(sys|linux|asm|arpa|netinet|net|bits)/[a-z_/0-9]+)\.h>'
leaks=$(git ls-files -co --exclude-standard -- '*.h' '*.cpp' '*.cc' '*.inc' |
  grep -v '^quarnel/platform/' | xargs -r grep -nE "$os_hdr" || true)
if [ -n "$leaks" ]; then
  echo "Operating-system headers outside quarnel/platform/:"
  echo "$leaks"
  exit 1
fi
echo "OS headers: only in quarnel/platform/"
