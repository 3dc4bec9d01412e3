#!/usr/bin/env bash
# Builds the fuzz targets with clang in build/fuzz and runs each for a bounded time (default
# 60 s, RS_FUZZ_SECONDS to change), starting from the seeds in fuzz/corpus. Fails on the first
# crash, hang (one input over 10 s), leak or broken promise; the input that did it is left in
# build/fuzz/artifacts/ and reported here.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${RS_FUZZ_SECONDS:-60}
build=build/fuzz

cmake -S fuzz -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j2 -- --no-print-directory -s

declare -A options=(
  [xpath_matcher_fuzzer]="-dict=fuzz/xpath.dict -max_len=16384"
  [walk_replies_fuzzer]="-max_len=1024"
  [api_request_fuzzer]="-dict=fuzz/api_request.dict -max_len=4096"
  [device_line_fuzzer]="-dict=fuzz/device_line.dict -max_len=4096"
  [devices_file_fuzzer]="-max_len=2048"
  [soap_request_fuzzer]="-dict=fuzz/soap_request.dict -max_len=8192"
  [index_rows_fuzzer]="-max_len=4096"
)
failed=0
for target in xpath_matcher_fuzzer walk_replies_fuzzer api_request_fuzzer device_line_fuzzer \
  devices_file_fuzzer soap_request_fuzzer index_rows_fuzzer; do
  seeds=fuzz/corpus/${target%_fuzzer}
  corpus=$build/corpus/${target%_fuzzer}
  artifacts=$build/artifacts/$target/
  mkdir -p "$corpus" "$artifacts"
  log=$build/$target.log
  # shellcheck disable=SC2086 # the options are words
  if "$build/$target" ${options[$target]} -max_total_time="$seconds" -timeout=10 \
      -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts" \
      "$corpus" "$seeds" >"$log" 2>&1; then
    runs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+)/\1/p' "$log")
    echo "fuzz: $target: $runs inputs in ${seconds}s, no failure"
  else
    echo "fuzz: $target FAILED; the end of $log:" >&2
    tail -40 "$log" >&2
    ls "$artifacts" >&2
    failed=1
  fi
done
exit "$failed"
