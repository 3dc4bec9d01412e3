#!/usr/bin/env bash
# The index over long ranges, rows of bench/results.md: a generated 30-day recording (the options
# bench/run.sh gives a day), its index filled by index_fill rather than a month of walking, served
# on a bus of its own; filter searches over 1 hour to 30 days, an XPath over 7 and 30 days with the
# time to its first line, the index's size, and recording_index's memory while it answers.
#   bench/long_bench.sh BIN [DAYS]      (DAYS: 30 unless told; the recording takes ~330 MB a day)
#   bench/long_bench.sh BIN DAYS RECORDING INDEX   measures what an earlier run made (its index copied)
set -euo pipefail
bin=$(realpath "$1") days=${2:-30}
cd "$(dirname "$0")/.."
work=$(mktemp -d)
pids=()
# The bus (the first) last, so that the services do not see it go.
cleanup() {
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; sleep 0.1; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

if [ $# -ge 4 ]; then
  ln -s "$(realpath "$3")" "$work/recording.db"; cp "$4" "$work/index.db"
  docs=$(sqlite3 "$work/index.db" "select documents from kept") filled="beforehand"
else
  echo "bench: generating ${days} days" >&2
  "$bin/recording_store" generate "$work/recording.db" --duration "${days}d" --rate 5 \
    --video-tracks 2 --audio-tracks 2 --track-on 1 --track-off 1 --seed 7 >/dev/null
  echo "bench: filling the index" >&2
  began=$(date +%s.%N)
  docs=$("$bin/index_fill" "$work/recording.db" "$work/index.db")
  filled=$(python3 -c "import time; print(f'in {time.time() - $began:.0f} s')")
fi
xml=$(sqlite3 "$work/recording.db" "select sum(length(body)) from documents")
size=$(stat -c %s "$work/index.db")

. bench/private_bus.sh
private_bus "$work"
export KAVRO_LOG_FILE=$work/log
"$bin/recording_store" serve "$work/recording.db" & pids+=($!)
KAVRO_LOG_MAX_PRIORITY=6 "$bin/recording_search" & pids+=($!)
"$bin/recording_index" --database "$work/index.db" & index_pid=$!; pids+=($index_pid)
wait_for_names kavro.recording_search kavro.recording_data_access kavro.recording_index
until "$bin/recsearch" index --json 2>/dev/null | grep -q '"following"'; do sleep 0.5; done

python3 - "$bin" "$index_pid" "$days" "$docs" "$filled" "$xml" "$size" <<'PY'
import json, subprocess, sys, threading, time
bin, pid, days, docs, filled, xml, size = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), sys.argv[5], int(sys.argv[6]), int(sys.argv[7])
start = "2024-01-01T00:00:00Z"
def end_of(hours):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(1704067200 + hours * 3600))

def rss_kib():
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS"):
            return int(line.split()[1])

def search(args):
    """(seconds to the first result line, to the last line, result lines, peak RSS in KiB, whence)"""
    peak, done = [rss_kib()], threading.Event()
    def sample():
        while not done.is_set():
            peak[0] = max(peak[0], rss_kib())
            time.sleep(0.02)
    sampler = threading.Thread(target=sample); sampler.start()
    t0 = time.monotonic(); first = None; results = 0; last = ""
    p = subprocess.Popen([bin + "/recsearch", "metadata"] + args + ["--json"], stdout=subprocess.PIPE, text=True)
    for line in p.stdout:
        kind = json.loads(line).get("kind")
        if kind in ("metadata", "span"):
            results += 1
            first = first or time.monotonic() - t0
        last = line
    p.wait()
    took = time.monotonic() - t0
    done.set(); sampler.join()
    return first, took, results, peak[0], json.loads(last) if last else {}

ranges = [(1, "1 hour"), (24, "1 day"), (24 * 7, "7 days"), (24 * 30, "30 days")]
ranges = [(h, name) for h, name in ranges if h <= days * 24]
rows, peaks = [], []
broad = ["--class", "person", "--spans"]
narrow = ["--class", "bicycle", "--colour", "red", "--region", "0,0,0.5,1"]
for what, filt in (("broad: --class person --spans", broad), ("narrow: --class bicycle --colour red --region 0,0,0.5,1", narrow)):
    for hours, name in ranges:
        first, took, n, peak, last = search([start, end_of(hours)] + filt)
        peaks.append((peak, name, what))
        per = f"{took / n * 1e6:.0f} µs a line" if n else "no lines"
        goal = "goal at most 1 s" if what.startswith("narrow") and hours == 720 else "bounded by its lines"
        rows.append(f"| {what} over {name}, time to the last line | {took:.2f} s, {n} lines ({last.get('index', {}).get('results', 'none')} from the index) | {per} | {goal} |")
xpath = '//Object[Appearance/Class/Type="Person"]'
for hours, name in ranges[2:]:
    first, took, n, peak, last = search([start, end_of(hours), xpath])
    peaks.append((peak, name, "the XPath"))
    rows.append(f"| XPath `{xpath}` over {name}: time to the first line / to the last | {first:.2f} s / {took:.2f} s, {n} lines | goal: first line within 1 s | {first:.2f} of goal |")
peak, name, what = max(peaks)
rows.append(f"| recording_index resident memory, peak during the searches above (the most: {what} over {name}) | {peak / 1024:.1f} MiB | goal under 64 MiB | {peak / 1024 / 64:.2f} of goal |")
rows.append(f"| index size on disk over {days} days, each document kept ({docs} documents, filled {filled} by index_fill) | {size / 2**20:.0f} MiB | the documents' XML {xml / 2**20:.0f} MiB | {size / xml:.3f} (goal at most 0.16) |")
print("\n".join(rows))
PY
