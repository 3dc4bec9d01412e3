#!/usr/bin/env bash
# Builds what is missing, then runs the whole stack on a private bus: a generated sample
# recording served by recording_store, recording_search, and searches through recsearch and
# through the HTTP gateway recording_search_web.
# Everything it starts is stopped again on the way out, also on Ctrl-C or a failure.
#
#   scripts/demo.sh             run the searches and stop
#   scripts/demo.sh --keep      leave the stack running for your own recsearch calls, until Ctrl-C
#   scripts/demo.sh --bin DIR   use the binaries in DIR (say build/asan/bin) instead of setting up
#                               and building build/default
set -euo pipefail

usage() {
  sed -n '2,9s/^# \{0,1\}//p' "$0"
}

root=$(cd "$(dirname "$0")/.." && pwd)
keep=0
bin=""
while (($#)); do
  case "$1" in
    --keep) keep=1 ;;
    --bin)
      [ $# -ge 2 ] || { echo "demo: --bin needs a directory" >&2; exit 2; }
      bin=$(cd "$2" && pwd)
      shift ;;
    -h|--help) usage; exit 0 ;;
    *) echo "demo: unknown option $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done
# The sample: one hour from 2024-01-01T00:00:00Z (the generator's default start).
from=2024-01-01T00:00:00Z
to=2024-01-01T01:00:00Z
events_to=2024-01-01T00:15:00Z
meta_to=2024-01-01T00:10:00Z
xpath='//Object[Appearance/Class/Type="Person"]'

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

tmp=""
pids=()   # in start order: bus, store, service
names=()

# Stops what was started, newest first: SIGTERM, and SIGKILL for anything still there after 5 s.
stop_all() {
  local i pid
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    pid=${pids[i]}
    kill -0 "$pid" 2>/dev/null || continue
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 50); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
      echo "demo: ${names[i]} did not stop within 5 s; killing it" >&2
      kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
  done
  pids=()
}

on_exit() {
  local status=$?
  # Clean up whatever happens to our output (a closed pipe must not cut this short).
  set +e
  trap - EXIT INT TERM
  trap '' PIPE
  stop_all
  if [ "$status" -ne 0 ] && [ "$stopped" -eq 0 ] && [ -n "$tmp" ] && [ -s "$tmp/kavro.log" ]; then
    echo "demo: failed; the last lines the services logged:" >&2
    tail -n 20 "$tmp/kavro.log" >&2
  fi
  [ -n "$tmp" ] && rm -rf "$tmp"
  exit "$status"
}
trap on_exit EXIT
stopped=0
trap 'stopped=1; exit 130' INT
trap 'stopped=1; exit 143' TERM

start() {  # NAME COMMAND...: runs it in the background with the demo's bus and log
  local name=$1
  shift
  DBUS_SYSTEM_BUS_ADDRESS=$address KAVRO_LOG_FILE=$tmp/kavro.log "$@" \
    >"$tmp/$name.out" 2>"$tmp/$name.err" &
  pids+=($!)
  names+=("$name")
}

# Waits until NAME owns the bus name, or fails when its process has died or 10 s have passed.
wait_for_name() {
  local name=$1 busname=$2 pid=${pids[-1]}
  for _ in $(seq 200); do
    if dbus-send --bus="$address" --print-reply --dest=org.freedesktop.DBus / \
         org.freedesktop.DBus.NameHasOwner "string:$busname" 2>/dev/null | grep -q 'boolean true'; then
      return 0
    fi
    if ! kill -0 "$pid" 2>/dev/null; then
      echo "demo: $name exited before it owned $busname:" >&2
      cat "$tmp/$name.err" >&2
      return 1
    fi
    sleep 0.05
  done
  echo "demo: $name did not own $busname within 10 s" >&2
  return 1
}

if [ -z "$bin" ]; then
  say "Setting up (missing packages, then the four programs in build/default, no tests)"
  "$root/scripts/setup.sh" default programs
  bin=$root/build/default/bin
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/recsearch-demo.XXXXXX")

say "Generating a sample recording"
# Two video tracks and one audio track that switch often, so that an hour has plenty to find.
"$bin/recording_store" generate "$tmp/sample.db" --seed 7 --start "$from" --duration 1h \
  --video-tracks 2 --audio-tracks 1 --recording-on 900 --recording-off 60 \
  --track-on 300 --track-off 30

say "Starting a private bus, recording_store and recording_search"
cat >"$tmp/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$tmp/bus.socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
EOF
mkfifo "$tmp/address"
dbus-daemon --config-file="$tmp/bus.conf" --nofork --print-address=1 >"$tmp/address" \
  2>"$tmp/bus.err" &
pids+=($!)
names+=(dbus-daemon)
if ! read -r -t 10 address <"$tmp/address"; then
  echo "demo: dbus-daemon did not start:" >&2
  cat "$tmp/bus.err" >&2
  exit 1
fi
echo "bus: $address"

start recording_store "$bin/recording_store" serve "$tmp/sample.db"
wait_for_name recording_store kavro.recording_data_access
start recording_search "$bin/recording_search"
wait_for_name recording_search kavro.recording_search
start recording_index "$bin/recording_index" --database "$tmp/index.db" --poll 1
wait_for_name recording_index kavro.recording_index
echo "recording_store, recording_search and recording_index are serving (log: KAVRO_LOG_FILE=$tmp/kavro.log)"

# The gateway: a token of the demo's own, on a free loopback port.
head -c 24 /dev/urandom | base64 | tr -d '/+=' >"$tmp/web-tokens"
token=$(cat "$tmp/web-tokens")
port=${RS_DEMO_PORT:-8470}
while (echo >"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
onvif_password=$(head -c 12 /dev/urandom | base64 | tr -d '/+=')
printf 'vms %s\n' "$onvif_password" >"$tmp/onvif-users"
chmod 600 "$tmp/web-tokens" "$tmp/onvif-users"
start recording_search_web "$bin/recording_search_web" --listen "127.0.0.1:$port" \
  --token-file "$tmp/web-tokens" --onvif-users "$tmp/onvif-users"
web=http://127.0.0.1:$port
for _ in $(seq 100); do
  curl -s -o /dev/null "$web/" && break
  sleep 0.05
done
echo "recording_search_web is serving $web/ (token: $token)"
echo "video management software finds the search at $web/onvif/device_service (ONVIF; user vms, password $onvif_password)"

recsearch() {
  echo "\$ recsearch $*"
  DBUS_SYSTEM_BUS_ADDRESS=$address "$bin/recsearch" "$@"
}

say "Event search with the state at the start (first quarter hour)"
recsearch events "$from" "$events_to" --start-state

say "Metadata search: frames with a person in them (first 10)"
recsearch metadata "$from" "$meta_to" "$xpath" --max 10

say "Appearances of a person: matches no more than 2 s apart as one line (first 10 minutes)"
recsearch metadata "$from" "$meta_to" --class person --spans

# Outside $tmp, which goes on the way out, so that it can be opened afterwards.
svg=${TMPDIR:-/tmp}/recsearch-demo-coverage.svg
say "Coverage of the hour per bucket, the gaps, and a picture of it"
recsearch summary "$from" "$to" --timeline --svg "$svg"
echo "The picture is in $svg (open it in a web browser)"

say "The appearance index catching up with the hour (it reads at a walk's pace)"
for _ in $(seq 120); do
  state=$(DBUS_SYSTEM_BUS_ADDRESS=$address "$bin/recsearch" index)
  echo "$state"
  case $state in *following*) break ;; esac
  sleep 2
done

say "A person's appearances over the hour: answered by the index, then by a walk"
for how in "" --walk; do
  began=$(date +%s%N)
  echo "\$ recsearch metadata $from $to --class person --spans $how | tail -n 2"
  DBUS_SYSTEM_BUS_ADDRESS=$address "$bin/recsearch" metadata "$from" "$to" --class person --spans \
    $how 2>&1 | tail -n 2
  hundredths=$((($(date +%s%N) - began) / 10000000))
  printf 'the last line after %d.%02d s\n' $((hundredths / 100)) $((hundredths % 100))
done

say "An XPath of one's own over the hour: answered by the index, then by a walk, the same lines"
xpath='//Object[Appearance/Class/Type="Vehicle" and Behaviour/Speed > 0.02]'
for how in "" --walk; do
  began=$(date +%s%N)
  echo "\$ recsearch metadata $from $to '$xpath' --json $how > $tmp/xpath$how.jsonl"
  DBUS_SYSTEM_BUS_ADDRESS=$address "$bin/recsearch" metadata "$from" "$to" "$xpath" --json $how \
    >"$tmp/xpath$how.jsonl"
  hundredths=$((($(date +%s%N) - began) / 10000000))
  printf '%d results, the last line after %d.%02d s\n' \
    "$(grep -c '"kind":"metadata"' "$tmp/xpath$how.jsonl")" $((hundredths / 100)) $((hundredths % 100))
done
if diff <(grep '"kind":"metadata"' "$tmp/xpath.jsonl" | sed 's/"job":[0-9]*,//') \
        <(grep '"kind":"metadata"' "$tmp/xpath--walk.jsonl" | sed 's/"job":[0-9]*,//') >/dev/null; then
  echo "the index's lines and the walk's are the same"
else
  echo "demo: the index's lines differ from the walk's" >&2
  exit 1
fi

say "A second device (its own bus, recording and gateway), and both searched as one"
sed "s|$tmp/bus.socket|$tmp/bus2.socket|" "$tmp/bus.conf" >"$tmp/bus2.conf"
dbus-daemon --config-file="$tmp/bus2.conf" --nofork --print-address=1 >"$tmp/address2" \
  2>"$tmp/bus2.err" &
pids+=($!)
names+=(dbus-daemon-2)
for _ in $(seq 100); do [ -s "$tmp/address2" ] && break; sleep 0.05; done
"$bin/recording_store" generate "$tmp/second.db" --seed 8 --start "$from" --duration 1h >/dev/null
first_address=$address
address=$(head -n 1 "$tmp/address2")
start recording_store-2 "$bin/recording_store" serve "$tmp/second.db"
wait_for_name recording_store-2 kavro.recording_data_access
start recording_search-2 "$bin/recording_search"
wait_for_name recording_search-2 kavro.recording_search
port2=$((port + 1))
while (echo >"/dev/tcp/127.0.0.1/$port2") 2>/dev/null; do port2=$((port2 + 1)); done
start recording_search_web-2 "$bin/recording_search_web" --listen "127.0.0.1:$port2" \
  --token-file "$tmp/web-tokens"
address=$first_address
for _ in $(seq 100); do
  curl -s -o /dev/null "http://127.0.0.1:$port2/" && break
  sleep 0.05
done
printf 'front %s %s\nback  http://127.0.0.1:%s %s\n' "$web" "$tmp/web-tokens" "$port2" \
  "$tmp/web-tokens" >"$tmp/devices"
echo "\$ cat devices"
cat "$tmp/devices"
echo "\$ recsearch --devices devices events $from $events_to"
"$bin/recsearch" --devices "$tmp/devices" events "$from" "$events_to"

say "The same event search through the gateway, as JSON lines (first 8)"
curl_line="curl -sN -H 'Authorization: Bearer $token' -H 'Content-Type: application/json' -d '{\"start\":\"$from\",\"end\":\"$events_to\",\"startState\":true}' $web/api/v1/events"
echo "\$ $curl_line"
bash -c "$curl_line" | head -n 8 || true

say "The standard search interface, as video management software asks it (GetServices)"
# A password in plain text is taken from loopback only; a VMS elsewhere sends its digest.
soap="<s:Envelope xmlns:s='http://www.w3.org/2003/05/soap-envelope'><s:Header><w:Security xmlns:w='http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd'><w:UsernameToken><w:Username>vms</w:Username><w:Password>$onvif_password</w:Password></w:UsernameToken></w:Security></s:Header><s:Body><GetServices xmlns='http://www.onvif.org/ver10/device/wsdl'><IncludeCapability>false</IncludeCapability></GetServices></s:Body></s:Envelope>"
echo "\$ curl -s -H 'Content-Type: application/soap+xml' -d '<GetServices .../>' $web/onvif/device_service"
curl -s -H 'Content-Type: application/soap+xml' --data-binary "$soap" "$web/onvif/device_service" |
  grep -o '<tds:XAddr>[^<]*</tds:XAddr>' || { echo "demo: the device service did not answer" >&2; exit 1; }

if [ "$keep" -eq 0 ]; then
  say "Stopping"
  stop_all
  echo "done"
  exit 0
fi

say "The stack keeps running until Ctrl-C. Open $web/ in a browser (token: $token), or paste these into another shell:"
cat <<EOF
export DBUS_SYSTEM_BUS_ADDRESS='$address'
$bin/recsearch events $from $to --start-state
$bin/recsearch metadata $from $meta_to '$xpath' --json
$bin/recsearch events $to $from --max 5
$bin/recsearch metadata $from $to --class vehicle --colour red --region 0,0,0.5,1 --spans
$bin/recsearch metadata --class person --min-likelihood 0.8 --motion --show-xpath
$bin/recsearch summary $from $to --bucket 5m
$bin/recsearch index
$bin/recsearch --devices $tmp/devices metadata $from $to --class person --spans
$bin/recsearch noop
$bin/recsearch --help
$curl_line
EOF
# Returns when one of them exits by itself, or at Ctrl-C (the trap then stops the rest).
wait -n "${pids[@]}" || true
echo "demo: something stopped by itself:" >&2
for i in "${!pids[@]}"; do
  kill -0 "${pids[i]}" 2>/dev/null || { echo "  ${names[i]}:" >&2; cat "$tmp/${names[i]}.err" >&2 2>/dev/null || true; }
done
exit 1
