#!/usr/bin/env bash
# Runs the libFuzzer targets for as long as asked and keeps what grows their corpus.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#     SECONDS   how long each target runs (default 60)
#     TARGET    a target's name, with or without its fuzz_ prefix (default: all of fuzz/fuzz_*.cpp)
#
# Stages: the clang ASan+UBSan fuzz tree (build/asan as CI makes it, or $TARVO_FUZZ_BUILD) made
# or brought up to date; each target run for SECONDS from its corpus in fuzz/corpus/<name>/; the
# inputs that reached new code merged into that corpus. A crash leaves its input in the tree's
# fuzz-artifacts/ and fails the run.
# Duration on 2 cores: the first build some 5 minutes, then SECONDS and a few seconds of merging
# per target (9 targets: about 10 minutes at the default).
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

case "${1:-}" in
  -h | --help) usage; exit 0 ;;
  -*) echo "fuzz.sh: unknown option '$1'" >&2; usage >&2; exit 2 ;;
esac

cd "$top"
seconds=60
if [ $# -gt 0 ] && [[ "$1" =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
build=${TARVO_FUZZ_BUILD:-build/asan}

targets=()
if [ $# -gt 0 ]; then
  for name in "$@"; do targets+=("fuzz_${name#fuzz_}"); done
else
  for src in fuzz/fuzz_*.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

for target in "${targets[@]}"; do
  [ -f "fuzz/$target.cpp" ] || { echo "fuzz.sh: no fuzz target $target (usage: scripts/fuzz.sh [SECONDS] [TARGET...])" >&2; exit 2; }
done
if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DTARVO_SANITIZE=ON -DTARVO_FUZZ=ON -DTARVO_BENCH=OFF >/dev/null
fi
# Ninja rebuilds only what changed since the last run.
ninja -C "$build" -j "$jobs" "${targets[@]}"

# As CI runs them: the targets start with the store's folder in place, so no leak needs a
# suppression that only a full unwind matches; a full unwind on every allocation and a leak scan
# after most inputs would make them ten times slower. Leaks are still checked when a run ends.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:halt_on_error=1:fast_unwind_on_malloc=1"
export LSAN_OPTIONS="suppressions=$top/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
artifacts="$(cd "$build" && pwd)/fuzz-artifacts"
mkdir -p "$artifacts"

failed=0
for target in "${targets[@]}"; do
  corpus="fuzz/corpus/${target#fuzz_}"
  mkdir -p "$corpus"
  work=$(mktemp -d)
  log=$(mktemp)
  echo "-- $target, ${seconds} s from $(find "$corpus" -type f | wc -l) inputs"
  # New inputs go to a scratch folder first; the merge keeps only those that add coverage.
  dict=()
  [ -f "fuzz/$target.dict" ] && dict=(-dict="fuzz/$target.dict")
  if "$build/fuzz/$target" -max_total_time="$seconds" -detect_leaks=0 -artifact_prefix="$artifacts/$target-" "${dict[@]}" \
      -print_final_stats=1 "$work" "$corpus" >"$log" 2>&1; then
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added):' "$log" || true
    before=$(find "$corpus" -type f | wc -l)
    "$build/fuzz/$target" -merge=1 -detect_leaks=0 "$corpus" "$work" >"$log" 2>&1 || { tail -n 20 "$log"; failed=1; }
    echo "   corpus: $before -> $(find "$corpus" -type f | wc -l) inputs"
  else
    tail -n 60 "$log"
    echo "$target failed; the input is in $artifacts/"
    failed=1
  fi
  rm -rf "$work" "$log"
done
exit "$failed"
