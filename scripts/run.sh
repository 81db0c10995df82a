#!/usr/bin/env bash
# Runs the service on an emulated television beside the development cloud:
# builds what it needs, prepares the root, starts tarvo-cloud in the background and
# tarvo-service-host in the foreground with its log on the terminal. Ctrl-C stops both.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

bash scripts/deps.sh
cmake -S . -B build/run -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_TESTS=OFF -DTARVO_BENCH=OFF >/dev/null
ninja -C build/run tarvo-service-host tarvoctl tarvo-cloud tarvodatacontrol

default_root=${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root
root=${TARVO_ROOT:-$default_root}
export TARVO_ROOT="$root"
# A prepared television: its folders (with the USB clone folder's parent) and a device
# profile, TARVO_DEVICE (a name under data/devices/, default retail_uhd) when it has none yet.
mkdir -p "$root/run" "$root/var/vconf/db" "$root/run/vconf/memory" "$root/var/log" "$root/etc/tarvo" \
  "$root/opt/usr/apps/org.mirlo.cloning/data/Clone"
device=${TARVO_DEVICE:-retail_uhd}
if [ ! -e "$root/etc/tarvo/device.json" ]; then
  [ -f "data/devices/$device.json" ] || { echo "run.sh: no device profile data/devices/$device.json" >&2; exit 2; }
  cp "data/devices/$device.json" "$root/etc/tarvo/device.json"
fi
ctl="build/run/tools/tarvoctl"
# A second run on the same root would repoint the running service at its own cloud.
if "$ctl" --root "$root" ping >/dev/null 2>&1; then
  echo "run.sh: a service is already running on $root; stop it (Ctrl-C in its terminal) or choose" \
    "another TARVO_ROOT" >&2
  exit 1
fi
openapi_port=${TARVO_OPENAPI_PORT:-18480}
admin_port=${TARVO_ADMIN_PORT:-18481}

rm -f "$root/run/cloud.json"
build/run/tools/tarvo-cloud --data "$top/data" --openapi-port "$openapi_port" --admin-port "$admin_port" \
  --state-file "$root/run/cloud.json" >"$root/run/cloud.log" 2>&1 &
cloud_pid=$!
trap 'kill "$cloud_pid" 2>/dev/null || true' EXIT
for _ in $(seq 1 50); do
  [ -s "$root/run/cloud.json" ] && break
  if ! kill -0 "$cloud_pid" 2>/dev/null; then
    cat "$root/run/cloud.log"
    echo "run.sh: tarvo-cloud did not start; if another run holds its ports, choose others with" \
      "TARVO_OPENAPI_PORT and TARVO_ADMIN_PORT" >&2
    exit 1
  fi
  sleep 0.1
done
echo "tarvo-cloud: $(cat "$root/run/cloud.json") (log: $root/run/cloud.log)"

# The values a television's server configuration would have set; the user's own choices are kept.
"$ctl" --root "$root" vconf set db/nimbra/gpmurl/apps "http://127.0.0.1:$openapi_port" --type string
set_default() {
  if ! "$ctl" --root "$root" vconf get "$1" >/dev/null 2>&1; then
    "$ctl" --root "$root" vconf set "$1" "$2" --type string
  fi
}
set_default db/nimbra/countrycode US
set_default db/nimbra/modelid UN55
set_default db/nimbra/duid TVDUID0000000001
set_default db/menu_widget/language en_US.utf8

ctl_here="$ctl"
[ "$root" = "$default_root" ] || ctl_here="$ctl --root $root"
echo "device profile: $root/etc/tarvo/device.json (edit it while the service runs)"
echo "in another terminal, from $top: $ctl_here status   (then: list, update, show tnc, agree tnc)"
TARVO_LOG_STDERR=${TARVO_LOG_STDERR:-1} build/run/host/tarvo-service-host \
  --module build/run/src/libtarvodatacontrol.so --root "$root"
