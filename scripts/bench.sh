#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them, then prints one table of every figure beside
# its floor (the same work done by the bare libraries, measured in the same run) and their ratio;
# with several record counts also the curve: each figure at each count and what a record adds.
#
#   scripts/bench.sh [--quick] [--json FILE] [--build-dir DIR] [--only NAME]... [--records N[,N...]|--curve]
#     --quick        a tiny iteration count: proves each benchmark runs, measures nothing
#     --json FILE    also write the table as one JSON document
#     --build-dir    build there (default build/bench); an existing build keeps its own settings
#     --only NAME    run only bench_NAME (queries, answers, sync, startup, upload, memory,
#                    connector, platform); may be given more than once
#     --records LIST run the roads with each record count of the comma-separated LIST (at least 21;
#                    default 21): the cloud's answer and the seeded store hold that many records,
#                    the 21 the service knows and copies of a listed one. The roads that hold no
#                    records (connector, platform) run at the first count only.
#     --curve        --records 21,200,2000
#     -h, --help     this text; builds and starts nothing
#
# Stages: (1) configure build/bench once (Release) and build the benchmark programs, the host, the
# module and tarvo-cloud with ninja -j${TARVO_JOBS:-2}; (2) for each record count, run each program
# (each starts its own tarvo-cloud and tarvo-service-host on loopback, in a temporary root under
# $TMPDIR, and stops them); (3) print the table, and the curve when there are several counts.
# Rough duration on 2 cores: the build 4-8 minutes from scratch (less with a warm ccache); one run
# at 21 records about 4 minutes; --curve about 15 minutes (the 2,000-record roads move a 37 MB
# answer per sync and copy 2,000 records per query); --quick under a minute a count.
# Figure and floor always run by turns or in shuffled repetitions and their medians are compared,
# but on a shared machine both still drift: say so when quoting them.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

usage() { sed -n '2,27p' "$0" | sed 's/^# \{0,1\}//'; }

cd "$top"
build=build/bench
json=""
quick=()
only=()
records="21"
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=(--quick) ;;
    --json) json=${2:?--json needs a file}; shift ;;
    --build-dir) build=${2:?--build-dir needs a folder}; shift ;;
    --only) only+=("${2:?--only needs a name}"); shift ;;
    --records) records=${2:?--records needs a count}; shift ;;
    --curve) records="21,200,2000" ;;
    -h|--help) usage; exit 0 ;;
    *) echo "bench.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

IFS=, read -r -a counts <<< "$records"
for count in "${counts[@]}"; do
  if ! [[ "$count" =~ ^[0-9]+$ ]] || [ "$count" -lt 21 ]; then
    echo "bench.sh: a record count is a whole number of at least 21, not '$count'" >&2
    exit 2
  fi
done

all=(queries answers sync startup upload memory connector platform)
# The roads whose work does not hold records: run at the first count only.
fixed=" connector platform "
names=("${all[@]}")
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
first=1
for count in "${counts[@]}"; do
  for name in "${names[@]}"; do
    if [ "$first" -eq 0 ] && [[ "$fixed" == *" $name "* ]]; then continue; fi
    echo
    echo "== bench_$name, $count records"
    start=$(date +%s)
    if ! "$build/bench/bench_$name" "${quick[@]}" --records "$count" --report "$report"; then
      echo "bench_$name failed at $count records"
      failed=1
    fi
    echo "== bench_$name done in $(( $(date +%s) - start )) s"
  done
  first=0
done

echo
table=("$build/bench/bench_table" "$report")
[ -n "$json" ] && table+=(--json "$json")
"${table[@]}"
exit "$failed"
