#!/usr/bin/env bash
# Builds the release configuration and measures, in one run, every figure we track; writes
# bench/results.md. Everything runs on a private bus that this script starts and stops.
#   bench/run.sh [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
quick=0; [ "${1:-}" = --quick ] && quick=1

scripts/setup.sh release
load=$(cut -d' ' -f1-3 /proc/loadavg)  # reported with the figures: they need an idle machine
bin=build/release/bin
work=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT INT TERM

if ((quick)); then duration=2h; churn=1000; else duration=1d; churn=10000; fi
echo "bench: generating a ${duration} recording" >&2
"$bin/recording_store" generate "$work/recording.db" --duration "$duration" --rate 5 \
  --video-tracks 2 --audio-tracks 2 --track-on 1 --track-off 1 --seed 7 >/dev/null
docs=$(sqlite3 "$work/recording.db" "select count(*) from documents" 2>/dev/null || echo "?")

. bench/private_bus.sh
private_bus "$work"
export KAVRO_LOG_FILE=$work/log
"$bin/recording_store" serve "$work/recording.db" & pids+=($!)
# As the unit runs it: tracing (priority 7) off.
KAVRO_LOG_MAX_PRIORITY=6 "$bin/recording_search" & pids+=($!)
wait_for_names kavro.recording_search kavro.recording_data_access

# The matcher against plain libxml2 per document; `cost` prints the matcher's µs for "/",
# which the metadata walk's CPU goal allows on top of the bare loop's.
"$bin/xpath_bench" --benchmark_format=json --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true 2>/dev/null > "$work/xpath.json"
xpath_rows() {
  python3 - "$1" "$work/xpath.json" <<'PY'
import json, sys
runs = {b["name"]: b for b in json.load(open(sys.argv[2]))["benchmarks"] if b.get("aggregate_name") == "median"}
per = lambda r: 1e6 / r["items_per_second"]
if sys.argv[1] == "cost":
    print(f'{per(runs["BM_SearchMatcher/2_median"]):.1f}')
    sys.exit()
names = ["a red vehicle", "a person, likelihood > 0.8", "\"/\" (every document)"]
for i, name in enumerate(names):
    ours = runs[f"BM_SearchMatcher/{i}_median"]; plain = runs[f"BM_Libxml2Alone/{i}_median"]
    print(f"| parse + evaluate per document, {name} | {per(ours):.1f} µs | libxml2 alone {per(plain):.1f} µs | {per(ours)/per(plain):.2f}x |")
PY
}

out=bench/results.md
{
  echo "# Benchmark results"
  echo
  echo "Measured $(date -u +%Y-%m-%d) by \`bench/run.sh$([ $quick = 1 ] && echo ' --quick')\` on $(nproc) cores,"
  echo "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(free -g | awk '/Mem:/{print $2}') GiB,"
  echo "$(. /etc/os-release; echo "$PRETTY_NAME"), kernel $(uname -r). Release build; private dbus-daemon;"
  echo "service log to a file up to priority 6, as the unit sets it. Recording: ${duration}, ${docs} metadata documents,"
  echo "four tracks switching about once a second. Load average when the run began: $load."
  echo
  echo "| figure | measured | anchor | ratio |"
  echo "|---|---|---|---|"
  "$bin/system_bench" "/" 1600 3600 "$churn" "$(xpath_rows cost)"
  "$bin/signal_bench" 100000
  /usr/bin/python3 bench/gateway_bench.py "$bin" "$(date -u -d 2024-01-01 +%s)"
  xpath_rows rows
  if ((quick)); then last=2024-01-01T02:00:00Z; else last=2024-01-02T00:00:00Z; fi
  /usr/bin/python3 bench/devices_bench.py "$bin"
  bench/index_bench.sh "$bin" "$work/recording.db" 2024-01-01T00:00:00Z "$last"
  ((quick)) || bench/long_bench.sh "$bin"
} > "$out.tmp"
mv "$out.tmp" "$out"
cat "$out"
