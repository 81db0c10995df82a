#!/usr/bin/env bash
# Installs the Debian packages a set of work needs, and only those that are missing.
#
#   scripts/deps.sh [run|test]... [--list]
#     run     what building and running the service needs (scripts/run.sh)
#     test    that and what the tests, sanitizers, fuzz targets, benchmarks and the browser
#             tests need (scripts/test.sh); the default
#     --list  print the packages of the sets and install nothing
#
# Stages: one dpkg-query for the packages of the sets; only when some are missing, `apt-get update`
# and `apt-get install` of the missing ones (as root, or through sudo). A failed update does not
# stop the install: the package lists already present may do. A failed install names the packages
# and the command to install them, and ends non-zero.
# Duration: under a second when everything is present; a first install of the test set takes
# some minutes, most of it the download.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

# One line per need; a set is a list of these groups. Add a package to the group it belongs to.
build_tools=(build-essential cmake ninja-build pkg-config)
build_libraries=(libsqlite3-dev libxml2-dev libjsoncpp-dev libssl-dev libcurl4-openssl-dev libcpp-httplib-dev rapidjson-dev)
run_tools=(curl)  # the commands run.sh prints for the cloud's admin endpoint
test_libraries=(googletest libgtest-dev libgmock-dev libbenchmark-dev)
test_tools=(clang libclang-rt-14-dev clang-format valgrind jq sqlite3)
browser_tests=(chromium chromium-driver python3-selenium)

run_set=("${build_tools[@]}" "${build_libraries[@]}" "${run_tools[@]}")
test_set=("${run_set[@]}" "${test_libraries[@]}" "${test_tools[@]}" "${browser_tests[@]}")

sets=()
list=0
for arg in "$@"; do
  case "$arg" in
    run | test) sets+=("$arg") ;;
    --list) list=1 ;;
    -h | --help) usage; exit 0 ;;
    *) echo "deps.sh: unknown argument '$arg'" >&2; usage >&2; exit 2 ;;
  esac
done
[ ${#sets[@]} -gt 0 ] || sets=(test)

packages=()
for set in "${sets[@]}"; do
  case "$set" in
    run) packages+=("${run_set[@]}") ;;
    test) packages+=("${test_set[@]}") ;;
  esac
done
# Each package once, in the order first named.
mapfile -t packages < <(printf '%s\n' "${packages[@]}" | awk '!seen[$0]++')

if [ "$list" = 1 ]; then
  printf '%s\n' "${packages[@]}"
  exit 0
fi

# One query for all: a package dpkg does not know is missing as well.
installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null |
  awk '$NF == "installed" && $(NF-1) == "ok" { print $1 }' || true)
missing=()
for p in "${packages[@]}"; do
  grep -qxF -- "$p" <<<"$installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "deps.sh: missing packages: ${missing[*]}" >&2
    echo "deps.sh: install them as root with: apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
  fi
  sudo=(sudo)
fi

echo "deps.sh: installing ${missing[*]}"
if ! "${sudo[@]}" apt-get update -qq; then
  echo "deps.sh: 'apt-get update' failed (see apt's lines above); trying to install from the package" \
    "lists already present" >&2
fi
if ! DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; then
  echo "deps.sh: could not install: ${missing[*]}" >&2
  echo "deps.sh: install them with: ${sudo[*]:+${sudo[*]} }apt-get update && ${sudo[*]:+${sudo[*]} }apt-get install" \
    "--no-install-recommends ${missing[*]}" >&2
  exit 1
fi
