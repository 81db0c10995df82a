#!/usr/bin/env bash
# Makes the Debian packages of what ships into build/packages/, checks them with lintian, and
# installs them into a throw-away root to start the installed programs from there.
#
#   scripts/package.sh [amd64|armhf|arm64] [--no-test]
#     amd64 (default) the build machine's architecture; armhf/arm64 from the cross build
#                     (the sysroot of scripts/cross.sh; the installed programs run under qemu-user)
#     --no-test       make and lint the packages only
#   Packages: tarvodatacontrol (module, platform library, tarvo-service-host),
#   tarvodatacontrol-tools (tarvoctl, tarvo-screen and its page, tarvo-logctl), tarvo-cloud
#   (the development cloud and its data). Stages: dependencies (dpkg-dev, lintian; apt-get, skips
#   what is installed); a release build in build/package-ARCH with TARVO_PACKAGING=ON, so the
#   programs look for their data only where they are installed; CPack's DEB generator with
#   dpkg-shlibdeps (a cross build takes the Depends computed for the same sonames on amd64 and
#   fails if the sonames differ); lintian (an error fails); the installed test (dpkg --root).
#   Rough duration on 2 cores: 7-8 min per architecture from a cold ccache, 1 min warm; test 10-20 s.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

arch=$(dpkg --print-architecture)
native=$arch
test=1
for arg in "$@"; do
  case "$arg" in
    amd64 | armhf | arm64) arch=$arg ;;
    --no-test) test=0 ;;
    -h | --help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "package.sh: unknown argument '$arg' (see scripts/package.sh --help)" >&2; exit 2 ;;
  esac
done

cd "$top"
out=build/packages
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$top} CCACHE_DIR=${CCACHE_DIR:-$HOME/.ccache}

stage "dependencies"
bash scripts/deps.sh
missing=()
for p in dpkg-dev lintian xz-utils file; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq || true
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
stage_done

targets=(tarvodatacontrol tarvo-platform tarvo-service-host tarvoctl tarvo-screen tarvo-logctl tarvo-cloud)
# Makes the packages of one architecture from build/package-ARCH; extra arguments go to cmake.
make_packages() {
  local a=$1
  shift
  local build=build/package-$a
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DTARVO_PACKAGING=ON -DTARVO_TESTS=OFF -DTARVO_BENCH=OFF \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@" >/dev/null
  ninja -C "$build" -j "$jobs" "${targets[@]}"
  mkdir -p "$out"
  rm -f "$out"/*_"$a".deb
  (cd "$build" && cpack -G DEB -B "$top/$out" >/dev/null)
  rm -rf "$out/_CPack_Packages"
}

# The sonames a package's programs and libraries need, one per line.
needed_sonames() {
  local dir
  dir=$(mktemp -d)
  dpkg-deb -x "$1" "$dir"
  find "$dir" -type f -exec sh -c 'file -b "$1" | grep -q ELF && objdump -p "$1"' _ {} \; 2>/dev/null |
    awk '/NEEDED/ {print $2}' | grep -v '^libtarvo\|^ld-linux' | sort -u
  rm -rf "$dir"
}

stage "$arch: build and packages"
if [ "$arch" = "$native" ]; then
  make_packages "$arch"
else
  # dpkg knows nothing of the sysroot's libraries, so Depends come from the native packages of
  # the same sources: the same release, the same sonames (checked below).
  [ -n "$(ls "$out"/*_"$native".deb 2>/dev/null)" ] || make_packages "$native"
  bash scripts/cross.sh "$arch" --sysroot-only
  depends=()
  for component in runtime:tarvodatacontrol tools:tarvodatacontrol-tools cloud:tarvo-cloud; do
    name=${component#*:}
    upper=$(echo "${component%%:*}" | tr a-z A-Z)
    value=$(dpkg-deb -f "$(ls "$out/${name}"_*_"$native".deb)" Depends | sed 's/, tarvodatacontrol ([^)]*)//; s/^tarvodatacontrol ([^)]*), //')
    depends+=("-DTARVO_PACKAGE_DEPENDS_$upper=$value")
  done
  make_packages "$arch" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-$arch.cmake" "${depends[@]}"
  for name in tarvodatacontrol tarvodatacontrol-tools tarvo-cloud; do
    if ! diff <(needed_sonames "$(ls "$out/${name}"_*_"$native".deb)") \
      <(needed_sonames "$(ls "$out/${name}"_*_"$arch".deb)"); then
      echo "package.sh: $name needs other libraries on $arch than on $native; its Depends would be wrong" >&2
      exit 1
    fi
  done
fi
for deb in "$out"/*_"$arch".deb; do
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
done
stage_done

stage "$arch: lintian"
# Errors fail; warnings are printed.
lintian --fail-on error --suppress-tags no-manual-page "$out"/*_"$arch".deb
echo "lintian: no error"
stage_done

[ "$test" = 1 ] || exit 0

stage "$arch: installed into a throw-away root"
scratch=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$scratch"
}
trap cleanup EXIT
fs=$scratch/fs
mkdir -p "$fs/var/lib/dpkg/info" "$fs/var/lib/dpkg/updates" "$fs/bin" "$fs/sbin" "$fs/etc"
: >"$fs/var/lib/dpkg/status"
# dpkg runs the maintainer scripts (CPack's ldconfig call) inside the root: a shell and ldconfig
# of the build machine, with the libraries the shell needs, are all they use.
cp "$(readlink -f /bin/sh)" "$fs/bin/sh"
cp "$(readlink -f /sbin/ldconfig)" "$fs/sbin/ldconfig"
for lib in $(ldd /bin/sh | grep -o '/[^ ]*'); do
  mkdir -p "$fs$(dirname "$lib")"
  cp -L "$lib" "$fs$lib"
done
run=()
if [ "$arch" != "$native" ]; then
  run=("$(command -v "$([ "$arch" = armhf ] && echo qemu-arm || echo qemu-aarch64)")" -L "$top/build/sysroot/$arch")
  dpkg_arch=(--force-architecture)
else
  dpkg_arch=()
  # Every Depends must be one this machine's apt can meet.
  apt-get install -s -qq "$top/$out"/*_"$arch".deb >/dev/null
fi
# The root holds no libc and friends: their packages are checked above, not installed there.
dpkg --root="$fs" --force-depends --force-not-root --log=/dev/null "${dpkg_arch[@]}" -i "$out"/*_"$arch".deb \
  >"$scratch/dpkg.out" 2>&1 || { cat "$scratch/dpkg.out"; echo "package.sh: dpkg -i failed" >&2; exit 1; }
echo "installed into $fs:"
dpkg --root="$fs" -L tarvodatacontrol tarvodatacontrol-tools tarvo-cloud | grep -E '/bin/|\.so$|/web/index.html|/openapi$' |
  sed 's/^/  /'
bin=$fs/usr/bin
for program in tarvo-service-host tarvoctl tarvo-screen tarvo-logctl tarvo-cloud; do
  "${run[@]}" "$bin/$program" --help >"$scratch/help" 2>&1 || { cat "$scratch/help"; echo "$program --help failed" >&2; exit 1; }
  echo "$program --help: $(head -n 1 "$scratch/help")"
done
# The cloud from its installed data, the host with the installed module, a sync through both.
tv=$scratch/tv
mkdir -p "$tv/etc/tarvo" "$tv/run" "$tv/var/log"
cp "$fs/usr/share/tarvo/data/devices/retail_uhd.json" "$tv/etc/tarvo/device.json"
"${run[@]}" "$bin/tarvo-cloud" --openapi-port 0 --admin-port 0 --production-port 0 --staging-port 0 \
  --tls-dir "$scratch/tls" --write-profile "$tv/etc/tarvo/device.json" --state-file "$scratch/cloud.json" \
  >"$scratch/cloud.out" 2>&1 &
pids+=($!)
for _ in $(seq 1 300); do
  [ -s "$scratch/cloud.json" ] && break
  sleep 0.1
done
port=$(grep -o '"openapi":[0-9]*' "$scratch/cloud.json" 2>/dev/null | cut -d: -f2)
[ -n "$port" ] || { cat "$scratch/cloud.out"; echo "package.sh: the installed cloud did not start" >&2; exit 1; }
ctl=("${run[@]}" "$bin/tarvoctl" --root "$tv")
"${ctl[@]}" vconf set db/nimbra/gpmurl/apps "http://127.0.0.1:$port" --type string >/dev/null
"${ctl[@]}" vconf set db/nimbra/countrycode US --type string >/dev/null
"${ctl[@]}" vconf set db/nimbra/modelid TRV55Q9 --type string >/dev/null
"${ctl[@]}" vconf set db/nimbra/duid TVDUID0000000001 --type string >/dev/null
"${ctl[@]}" vconf set db/menu_widget/language en_US.utf8 --type string >/dev/null
"${run[@]}" "$bin/tarvo-service-host" --module "$fs/usr/lib/tarvodatacontrol/libtarvodatacontrol.so" --root "$tv" \
  >"$scratch/host.out" 2>&1 &
pids+=($!)
ok=0
for _ in $(seq 1 300); do
  if "${ctl[@]}" ping >/dev/null 2>&1; then ok=1; break; fi
  sleep 0.1
done
[ "$ok" = 1 ] || { cat "$scratch/host.out"; echo "package.sh: the installed host did not answer" >&2; exit 1; }
echo "tarvo-cloud: $(cat "$scratch/cloud.json")"
# The start's own sync fills the store from the cloud.
synced=0
for _ in $(seq 1 600); do
  if "${ctl[@]}" status 2>/dev/null | grep -q 'disclaimers .*all [1-9]'; then synced=1; break; fi
  sleep 0.2
done
"${ctl[@]}" status
[ "$synced" = 1 ] || { cat "$scratch/host.out" | tail -n 20; echo "package.sh: the installed service synced nothing" >&2; exit 1; }
for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
pids=()
dpkg --root="$fs" --force-depends --force-not-root --log=/dev/null --purge tarvodatacontrol-tools tarvo-cloud \
  tarvodatacontrol >"$scratch/dpkg.out" 2>&1 || { cat "$scratch/dpkg.out"; echo "package.sh: dpkg --purge failed" >&2; exit 1; }
left=$({ find "$fs/usr" -type f -path '*tarvo*' 2>/dev/null || true; } | wc -l)
[ "$left" = 0 ] || { find "$fs/usr" -type f; echo "package.sh: files left after removal" >&2; exit 1; }
echo "installed, started and removed again: no file left"
stage_done
