#!/usr/bin/env bash
# Builds everything and runs every test; this is what CI runs. A test failure or a sanitizer
# report ends it non-zero.
#
#   scripts/test.sh
#
# Stages, each printed with its time (rough durations on 2 cores, compiler cache warm; a cold
# cache adds some minutes to each build):
#   dependencies                 every package the tests need (scripts/deps.sh test)   ~1 s
#   gcc build                    everything, with the tests and benchmarks             ~1 min
#   gcc: all tests               unit, integration, end-to-end and browser tests       ~3 min
#   benchmarks                   each once with a tiny iteration count                 ~30 s
#   clang ASan+UBSan build       with the fuzz targets                                 ~1 min
#   ASan+UBSan tests             unit and integration tests                            ~1 min
#   ThreadSanitizer              build and the concurrency stress tests                ~1 min
#   fuzz targets                 each for TARVO_FUZZ_SECONDS (default 20)              ~3 min
#   armhf                        cross build, unit and integration tests under qemu    ~5 min
#                                (scripts/cross.sh armhf)
#   packages                     Debian packages, lintian, installed into a throw-away ~3 min
#                                root and started there (scripts/package.sh)
# Duration: about 20 minutes in all on 2 cores. TARVO_JOBS sets the build and test jobs (default nproc).
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

takes_no_arguments "$@"

cd "$top"
fuzz_seconds=${TARVO_FUZZ_SECONDS:-20}

stage "dependencies"
bash scripts/deps.sh test
stage_done

stage "gcc build"
cmake -S . -B build/gcc -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null
ninja -C build/gcc -j "$jobs"
stage_done

stage "gcc: all tests"
ctest --test-dir build/gcc -j "$jobs" --timeout 180 --output-on-failure
stage_done

stage "benchmarks: each once with a tiny iteration count"
# Built in the gcc stage; run here so that none rots. Their figures are not judged: scripts/bench.sh
# measures, in release mode.
TARVO_JOBS="$jobs" scripts/bench.sh --quick --build-dir build/gcc
stage_done

stage "clang ASan+UBSan build"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTARVO_SANITIZE=ON -DTARVO_FUZZ=ON -DTARVO_BENCH=OFF >/dev/null
ninja -C build/asan -j "$jobs"
stage_done

stage "ASan+UBSan: unit and integration tests"
# Full unwinding on malloc, so that suppressions naming our functions match through libraries
# built without frame pointers.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:halt_on_error=1:fast_unwind_on_malloc=0"
export LSAN_OPTIONS="suppressions=$top/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir build/asan -L 'unit|integration' -j "$jobs" --timeout 300 --output-on-failure
stage_done

stage "ThreadSanitizer: concurrency stress tests"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTARVO_SANITIZE_THREAD=ON -DTARVO_BENCH=OFF >/dev/null
# The store's own stress test, and eight clients on the host's server in one process with the
# service, under power and network changes (the cloud it syncs with runs beside it).
ninja -C build/tsan -j "$jobs" unit_service stress
TSAN_OPTIONS="halt_on_error=1:suppressions=$top/tests/tsan.supp" \
  ctest --test-dir build/tsan -R 'Concurren|^Stress\.' -j "$jobs" --timeout 300 --output-on-failure
stage_done

stage "fuzz targets, ${fuzz_seconds} s each"
# The targets start with the store's folder in place, so no leak needs a suppression that only a
# full unwind matches; a full unwind on every allocation and a leak scan after most inputs would
# make them ten times slower. Leaks are still checked when each run ends.
export ASAN_OPTIONS="${ASAN_OPTIONS/fast_unwind_on_malloc=0/fast_unwind_on_malloc=1}"
shopt -s nullglob
ran=0
for target in build/asan/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="fuzz/corpus/${name#fuzz_}"
  work=$(mktemp -d)
  cp -r "$corpus"/. "$work"/ 2>/dev/null || true
  echo "-- $name"
  TARVO_ROOT=$(mktemp -d) "$target" -max_total_time="$fuzz_seconds" -detect_leaks=0 -print_final_stats=0 $([ -f "fuzz/$name.dict" ] && echo "-dict=fuzz/$name.dict") "$work" \
    >"$work.log" 2>&1 || { tail -n 60 "$work.log"; echo "$name failed"; exit 1; }
  rm -rf "$work" "$work.log"
  ran=$((ran + 1))
done
echo "$ran fuzz targets ran clean"
stage_done

stage "armhf: cross build, unit and integration tests under qemu-user"
TARVO_JOBS="$jobs" scripts/cross.sh armhf
stage_done

stage "Debian packages: build, lintian, install into a throw-away root and start"
TARVO_JOBS="$jobs" scripts/package.sh amd64
stage_done
