#!/usr/bin/env bash
# Installs the Debian packages the build, the run and the tests need; skips what is present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev clang-format
  libsqlite3-dev sqlite3 libxml2-dev libjsoncpp-dev libssl-dev libcurl4-openssl-dev
  libcpp-httplib-dev googletest libgtest-dev libgmock-dev libbenchmark-dev valgrind jq curl rapidjson-dev
  chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
