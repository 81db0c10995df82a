#!/usr/bin/env bash
# Runs tarvo-service-host under valgrind's memcheck against tarvo-cloud on loopback, on a fresh
# emulated television. Fails on a definite leak or a memory error; the leaks that the service's
# definition requires are suppressed in tests/valgrind.supp. Not part of CI: memcheck makes the
# service some 30 times slower.
#
#   scripts/valgrind.sh   (no arguments; TARVO_JOBS: build jobs, default nproc)
#
# Stages: a build of the host, the module and the tools into build/valgrind; the cloud started;
# the host started under memcheck, offline; the network brought up (the start's sync), an
# update, an answer and its upload to the cloud; a stop, and memcheck's summary.
# Duration on 2 cores: the first build some 5 minutes, the run under memcheck 1 to 2 minutes.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

takes_no_arguments "$@"

cd "$top"
build=build/valgrind

for tool in valgrind jq curl; do
  command -v "$tool" >/dev/null || { echo "valgrind.sh: $tool is missing (apt-get install $tool)" >&2; exit 2; }
done
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_TESTS=OFF -DTARVO_BENCH=OFF >/dev/null
ninja -C "$build" -j "$jobs" tarvo-service-host tarvoctl tarvo-cloud tarvodatacontrol

root=$(mktemp -d /tmp/tarvo-valgrind-XXXXXX)
export TARVO_ROOT="$root"
cloud_pid=""
host_pid=""
cleanup() {
  for pid in $host_pid $cloud_pid; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf -- "$root"
}
trap cleanup EXIT
fail() {
  echo "valgrind.sh: $1" >&2
  for log in "$root/memcheck.log" "$root/host.err" "$root/cloud.err"; do
    [ -f "$log" ] && { echo "--- $log"; tail -n 80 "$log"; }
  done
  exit 1
}

ctl() { "$build/tools/tarvoctl" --root "$root" "$@"; }
# Polls `$@` every 0.2 s for up to $1 seconds.
wait_for() {
  local seconds=$1
  shift
  for _ in $(seq 1 $((seconds * 5))); do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.2
  done
  return 1
}

# A new television, offline at start so that the sync and the upload come when this script says.
mkdir -p "$root/run" "$root/var/vconf/db" "$root/run/vconf/memory" "$root/var/log" "$root/etc/tarvo" \
  "$root/opt/usr/apps/org.mirlo.cloning/data/Clone"
jq '.network.up = false' data/devices/retail_uhd.json >"$root/etc/tarvo/device.json"
"$build/tools/tarvo-cloud" --data "$top/data" --tls-dir "$root/cloud-tls" \
  --write-profile "$root/etc/tarvo/device.json" --state-file "$root/cloud.json" >/dev/null 2>"$root/cloud.err" &
cloud_pid=$!
wait_for 20 test -s "$root/cloud.json" || fail "tarvo-cloud wrote no ports line"
admin="http://127.0.0.1:$(jq -r .admin "$root/cloud.json")"
ctl vconf set db/nimbra/gpmurl/apps "http://127.0.0.1:$(jq -r .openapi "$root/cloud.json")" --type string
ctl vconf set db/nimbra/countrycode US --type string
ctl vconf set db/nimbra/modelid TRV55Q9 --type string
ctl vconf set db/nimbra/duid DUID-VALGRIND --type string
ctl vconf set db/menu_widget/language en_US.utf8 --type string

# Connections and TLS handshakes are slow under memcheck: give the HTTP client's time-outs room.
TARVO_TIMEOUT_SCALE=5 valgrind --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=1 \
  -v --num-callers=40 --suppressions="$top/tests/valgrind.supp" --log-file="$root/memcheck.log" \
  "$build/host/tarvo-service-host" --module "$build/src/libtarvodatacontrol.so" --root "$root" \
  >/dev/null 2>"$root/host.err" &
host_pid=$!
wait_for 120 ctl ping || fail "the host did not answer under valgrind"
available() { ctl call '{"method": "is service available"}' | jq -e '.result == true'; }
wait_for 60 available || fail "the service did not become available"

# Coming online runs the start's sync and creates the upload service; a requested update is a second sync.
ctl network up ethernet
ctl update --timeout 120 >/dev/null || fail "the sync did not succeed"
ctl agree tnc >/dev/null || fail "the answer was refused"
uploaded() { curl -sf "$admin/admin/agreements" | jq -e '.production["DUID-VALGRIND"].terms.tnc.agree == "Y"'; }
wait_for 120 uploaded || fail "the answer never reached the agreement server"

kill -TERM "$host_pid"
status=0
wait "$host_pid" || status=$?
host_pid=""
if [ "$status" -ne 0 ]; then
  fail "memcheck found errors or the host failed (exit $status)"
fi
grep -E "definitely lost:|ERROR SUMMARY|used_suppression" "$root/memcheck.log" | sed -E 's/^(==|--)[0-9]+(==|--) *//;s/^used_suppression: */suppressed: /' | sort -u
echo "valgrind.sh: no definite leak and no memory error"
