#!/usr/bin/env bash
# Builds the Debian packages recording-search, recording-store, recsearch and
# recording-search-web from the default build into build/packages/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh default programs
rm -rf build/packages
out=$(cpack --config build/default/CPackConfig.cmake -B build/packages 2>&1) ||
  { echo "$out" >&2; exit 1; }
rm -rf build/packages/_CPack_Packages
ls build/packages/*.deb
