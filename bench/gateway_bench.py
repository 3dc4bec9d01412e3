#!/usr/bin/python3
"""The gateway against recsearch on the same stack, side by side: time to the last line of the
same searches, result lines per second, and the gateway's resident memory. Prints table rows.
   gateway_bench.py BIN_DIR START_SECONDS"""
import json
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

bin_dir, start = sys.argv[1], int(sys.argv[2])
token = "bench-token"
work = tempfile.mkdtemp()
with open(f"{work}/tokens", "w") as f:
    f.write(token + "\n")
with socket.socket() as s:
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
web = subprocess.Popen([f"{bin_dir}/recording_search_web", "--listen", f"127.0.0.1:{port}",
                        "--token-file", f"{work}/tokens"])
base = f"http://127.0.0.1:{port}"
for _ in range(100):
    try:
        urllib.request.urlopen(base + "/api/v1/status")
    except urllib.error.HTTPError:
        break
    except OSError:
        time.sleep(0.05)


def rss_mib():
    with open(f"/proc/{web.pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024


def curl(path, body):
    t = time.monotonic()
    out = subprocess.run(["curl", "-sN", "-H", f"Authorization: Bearer {token}", "-H",
                          "Content-Type: application/json", "-d", json.dumps(body),
                          base + path], capture_output=True, text=True, check=True).stdout
    return time.monotonic() - t, out.count('"job"')


def recsearch(args):
    t = time.monotonic()
    out = subprocess.run([f"{bin_dir}/recsearch", *args, "--json", "--no-progress"],
                         capture_output=True, text=True, check=True).stdout
    return time.monotonic() - t, out.count('"job"')


def side_by_side(name, path, body, args, runs=3):
    web_t, cli_t, lines = [], [], 0
    for _ in range(runs):
        t, lines = curl(path, body)
        web_t.append(t)
        cli_t.append(recsearch(args)[0])
    w, c = statistics.median(web_t), statistics.median(cli_t)
    print(f"| {name}: time to the last line, gateway (median of {runs}) | {w * 1000:.0f} ms "
          f"({lines} lines) | recsearch --json {c * 1000:.0f} ms | {w / c:.2f}x |")
    return lines / w, lines / c


events_end = start + 600
side_by_side("event search, 10 min with the start state", "/api/v1/events",
             {"start": start, "end": events_end, "startState": True},
             ["events", str(start), str(events_end), "-s"])
meta_end = start + 300
web_rate, cli_rate = side_by_side(
    "metadata search, every document of 5 min", "/api/v1/metadata",
    {"start": start, "end": meta_end, "xpath": ""}, ["metadata", str(start), str(meta_end), ""])
print(f"| result lines per second through the gateway, the walk's full pace | {web_rate:.0f} /s "
      f"| recsearch --json {cli_rate:.0f} /s | {web_rate / cli_rate:.2f}x |")

idle = rss_mib()
streams = [subprocess.Popen(["curl", "-sN", "-H", f"Authorization: Bearer {token}", "-H",
                             "Content-Type: application/json", "-d",
                             json.dumps({"start": start, "end": start + 3600, "xpath": ""}),
                             base + "/api/v1/metadata"], stdout=subprocess.DEVNULL)
           for _ in range(8)]
time.sleep(2)
with_streams = rss_mib()
for s in streams:
    s.kill()
    s.wait()
time.sleep(1.5)


def many(n):
    for _ in range(n):
        curl("/api/v1/events", {"start": start, "end": start + 1})


many(100)
warm = rss_mib()
t = time.monotonic()
many(1000)
after = rss_mib()
print(f"| gateway resident memory idle | {idle:.1f} MiB | goal < 12 MiB | {idle / 12:.2f} of goal |")
print(f"| gateway resident memory, 8 clients streaming (2 searches run, the service refuses "
      f"more) | {with_streams:.1f} MiB | idle | {with_streams / idle:.2f}x |")
print(f"| gateway resident memory after 1000 more searches ({time.monotonic() - t:.0f} s) | "
      f"{after:.1f} MiB | after 100 searches {warm:.1f} MiB | {(after / warm - 1) * 100:+.1f}% |")

# A hub: the same gateway with a devices file (this gateway, over loopback). libcurl is loaded
# when the devices file is read (its URL parser), so that a gateway that is not a hub never pays.
os.chmod(f"{work}/tokens", 0o600)
with open(f"{work}/devices", "w") as f:
    f.write(f"self http://127.0.0.1:{port} {work}/tokens\n")
with socket.socket() as s:
    s.bind(("127.0.0.1", 0))
    hub_port = s.getsockname()[1]
hub = subprocess.Popen([f"{bin_dir}/recording_search_web", "--listen", f"127.0.0.1:{hub_port}",
                        "--token-file", f"{work}/tokens", "--devices", f"{work}/devices"])
time.sleep(1.5)
web, hub_gateway = hub, web  # rss_mib() reads the hub now
hub_idle = rss_mib()
subprocess.run(["curl", "-sN", "-H", f"Authorization: Bearer {token}", "-H",
                "Content-Type: application/json", "-d",
                json.dumps({"start": start, "end": start + 60, "startState": True,
                            "devices": "all"}),
                f"http://127.0.0.1:{hub_port}/api/v1/events"], capture_output=True, check=True)
hub_used = rss_mib()
print(f"| hub resident memory idle (libcurl loaded with its devices file) | {hub_idle:.1f} MiB | "
      f"the gateway idle {idle:.1f} MiB | {hub_idle / idle:.2f}x |")
print(f"| hub resident memory after its first merged search | {hub_used:.1f} MiB | hub idle | "
      f"{hub_used / hub_idle:.2f}x |")
for process in (hub, hub_gateway):
    process.terminate()
    process.wait()
