#!/usr/bin/env bash
# Runs the service on an emulated television beside the development cloud.
#
#   scripts/run.sh [--fresh]
#     --fresh   start from an empty root, as a new television
#
# Stages: the packages building and running need (scripts/deps.sh run; nothing is asked of
# apt-get when they are present); a build of the host, the module and the tools into build/run;
# the root prepared; tarvo-cloud and tarvo-screen started in the background and
# tarvo-service-host in the foreground. Ctrl-C stops all three.
# Duration on 2 cores: the first build some 5 minutes, later starts a few seconds.
# The terminal shows warnings, errors and one line per transfer; TARVO_LOG_LEVEL=info (or debug)
# shows more. ROOT/var/log/tarvo.log gets every line (1 MiB a file, 4 files: TARVO_LOG_MAX_BYTES,
# TARVO_LOG_FILES); tarvoctl log reads it.
# TARVO_RUN_SKIP_BUILD=1 uses the binaries already built in TARVO_RUN_BUILD_DIR (default build/run).
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

fresh=0
for arg in "$@"; do
  case "$arg" in
    --fresh) fresh=1 ;;
    -h | --help)
      usage
      exit 0
      ;;
    *)
      echo "run.sh: unknown argument '$arg' (usage: scripts/run.sh [--fresh])" >&2
      exit 2
      ;;
  esac
done

cd "$top"

build=${TARVO_RUN_BUILD_DIR:-build/run}
if [ "${TARVO_RUN_SKIP_BUILD:-0}" != 1 ]; then
  if ! bash scripts/deps.sh run; then
    echo "run.sh: the packages above are needed to build and run the service; install them, then" \
      "run scripts/run.sh again" >&2
    exit 1
  fi
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_TESTS=OFF -DTARVO_BENCH=OFF >/dev/null
  ninja -C "$build" tarvo-service-host tarvoctl tarvo-cloud tarvodatacontrol tarvo-screen tarvo-logctl
fi

default_root=${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root
root=${TARVO_ROOT:-$default_root}
export TARVO_ROOT="$root"
ctl="$build/tools/tarvoctl"
# A second run on the same root would repoint the running service at its own cloud.
if "$ctl" --root "$root" ping >/dev/null 2>&1; then
  echo "run.sh: a service is already running on $root; stop it (Ctrl-C in its terminal) or choose" \
    "another TARVO_ROOT" >&2
  exit 1
fi
if [ "$fresh" = 1 ]; then
  case "$root" in
    "" | "/") echo "run.sh: refusing to remove the root '$root'" >&2; exit 2 ;;
  esac
  rm -rf -- "$root"
  echo "run.sh: removed $root, starting from a new television"
fi
# A prepared television: its folders (with the USB clone folder's parent) and a device
# profile, TARVO_DEVICE (a name under data/devices/, default retail_uhd) when it has none yet.
mkdir -p "$root/run" "$root/var/vconf/db" "$root/run/vconf/memory" "$root/var/log" "$root/etc/tarvo" \
  "$root/opt/usr/apps/org.mirlo.cloning/data/Clone"
device=${TARVO_DEVICE:-retail_uhd}
if [ ! -e "$root/etc/tarvo/device.json" ]; then
  [ -f "data/devices/$device.json" ] || { echo "run.sh: no device profile data/devices/$device.json" >&2; exit 2; }
  cp "data/devices/$device.json" "$root/etc/tarvo/device.json"
fi
openapi_port=${TARVO_OPENAPI_PORT:-18480}
admin_port=${TARVO_ADMIN_PORT:-18481}
production_port=${TARVO_PRODUCTION_PORT:-18443}
staging_port=${TARVO_STAGING_PORT:-18444}

# The cloud points the device profile at its agreement and log servers and at its CA, which
# it keeps in the root so that later runs reuse it, as they reuse the versions it published.
rm -f "$root/run/cloud.json"
"$build/tools/tarvo-cloud" --data "$top/data" --openapi-port "$openapi_port" --admin-port "$admin_port" \
  --production-port "$production_port" --staging-port "$staging_port" --tls-dir "$root/run/cloud-tls" \
  --write-profile "$root/etc/tarvo/device.json" --state-file "$root/run/cloud.json" \
  --state-dir "$root/run/cloud-state" >"$root/run/cloud.log" 2>&1 &
cloud_pid=$!
screen_pid=
trap 'kill "$cloud_pid" $screen_pid 2>/dev/null || true' EXIT
for _ in $(seq 1 50); do
  [ -s "$root/run/cloud.json" ] && break
  if ! kill -0 "$cloud_pid" 2>/dev/null; then
    cat "$root/run/cloud.log"
    echo "run.sh: tarvo-cloud did not start; if another run holds its ports, choose others with" \
      "TARVO_OPENAPI_PORT, TARVO_ADMIN_PORT, TARVO_PRODUCTION_PORT and TARVO_STAGING_PORT" >&2
    exit 1
  fi
  sleep 0.1
done
[ -s "$root/run/cloud.json" ] || { echo "run.sh: tarvo-cloud wrote no ports line" >&2; exit 1; }
echo "tarvo-cloud: $(cat "$root/run/cloud.json") (log: $root/run/cloud.log)"

# The usage-log policy, pointing the loggers at the production log server the cloud plays.
bound_port() { grep -o "\"$1\":[0-9]*" "$root/run/cloud.json" | cut -d: -f2; }
bound_production=$(bound_port production)
mkdir -p "$root/opt/down/common"
sed "s|@LOG_HOST@|127.0.0.1:$bound_production|g" data/LogPolicyConfig.xml \
  >"$root/opt/down/common/LogPolicyConfig.xml"

# The values a television's server configuration would have set; the user's own choices are kept.
# The bound port, since a port of 0 lets the cloud pick a free one.
"$ctl" --root "$root" vconf set db/nimbra/gpmurl/apps "http://127.0.0.1:$(bound_port openapi)" --type string
set_default() {
  if ! "$ctl" --root "$root" vconf get "$1" >/dev/null 2>&1; then
    "$ctl" --root "$root" vconf set "$1" "$2" --type string
  fi
}
set_default db/nimbra/countrycode US
set_default db/nimbra/modelid TRV55Q9
set_default db/nimbra/duid TVDUID0000000001
set_default db/menu_widget/language en_US.utf8

ctl_here="$ctl"
[ "$root" = "$default_root" ] || ctl_here="$ctl --root $root"
echo "device profile: $root/etc/tarvo/device.json (edit it while the service runs)"
echo "in another terminal, from $top: $ctl_here status   (then: list, update, show tnc, agree tnc)"
bound_admin=$(bound_port admin)
echo "what the cloud received: curl -s http://127.0.0.1:$bound_admin/admin/agreements (uploaded answers)"
echo "                         curl -s http://127.0.0.1:$bound_admin/admin/log-events (usage events)"
# The television's screens in a browser; they find the host by themselves once it is up.
screen_port=${TARVO_SCREEN_PORT:-18482}
"$build/tools/tarvo-screen" --root "$root" --port "$screen_port" >"$root/run/screen.log" 2>&1 &
screen_pid=$!
if [ "$screen_port" = 0 ]; then
  echo "the television's screens: the URL on the first line of $root/run/screen.log (tarvo-screen)"
else
  echo "the television's screens: http://127.0.0.1:$screen_port/ (tarvo-screen; log: $root/run/screen.log)"
fi
# The terminal shows warnings, errors and each transfer's outcome (TARVO_LOG_LEVEL shows more); the
# log file keeps every line (tarvoctl log --level debug).
TARVO_LOG_STDERR=${TARVO_LOG_STDERR:-1} "$build/host/tarvo-service-host" \
  --module "$build/src/libtarvodatacontrol.so" --root "$root"
