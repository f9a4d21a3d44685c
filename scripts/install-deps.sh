#!/usr/bin/env bash
# Installs the Debian packages that Zonaris needs to build, test and run its tools.
# Idempotent: does nothing, and prints nothing, when everything is already installed. Run as
# root (or with sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libgeos-dev libcurl4-openssl-dev nlohmann-json3-dev libsimdjson-dev libfmt-dev
  libgeographiclib-dev
  libcli11-dev libpugixml-dev libcpp-httplib-dev libsqlite3-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libjs-leaflet libjs-chart.js chromium
  libgps-dev gpsd gpsd-clients
  postgresql-15 postgresql-15-postgis-3 libpq-dev
  python3-pytest python3-pip python3-setuptools python3-wheel
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

# One line per step on stderr; apt's own output is kept in a log and shown only when its step
# fails, so a first run reads as a handful of lines rather than hundreds.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
step() {
  local what=$1
  shift
  echo "install-deps: $what" >&2
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    echo "install-deps: failed: $what" >&2
    exit 1
  fi
}

step "updating the package lists" "${sudo_cmd[@]}" apt-get update -q
step "installing ${missing[*]}" "${sudo_cmd[@]}" \
  env DEBIAN_FRONTEND=noninteractive apt-get install -y -q \
  --no-install-recommends "${missing[@]}"
echo "install-deps: done" >&2
