#!/usr/bin/env bash
# Fails unless every systemd unit given, or else every unit build/default installs, scores an
# overall exposure of OK or SAFE in systemd-analyze's offline security check (no running
# systemd needed).   scripts/check-units.sh [UNIT...]
set -euo pipefail

units=("$@")
if ! (($#)); then
  prefix=$(mktemp -d)
  trap 'rm -rf "$prefix"' EXIT
  for component in service store web index; do
    cmake --install "$(dirname "$0")/../build/default" --prefix "$prefix" \
      --component "$component" >/dev/null
  done
  units=("$prefix"/lib/systemd/system/*.service)
fi
failed=0
for unit in "${units[@]}"; do
  if ! report=$(systemd-analyze security --offline=true --no-pager "$unit" 2>&1); then
    echo "check-units: systemd-analyze failed on $unit:" >&2
    echo "$report" >&2
    failed=1
    continue
  fi
  line=$(grep -F "Overall exposure level for" <<<"$report" || true)
  level=$(sed -nE 's/.*: ([0-9.]+) ([A-Z]+).*/\2/p' <<<"$line")
  score=$(sed -nE 's/.*: ([0-9.]+) ([A-Z]+).*/\1/p' <<<"$line")
  case "$level" in
    SAFE|OK) echo "check-units: $unit exposure $score $level" ;;
    "") echo "check-units: no exposure level for $unit:" >&2; echo "$report" >&2; failed=1 ;;
    *)
      echo "check-units: $unit exposure $score $level, needs OK or better; the weak points:" >&2
      grep -E '^✗' <<<"$report" >&2 || true
      failed=1
      ;;
  esac
done
exit "$failed"
