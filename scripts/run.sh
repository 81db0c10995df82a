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

root=${TARVO_ROOT:-${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root}
export TARVO_ROOT="$root"
mkdir -p "$root/run"
openapi_port=${TARVO_OPENAPI_PORT:-18480}
admin_port=${TARVO_ADMIN_PORT:-18481}
ctl="build/run/tools/tarvoctl"

rm -f "$root/run/cloud.json"
build/run/tools/tarvo-cloud --data "$top/data" --openapi-port "$openapi_port" --admin-port "$admin_port" \
  --state-file "$root/run/cloud.json" >"$root/run/cloud.log" 2>&1 &
cloud_pid=$!
trap 'kill "$cloud_pid" 2>/dev/null || true' EXIT
for _ in $(seq 1 50); do
  [ -s "$root/run/cloud.json" ] && break
  kill -0 "$cloud_pid" 2>/dev/null || { cat "$root/run/cloud.log"; exit 1; }
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

echo "tarvo-service-host: root $root; in another terminal try: $ctl status"
TARVO_LOG_STDERR=${TARVO_LOG_STDERR:-1} build/run/host/tarvo-service-host \
  --module build/run/src/libtarvodatacontrol.so --root "$root"
