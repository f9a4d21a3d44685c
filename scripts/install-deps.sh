#!/usr/bin/env bash
# Installs the Debian packages that Zonaris needs to build, test and run its tools.
# Idempotent: does nothing when everything is already installed. Run as root (or with sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libgeos-dev libcurl4-openssl-dev nlohmann-json3-dev libsimdjson-dev libfmt-dev
  libgeographiclib-dev
  libcli11-dev libpugixml-dev libcpp-httplib-dev libsqlite3-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libjs-leaflet libjs-chart.js chromium
  libgps-dev gpsd gpsd-clients
  python3-pytest
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
echo "Installing: ${missing[*]}" >&2
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
