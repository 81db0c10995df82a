#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs every one of them, then prints one table of every
# figure beside its floor (the same work done by the bare libraries, measured in the same run)
# and their ratio.
#
#   scripts/bench.sh [--quick] [--json FILE] [--build-dir DIR] [--only NAME]...
#     --quick        a tiny iteration count: proves each benchmark runs, measures nothing
#     --json FILE    also write the table as one JSON document
#     --build-dir    build there (default build/bench); an existing build keeps its own settings
#     --only NAME    run only bench_NAME (queries, answers, sync, startup, upload, memory,
#                    connector, platform); may be given more than once
# The machine is shared: run it on an otherwise idle machine for figures worth quoting.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
build=build/bench
json=""
quick=()
only=()
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=(--quick) ;;
    --json) json=$2; shift ;;
    --build-dir) build=$2; shift ;;
    --only) only+=("$2"); shift ;;
    -h|--help) sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

names=(queries answers sync startup upload memory connector platform)
[ ${#only[@]} -gt 0 ] && names=("${only[@]}")
targets=()
for name in "${names[@]}"; do targets+=("bench_$name"); done

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
ninja -C "$build" -j "${TARVO_JOBS:-2}" "${targets[@]}"

report=$(mktemp)
trap 'rm -f "$report"' EXIT
failed=0
for name in "${names[@]}"; do
  echo
  echo "== bench_$name"
  start=$(date +%s)
  if ! "$build/bench/bench_$name" "${quick[@]}" --report "$report"; then
    echo "bench_$name failed"
    failed=1
  fi
  echo "== bench_$name done in $(( $(date +%s) - start )) s"
done

echo
table=("$build/bench/bench_table" "$report")
[ -n "$json" ] && table+=(--json "$json")
"${table[@]}"
exit "$failed"
