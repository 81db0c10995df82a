#!/usr/bin/env bash
# Line and branch coverage of every test, per folder, with an HTML report.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<'EOF'
usage: scripts/coverage.sh [--jobs N] [--no-build] [--tests REGEX]

Measures how much of src/, host/, platform/ and tools/ the whole test suite runs.

Stages:
  1. gcovr        installs the Debian package gcovr when it is missing (apt-get)
  2. configure    gcc with --coverage and TARVO_COVERAGE (programs that leave by _exit
                  write their counters first), -O0, no benchmarks, into build/coverage
  3. build        ninja, every target
  4. tests        removes old counters, then runs every ctest test (-j N); a failing test
                  is reported at the end and makes the script fail, the figures still print
  5. report       line and branch coverage per folder, the floors below, and
                  build/coverage/html/index.html; branches only an exception takes, and those
                  of lines with nothing but braces, are left aside (scripts/coverage_throws.py)

Floors: src/ and host/ 90% of lines and 75% of branches; platform/ and tools/ 80% of lines.
A figure under its floor is printed with "below"; it does not fail the script.

Options:
  --jobs N       parallel jobs for ninja and ctest (default: TARVO_JOBS or nproc)
  --no-build     skip stages 2 and 3 and use build/coverage as it is
  --tests REGEX  run only the ctest tests matching REGEX (figures then cover those alone)

Takes about 20 minutes on a busy 2-core machine from an empty cache (16 to build, 2 to 3 for
the tests, the browser and power-cut tests included, 1 for the report), and 2 minutes when the
build is warm. Starts nothing with --help.
EOF
}

build=1
tests_regex=""
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) usage; exit 0 ;;
    --jobs) jobs=$2; shift 2 ;;
    --no-build) build=0; shift ;;
    --tests) tests_regex=$2; shift 2 ;;
    *) echo "coverage.sh: unknown option $1" >&2; usage >&2; exit 2 ;;
  esac
done
cd "$top"
dir=build/coverage

stage "gcovr"
if ! command -v gcovr >/dev/null; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd=sudo
  $sudo_cmd apt-get install -y --no-install-recommends gcovr >/dev/null
fi
gcovr --version | head -n 1
stage_done

if [ "$build" -eq 1 ]; then
  stage "configure"
  flags="--coverage -O0 -DTARVO_COVERAGE"
  launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTARVO_BENCH=OFF \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ "${launcher[@]}" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    -DCMAKE_MODULE_LINKER_FLAGS=--coverage >/dev/null
  stage_done

  stage "build"
  ninja -C "$dir" -j "$jobs"
  stage_done
fi

stage "tests"
find "$dir" -name '*.gcda' -delete
tests_failed=0
ctest_args=(--test-dir "$dir" -j "$jobs" --timeout 300 --output-on-failure)
[ -n "$tests_regex" ] && ctest_args+=(-R "$tests_regex")
ctest "${ctest_args[@]}" >"$dir/ctest.log" 2>&1 || tests_failed=1
tail -n 4 "$dir/ctest.log"
stage_done

stage "report"
mkdir -p "$dir/html"
gcovr --root "$top" --object-directory "$dir" -j "$jobs" \
  --filter 'src/' --filter 'host/' --filter 'platform/' --filter 'tools/' \
  --gcov-ignore-parse-errors --json "$dir/all.json" >"$dir/gcovr.log" 2>&1 ||
  { tail -n 20 "$dir/gcovr.log"; exit 1; }
python3 scripts/coverage_throws.py "$dir" "$dir/all.json" "$dir/counted.json"
gcovr --root "$top" --add-tracefile "$dir/counted.json" \
  --json-summary "$dir/summary.json" --json-summary-pretty \
  --html-details "$dir/html/index.html" >>"$dir/gcovr.log" 2>&1 ||
  { tail -n 20 "$dir/gcovr.log"; exit 1; }
python3 - "$dir/summary.json" <<'EOF'
import json, sys
floors = {"src": (90, 75), "host": (90, 75), "platform": (80, None), "tools": (80, None)}
totals = {}
for f in json.load(open(sys.argv[1]))["files"]:
    folder = f["filename"].split("/", 1)[0]
    t = totals.setdefault(folder, [0, 0, 0, 0])
    t[0] += f["line_covered"]; t[1] += f["line_total"]
    t[2] += f["branch_covered"]; t[3] += f["branch_total"]
print(f"{'folder':10} {'lines':>18} {'branches':>18}")
for folder in ["src", "host", "platform", "tools"]:
    lc, lt, bc, bt = totals.get(folder, [0, 0, 0, 0])
    lp = 100.0 * lc / lt if lt else 0.0
    bp = 100.0 * bc / bt if bt else 0.0
    line_floor, branch_floor = floors[folder]
    note = []
    if lp < line_floor: note.append(f"lines below {line_floor}%")
    if branch_floor is not None and bp < branch_floor: note.append(f"branches below {branch_floor}%")
    print(f"{folder + '/':10} {lp:6.1f}% {lc:5}/{lt:<5} {bp:6.1f}% {bc:5}/{bt:<5} {'; '.join(note)}")
EOF
echo "HTML report: $dir/html/index.html"
stage_done

if [ "$tests_failed" -ne 0 ]; then
  echo "some tests failed; see $dir/ctest.log" >&2
  grep -E '^\s+[0-9]+ - ' "$dir/ctest.log" >&2 || true
  exit 1
fi
