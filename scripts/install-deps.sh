#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the benchmarks and
# the demo need. Safe to run again; does nothing when all are present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang clang-14 libclang-rt-14-dev clang-format clang-tidy
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev openssl ca-certificates
  libpaho-mqtt-dev
  libjsoncpp-dev
  libsqlite3-dev sqlite3
  libcurl4-openssl-dev
  duktape-dev
  libicu-dev tzdata
  libsystemd-dev systemd
  libcpp-httplib-dev
  libcli11-dev
  mosquitto mosquitto-clients
  python3 python3-paho-mqtt python3-prometheus-client
  procps
  tinyproxy
  lintian help2man
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The Debian mosquitto package enables and starts a system broker on 1883; the
# tests start their own brokers on ephemeral ports and need none of it.
if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet mosquitto 2>/dev/null; then
  systemctl stop mosquitto || true
fi
# Likewise tinyproxy (enabled for boot by its package): the proxy tests start
# their own on an ephemeral port.
if command -v systemctl >/dev/null 2>&1 && dpkg-query -W tinyproxy >/dev/null 2>&1; then
  systemctl disable --now tinyproxy >/dev/null 2>&1 || true
fi
echo "install-deps: all packages present"
