#!/usr/bin/env bash
# The appearance index's rows of bench/results.md, on the bus and store that bench/run.sh
# started (DBUS_SYSTEM_BUS_ADDRESS set): building the index of the recording at a walk's pace,
# its size, the same filter searches answered by the index and by a walk, and following the
# recording while it grows (which appends to it: run last).
#   bench/index_bench.sh BIN RECORDING FROM TO
set -euo pipefail
bin=$1 recording=$2 from=$3 to=$4
work=$(mktemp -d)
index_pid=""
cleanup() { [ -n "$index_pid" ] && kill "$index_pid" 2>/dev/null; wait 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

now() { date +%s%N; }
seconds() { python3 -c "print(f'{($2 - $1) / 1e9:.2f}')" "$@"; }
cpu_of() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }  # clock ticks
rss_of() { awk '/VmRSS/ { print $2 }' "/proc/$1/status"; }
state() { "$bin/recsearch" index --json 2>/dev/null || echo '{}'; }
field() { python3 -c "import json,sys; print(json.loads(sys.argv[1]).get(sys.argv[2], ''))" "$1" "$2"; }

start_index() {  # [POLL SECONDS]
  "$bin/recording_index" --database "$work/index.db" --poll "${1:-1}" & index_pid=$!
  for _ in $(seq 100); do busctl --system status kavro.recording_index >/dev/null 2>&1 && break; sleep 0.1; done
}

# Building, from nothing to following the track's end.
began=$(now)
start_index
until [ "$(field "$(state)" state)" = following ]; do sleep 1; done
built=$(now)
docs=$(field "$(state)" documents)
bytes=$(field "$(state)" bytes)
ticks=$(cpu_of "$index_pid")
idle_rss=$(rss_of "$index_pid")
xml=$(sqlite3 "$recording" "select sum(length(body)) from documents")
build_s=$(seconds "$began" "$built")

# The same searches by index and by walk; the walk is the oracle for the lines.
time_search() {  # OUTFILE ARGS...: seconds to the last line
  local out=$1; shift
  local t0; t0=$(now)
  "$bin/recsearch" metadata "$@" --json > "$out"
  seconds "$t0" "$(now)"
}
broad=("$from" "$to" --class person --spans)
by_index=$(time_search "$work/index.out" "${broad[@]}")
by_walk=$(time_search "$work/walk.out" "${broad[@]}" --walk)
# The walk's lines: without job ids, the last line, and what the index adds to an appearance.
walk_lines() {
  python3 -c '
import json, sys
for line in open(sys.argv[1]):
    j = json.loads(line)
    if j.get("kind") in ("completed", "notice"): continue
    for k in ("job", "classes", "colour", "likelihood", "box_at_start", "box_at_end"): j.pop(k, None)
    print(json.dumps(j, sort_keys=True))' "$1"
}
same=$(diff <(walk_lines "$work/index.out") <(walk_lines "$work/walk.out") >/dev/null && echo equal || echo DIFFER)
narrow=("$from" "$to" --class vehicle --colour red --region 0,0,0.5,1)
narrow_index=$(time_search "$work/narrow.out" "${narrow[@]}")
# Any XPath, by index and by walk: a filter's, one about frames, one with count() and contains().
xpath_rows=""
for xpath in '//Object[Appearance/Class/Type="Person"]' '//Frame[@ObjectCount > 2]' \
             'count(//Object[contains(Appearance/Color/ColorCluster/@Name, "re")]) >= 2'; do
  x_index=$(time_search "$work/x-index.out" "$from" "$to" "$xpath")
  x_walk=$(time_search "$work/x-walk.out" "$from" "$to" "$xpath" --walk)
  x_same=$(diff <(walk_lines "$work/x-index.out") <(walk_lines "$work/x-walk.out") >/dev/null && echo equal || echo DIFFER)
  x_lines=$(grep -c '"metadata"' "$work/x-index.out" || true)
  xpath_rows+="| XPath \`$xpath\` over the recording, time to the last line ($x_lines lines) | $x_index s by index | $x_walk s by walk | $(python3 -c "print(f'{$x_walk / max($x_index, 0.001):.0f}')")x faster (goal 70x, at most 3 s); lines $x_same |"$'\n'
done
# The standard interface's FindMetadata beside recsearch, with the index answering both.
onvif_rows=$(/usr/bin/python3 "$(dirname "$0")/onvif_bench.py" "$bin" "$from" "$to")
walk_rate=$(python3 -c "print(f'{$docs / $by_walk:.0f}')")
build_rate=$(python3 -c "print(f'{$docs / $build_s:.0f}')")

# Following: the recording grows by two seconds of documents every two seconds for a minute,
# served meanwhile; the index at its default pace. Twice a second, how far its mark trails the
# recording's last document; and its CPU over the minute.
kill "$index_pid"; wait "$index_pid" 2>/dev/null || true; index_pid=""
start_index 3
follow_ticks=$(cpu_of "$index_pid")
follow=$(python3 - "$bin" "$recording" <<'PY'
import json, subprocess, sys, time
from datetime import datetime, timezone
bin, recording = sys.argv[1:]
def micros(iso):
    return int(datetime.strptime(iso, "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=timezone.utc).timestamp() * 1e6)
def through():
    out = subprocess.run([bin + "/recsearch", "index", "--json"], capture_output=True, text=True).stdout
    return micros(json.loads(out)["through"])
def last():
    return int(subprocess.run(["sqlite3", recording, "select max(t) from documents"], capture_output=True, text=True).stdout)
lags = []
began = time.monotonic()
for stretch in range(30):
    subprocess.run([bin + "/recording_store", "generate", recording, "--append", "--duration", "2s",
                    "--rate", "5", "--seed", str(stretch + 1)], check=True, capture_output=True)
    due = began + 2 * (stretch + 1)
    while time.monotonic() < due:
        lags.append((last() - through()) / 1e6)
        time.sleep(0.5)
print(f"{max(lags):.1f} {sum(lags) / len(lags):.1f} {time.monotonic() - began:.1f}")
PY
)
read -r lag_max lag_mean follow_s <<<"$follow"
follow_ticks=$(( $(cpu_of "$index_pid") - follow_ticks ))

hz=$(getconf CLK_TCK)
python3 - <<PY
docs, xml, size = $docs, $xml, $bytes
cpu_us = $ticks / $hz * 1e6 / docs
print(f"| index build, {docs} documents | {$build_rate} documents/s in {$build_s} s | the walk's {$walk_rate} steps/s | {$build_rate / $walk_rate:.2f} (goal at most 1.0) |")
print(f"| index CPU per document while building | {cpu_us:.0f} µs | | |")
print(f"| index size on disk, each document kept | {size / 2**20:.1f} MiB | the documents' XML {xml / 2**20:.0f} MiB | {size / xml:.3f} (goal at most 0.16) |")
print(f"| --class person --spans over the recording, time to the last line | {$by_index} s by index | {$by_walk} s by walk | {$by_walk / max($by_index, 0.001):.0f}x faster (goal 300x, under 0.5 s); lines $same |")
print(f"| --class vehicle --colour red --region 0,0,0.5,1 over the recording | {$narrow_index} s by index | | |")
print("""$xpath_rows""", end="")
print("""$onvif_rows""")
print(f"| following a recording that grows by 5 documents a second, served meanwhile: the index's lag behind its end | at most {$lag_max} s, on average {$lag_mean} s | goal at most 10 s | {$lag_max / 10:.2f} of goal |")
print(f"| recording_index CPU while following | {$follow_ticks / $hz / $follow_s * 100:.2f} % of one core over {$follow_s} s | goal under 2 % | {$follow_ticks / $hz / $follow_s * 100 / 2:.2f} of goal |")
print(f"| recording_index resident memory, idle after building | {$idle_rss / 1024:.1f} MiB | | |")
PY
