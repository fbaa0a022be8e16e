#!/usr/bin/env bash
# The libFuzzer targets: every build/fuzz/fuzz/*_fuzz that fuzz/CMakeLists.txt
# declares, each with its seed corpus in fuzz/seeds/<target>. Built with the
# `fuzz` preset (clang, libFuzzer, ASan+UBSan).
#
#   tools/fuzz.sh [ci] [TOTAL]
#       One budget of TOTAL seconds (default 600) shared among all targets,
#       whatever their number; each replays its seeds and then fuzzes from
#       them. New inputs go to a scratch folder, never into fuzz/seeds. Any
#       failure fails the run (after every target had its turn).
#   tools/fuzz.sh campaign SECONDS [-c DIR] [-r RESTARTS] [TARGET...]
#       Every target (or those named) for SECONDS each, its corpus kept
#       between runs in DIR/corpus-<target> (default DIR: build/fuzz). A
#       failure is kept in DIR/artifacts/ and the target goes on for the rest
#       of its time, at most RESTARTS times (default 3). Logs: DIR/logs/.
#   tools/fuzz.sh merge [-c DIR] [TARGET...]
#       Minimises each target's seeds and grown corpus DIR/corpus-<target>
#       with -merge=1 into fuzz/seeds/<target>. Seeds with names of their own
#       (regressions, hand-made inputs) always stay; the hash-named ones are
#       replaced by the minimised set.
#   tools/fuzz.sh coverage [-c DIR] [TARGET...]
#       Source coverage of each target's own area over its seeds (and over
#       DIR/corpus-<target> when -c is given), from a clang build with
#       -fprofile-instr-generate -fcoverage-mapping in build/fuzz-coverage.
#       A target names its area in comment lines of its source, as many as
#       needed: "// Area: path/one.cpp path/two.cpp"; without any, the .cpp
#       files next to the quarnel headers it includes count.
#
# Environment: FUZZ_FLAGS adds libFuzzer flags to ci and campaign runs;
# FUZZ_BUILD_JOBS sets the build parallelism (default: the number of cores);
# FUZZ_BUILD_DIR builds the targets there instead of build/fuzz (a second tree
# to rebuild in while a campaign runs); FUZZ_NO_BUILD=1 uses the targets as
# they are built.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=ci
case "${1:-}" in
  ci | campaign | merge | coverage) mode=$1; shift ;;
esac

jobs=${FUZZ_BUILD_JOBS:-$(nproc 2>/dev/null || echo 2)}
bin=${FUZZ_BUILD_DIR:-build/fuzz}
read -r -a extra_flags <<<"${FUZZ_FLAGS:-}"
common_flags=(-timeout=10 -rss_limit_mb=2048 -print_final_stats=1)

build() {  # build <binary dir> [cache settings...]: the fuzz preset, or a variant of it
  local dir=$1
  shift
  [ -z "${FUZZ_NO_BUILD:-}" ] || return 0
  mkdir -p "$dir"
  cmake --preset fuzz -B "$dir" "$@" >"$dir/configure.log" 2>&1 || { tail -n 20 "$dir/configure.log"; exit 1; }
  if ! cmake --build "$dir" -j "$jobs" >"$dir/build.log" 2>&1; then
    grep -E -A3 'error|warning' "$dir/build.log" | head -n 40
    exit 1
  fi
}

# The targets built in $1, filtered by the names given (if any).
targets_in() {
  local dir=$1 t
  shift
  shopt -s nullglob
  for t in "$dir"/fuzz/*_fuzz; do
    [ -x "$t" ] || continue
    if [ $# -gt 0 ]; then
      case " $* " in *" $(basename "$t") "*) ;; *) continue ;; esac
    fi
    echo "$t"
  done
}

seeds_of() {  # the seed folder of a target, made if missing
  mkdir -p "fuzz/seeds/$1"
  echo "fuzz/seeds/$1"
}

count_files() { find "$1" -maxdepth 1 -type f 2>/dev/null | wc -l; }

# The options of campaign, merge and coverage: -c DIR (where corpora, logs and
# artifacts live; $1 is its default) and -r RESTARTS. Sets opt_dir,
# opt_restarts and args (the target names after the options).
parse_options() {
  opt_dir=$1
  opt_restarts=3
  shift
  local o OPTIND=1
  while getopts "c:r:" o; do
    case $o in
      c) opt_dir=$OPTARG ;;
      r) opt_restarts=$OPTARG ;;
      *) exit 2 ;;
    esac
  done
  shift $((OPTIND - 1))
  args=("$@")
}

# ---------------------------------------------------------------------------
run_ci() {
  local total=${1:-600}
  build "$bin"
  mapfile -t targets < <(targets_in "$bin")
  local n=${#targets[@]} left=$total start failed=() t name seconds scratch log rc
  [ "$n" -gt 0 ] || { echo "no fuzz targets built" >&2; exit 1; }
  mkdir -p "$bin/logs" "$bin/artifacts"
  start=$(date +%s)
  for t in "${targets[@]}"; do
    name=$(basename "$t")
    # What is left of the budget, shared among the targets still to run.
    left=$((total - ($(date +%s) - start)))
    seconds=$((left / n))
    [ "$seconds" -ge 10 ] || seconds=10
    n=$((n - 1))
    scratch=$bin/ci-corpus/$name
    rm -rf "$scratch"
    mkdir -p "$scratch"
    log=$bin/logs/$name.ci.log
    echo "-- $name for ${seconds}s"
    rc=0
    "$t" -max_total_time="$seconds" "${common_flags[@]}" "${extra_flags[@]}" \
      -artifact_prefix="$bin/artifacts/$name-" "$scratch" "$(seeds_of "$name")" >"$log" 2>&1 ||
      rc=$?
    if [ "$rc" -ne 0 ]; then
      failed+=("$name")
      tail -n 40 "$log"
    else
      grep -a -E '^#[0-9]+.*DONE' "$log" | tail -n 1
    fi
  done
  echo "-- fuzzing took $(($(date +%s) - start))s of ${total}s"
  if [ ${#failed[@]} -gt 0 ]; then
    echo "FAILED: ${failed[*]} (inputs in $bin/artifacts/, logs in $bin/logs/)" >&2
    exit 1
  fi
}

# ---------------------------------------------------------------------------
run_campaign() {
  local seconds=${1:?campaign needs the seconds per target}
  shift
  parse_options build/fuzz "$@"
  local dir=$opt_dir restarts=$opt_restarts
  build "$bin"
  mapfile -t targets < <(targets_in "$bin" "${args[@]}")
  mkdir -p "$dir/logs" "$dir/artifacts"
  local summary=() t name corpus log begin left crashes rc execs n
  for t in "${targets[@]}"; do
    name=$(basename "$t")
    corpus=$dir/corpus-$name
    mkdir -p "$corpus"
    log=$dir/logs/$name.campaign.log
    echo "== $(date -u +%FT%TZ) $name for ${seconds}s, corpus $corpus ($(count_files "$corpus") files)" | tee -a "$log"
    begin=$(date +%s)
    crashes=0
    execs=0
    while :; do
      left=$((seconds - ($(date +%s) - begin)))
      [ "$left" -gt 0 ] || break
      rc=0
      "$t" -max_total_time="$left" "${common_flags[@]}" "${extra_flags[@]}" \
        -artifact_prefix="$dir/artifacts/$name-" "$corpus" "$(seeds_of "$name")" >>"$log" 2>&1 ||
        rc=$?
      n=$(grep -a '^stat::number_of_executed_units' "$log" | tail -n 1 | awk '{print $2}')
      execs=$((execs + ${n:-0}))
      [ "$rc" -ne 0 ] || break
      crashes=$((crashes + 1))
      echo "== $(date -u +%FT%TZ) $name failed (exit $rc), see $log" | tee -a "$log"
      [ "$crashes" -le "$restarts" ] || break
    done
    summary+=("$name: $(($(date +%s) - begin))s, ~$execs runs, corpus $(count_files "$corpus") files, failures $crashes")
    echo "== $(date -u +%FT%TZ) ${summary[-1]}" | tee -a "$log"
  done
  printf '%s\n' "-- campaign" "${summary[@]}"
  ls "$dir/artifacts" 2>/dev/null | sed 's/^/artifact: /'
}

# ---------------------------------------------------------------------------
is_hash_name() { [[ $1 =~ ^[0-9a-f]{40}$ ]]; }

run_merge() {
  parse_options build/fuzz "$@"
  local dir=$opt_dir
  build "$bin"
  mapfile -t targets < <(targets_in "$bin" "${args[@]}")
  local t name seeds work f before after big
  for t in "${targets[@]}"; do
    name=$(basename "$t")
    seeds=$(seeds_of "$name")
    work=$dir/merge/$name
    rm -rf "$work"
    mkdir -p "$work/out" "$work/old"
    before=$(count_files "$seeds")
    # The named seeds are the starting set; hash-named ones compete anew.
    for f in "$seeds"/*; do
      [ -f "$f" ] || continue
      if is_hash_name "$(basename "$f")"; then cp "$f" "$work/old/"; else cp "$f" "$work/out/"; fi
    done
    local inputs=("$work/old")
    [ -d "$dir/corpus-$name" ] && inputs+=("$dir/corpus-$name")
    if ! "$t" -merge=1 -rss_limit_mb=2048 -timeout=10 "$work/out" "${inputs[@]}" >"$work/merge.log" 2>&1; then
      tail -n 20 "$work/merge.log"
      echo "merge of $name failed; fuzz/seeds/$name left as it was" >&2
      exit 1
    fi
    for f in "$seeds"/*; do
      if is_hash_name "$(basename "$f")"; then rm -f "$f"; fi
    done
    for f in "$work/out"/*; do
      if is_hash_name "$(basename "$f")"; then cp "$f" "$seeds/"; fi
    done
    after=$(count_files "$seeds")
    big=$(find "$seeds" -type f -size +64k | wc -l)
    echo "$name: $before -> $after seed files, $(du -sk --apparent-size "$seeds" | cut -f1) KiB, over 64 KiB: $big"
  done
}

# ---------------------------------------------------------------------------
llvm_tool() {  # the llvm tool that matches clang's version
  local v
  v=$(clang++ --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n 1)
  if command -v "$1-$v" >/dev/null; then echo "$1-$v"; else echo "$1"; fi
}

area_of() {  # the source files a target covers
  local src=fuzz/$1.cpp files h
  files=$(sed -n 's|^// Area: *||p' "$src" | tr '\n' ' ')
  if [ -z "$files" ]; then
    for h in $(sed -n 's|^#include "\(quarnel/.*\)\.h"|\1|p' "$src"); do
      [ -f "$h.cpp" ] && files="$files $h.cpp"
    done
  fi
  echo "$files"
}

run_coverage() {
  parse_options "" "$@"
  local dir=$opt_dir out=build/fuzz-coverage
  build "$out" -DQUARNEL_SANITIZE= \
    "-DCMAKE_CXX_FLAGS=-fprofile-instr-generate -fcoverage-mapping" \
    "-DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate"
  mapfile -t targets < <(targets_in "$out" "${args[@]}")
  local profdata cov t name inputs area
  profdata=$(llvm_tool llvm-profdata)
  cov=$(llvm_tool llvm-cov)
  mkdir -p "$out/profiles"
  printf '%-24s %7s %-22s %-22s %-22s %s\n' target inputs lines regions functions area
  for t in "${targets[@]}"; do
    name=$(basename "$t")
    inputs=("$(seeds_of "$name")")
    [ -n "$dir" ] && [ -d "$dir/corpus-$name" ] && inputs+=("$dir/corpus-$name")
    rm -f "$out/profiles/$name"-*.profraw  # a target's earlier figures go; the others' stay
    LLVM_PROFILE_FILE="$out/profiles/$name-%p.profraw" "$t" -runs=0 -rss_limit_mb=2048 \
      "${inputs[@]}" >"$out/profiles/$name.log" 2>&1 || {
      tail -n 20 "$out/profiles/$name.log"
      exit 1
    }
    "$profdata" merge -sparse "$out/profiles/$name"-*.profraw -o "$out/profiles/$name.profdata"
    read -r -a area <<<"$(area_of "$name")"
    "$cov" report "$t" -instr-profile="$out/profiles/$name.profdata" >"$out/profiles/$name.txt"
    # The rows of the area's files (named relative to where they were
    # compiled, or absolute), summed: regions, functions and lines as
    # covered/total.
    awk -v n="$name" -v i="$(find "${inputs[@]}" -type f | wc -l)" -v a="${area[*]}" -v top="$PWD/" '
      BEGIN { split(a, files, " "); for (k in files) want[files[k]] = 1 }
      {
        f = $1
        if (index(f, top) == 1) f = substr(f, length(top) + 1)
        while (f ~ /^\.\.?\//) sub(/^\.\.?\//, "", f)
        if (!(f in want)) next
        seen[f] = 1
        r += $2; rm += $3; fn += $5; fm += $6; l += $8; lm += $9
      }
      function pc(c, t) { return t ? sprintf("%.1f%% (%d/%d)", 100 * c / t, c, t) : "-" }
      END {
        for (k in want) if (!(k in seen)) a = a " [" k ": not compiled in]"
        printf "%-24s %7d %-22s %-22s %-22s %s\n", n, i, pc(l - lm, l), pc(r - rm, r), pc(fn - fm, fn), a
      }' "$out/profiles/$name.txt"
  done
  echo "(per-file tables in $out/profiles/<target>.txt; line by line: $cov show $out/fuzz/<target> -instr-profile=$out/profiles/<target>.profdata)"
}

case $mode in
  ci) run_ci "$@" ;;
  campaign) run_campaign "$@" ;;
  merge) run_merge "$@" ;;
  coverage) run_coverage "$@" ;;
esac
