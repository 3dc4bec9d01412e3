#!/usr/bin/env bash
# Sets up what is missing and runs every test: the whole suite in the default build, then
# again under ASan+UBSan and under TSan. Pass preset names to run only those (e.g. "default").
set -euo pipefail
cd "$(dirname "$0")/.."
presets=("$@")
((${#presets[@]})) || presets=(default asan tsan)

for preset in "${presets[@]}"; do
  echo "== $preset: build" >&2
  scripts/setup.sh "$preset"
  echo "== $preset: test" >&2
  ctest --preset "$preset" -j2 --timeout 600
done
