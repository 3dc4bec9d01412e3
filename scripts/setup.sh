#!/usr/bin/env bash
# Installs the Debian packages the build needs (only those missing), then configures one CMake
# preset (default: "default") and builds it, or the build preset given second (say "programs":
# the four programs without the tests). Quiet when everything is already there.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
build_preset=${2:-$preset}

packages=(build-essential cmake pkg-config libboost-thread-dev libboost-chrono-dev
          libboost-system-dev libxml2-dev libsystemd-dev libsdbus-c++-dev libsdbus-c++-bin
          libsqlite3-dev dbus-daemon dbus-bin libcli11-dev nlohmann-json3-dev dpkg-dev
          libmicrohttpd-dev libgnutls28-dev libcurl4-gnutls-dev libzstd-dev curl help2man)
# The programs alone build and run without these: the demo's first run on a fresh machine
# saves their download and installation.
[ "$build_preset" = programs ] ||
  packages+=(libboost-filesystem-dev libgtest-dev libgmock-dev libbenchmark-dev python3 procps
             systemd sqlite3 clang libclang-rt-14-dev librsvg2-bin clang-format clang-tidy
             chromium chromium-driver python3-selenium lintian man-db)

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

if [ "$build_preset" != programs ]; then
  cmake --preset "$preset" >/dev/null
elif [ ! -f "build/$preset/CMakeCache.txt" ]; then
  # Without the tests on a first configure; any later full setup turns them on.
  cmake --preset "$preset" -DRS_BUILD_TESTS=OFF >/dev/null
fi
cmake --build --preset "$build_preset" -j"$(nproc)" -- --no-print-directory -s
