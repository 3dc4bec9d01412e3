#!/usr/bin/env bash
# Installs the Debian packages the build needs (only those missing), then configures and
# builds one CMake preset (default: "default"). Quiet when everything is already there.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}

packages=(build-essential cmake pkg-config libboost-thread-dev libboost-chrono-dev
          libboost-system-dev libboost-filesystem-dev libxml2-dev libsystemd-dev libsdbus-c++-dev libsdbus-c++-bin
          libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev dbus-daemon dbus-bin
          libcli11-dev nlohmann-json3-dev python3 procps systemd sqlite3 clang
          libclang-rt-14-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq >/dev/null
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)" -- --no-print-directory -s
