#!/usr/bin/env bash
# Sets up what is missing and runs every test: the whole suite in the default build with the
# formatting and lint checks, the demo, the Debian packages (contents, units and their
# hardening, bus configuration, a search with the shipped programs) and a short fuzzing run; then the whole suite again under
# ASan+UBSan and under TSan (load scaled down there). Pass preset names to run only
# those, e.g. `scripts/test.sh default`.
set -euo pipefail
cd "$(dirname "$0")/.."
presets=("$@")
((${#presets[@]})) || presets=(default asan tsan)

run_preset() {
  local preset=$1
  echo "== $preset: build" >&2
  scripts/setup.sh "$preset"
  echo "== $preset: tests" >&2
  case "$preset" in
    asan) RS_LOAD_SECONDS=3 ctest --preset asan -j2 --timeout 900 ;;
    tsan) RS_LOAD_SECONDS=3 ctest --preset tsan -j2 --timeout 900 ;;
    *) ctest --preset "$preset" -j2 --timeout 600 ;;
  esac
}

for preset in "${presets[@]}"; do
  run_preset "$preset"
  if [ "$preset" = default ]; then
    echo "== default: formatting and lint" >&2
    scripts/lint.sh
    echo "== default: Debian packages" >&2
    scripts/check-packages.sh
    echo "== default: demo" >&2
    scripts/demo.sh --bin build/default/bin >/dev/null
    echo "== default: fuzzing" >&2
    RS_FUZZ_SECONDS=${RS_FUZZ_SECONDS:-30} fuzz/run.sh
  fi
done
echo "== all tests passed (${presets[*]})" >&2
