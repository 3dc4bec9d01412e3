#!/usr/bin/python3
"""recsearch --devices over 8 devices on this machine (8 private stacks: bus, recording_store
with a recording of its own seed, recording_search, recording_search_web), against the same
search on one device alone. Prints table rows.
   devices_bench.py BIN_DIR"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

bin_dir = sys.argv[1]
work = tempfile.mkdtemp()
procs = []
FROM = "2024-01-01T00:00:00Z"

BUS_CONF = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_type="method_call"/>
<allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(check, what):
    for _ in range(200):
        if check():
            return
        time.sleep(0.05)
    raise SystemExit(f"devices_bench: {what} did not start")


def start_device(n):
    d = f"{work}/d{n}"
    os.mkdir(d)
    subprocess.run([f"{bin_dir}/recording_store", "generate", f"{d}/rec.db", "--seed", str(40 + n),
                    "--duration", "1h"], check=True, capture_output=True)
    with open(f"{d}/bus.conf", "w") as f:
        f.write(BUS_CONF.format(socket=f"{d}/bus.socket"))
    bus = subprocess.Popen(["dbus-daemon", "--config-file", f"{d}/bus.conf", "--nofork",
                            "--print-address=1"], stdout=subprocess.PIPE, text=True)
    procs.append(bus)
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.stdout.readline().strip(),
               KAVRO_LOG_FILE=f"{d}/kavro.log", KAVRO_LOG_MAX_PRIORITY="6")
    has = lambda name: subprocess.run(["busctl", "--system", "status", name], env=env,
                                      capture_output=True).returncode == 0
    quiet = dict(stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    procs.append(subprocess.Popen([f"{bin_dir}/recording_store", "serve", f"{d}/rec.db"], env=env,
                                  **quiet))
    wait_for(lambda: has("kavro.recording_data_access"), "recording_store")
    procs.append(subprocess.Popen([f"{bin_dir}/recording_search"], env=env, **quiet))
    wait_for(lambda: has("kavro.recording_search"), "recording_search")
    with open(f"{d}/token", "w") as f:
        f.write(f"token-{n}\n")
    port = free_port()
    web = subprocess.Popen([f"{bin_dir}/recording_search_web", "--listen", f"127.0.0.1:{port}",
                            "--token-file", f"{d}/token"], env=env, **quiet)
    procs.append(web)
    wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, "the gateway")
    return f"dev{n} http://127.0.0.1:{port} {d}/token", web


def timed(args):
    began = time.monotonic()
    out = subprocess.run([f"{bin_dir}/recsearch", *args, "--json"], capture_output=True, text=True)
    elapsed = time.monotonic() - began
    lines = [l for l in out.stdout.splitlines() if '"kind"' in l]
    return elapsed, len(lines) - 1


try:
    devices = [start_device(n) for n in range(8)]
    with open(f"{work}/devices", "w") as f:
        f.write("\n".join(line for line, _ in devices) + "\n")
    everyone = ["--devices", f"{work}/devices"]

    # Time to the last line: the merged search against each device alone (the slowest of them).
    search = ["metadata", FROM, "2024-01-01T00:02:00Z", "--class", "person", "--spans"]
    alone = [timed(everyone + ["--device", f"dev{n}"] + search)[0] for n in range(8)]
    merged, merged_lines = timed(everyone + search)
    # Eight walks at once share this machine's cores, as they never would on eight devices: the
    # same eight searches run at once without the merge show what that sharing costs.
    began = time.monotonic()
    apart = [subprocess.Popen([f"{bin_dir}/recsearch", *everyone, "--device", f"dev{n}", *search,
                               "--json"], stdout=subprocess.DEVNULL) for n in range(8)]
    for p in apart:
        p.wait()
    at_once = time.monotonic() - began
    print(f"| 8 devices merged, `metadata --class person --spans` over 2 minutes, time to the last "
          f"line | {merged:.2f} s | the slowest device alone {max(alone):.2f} s; the eight run at "
          f"once, each alone, {at_once:.2f} s | {merged / max(alone):.2f} against one alone, "
          f"{merged / at_once:.2f} against the eight at once (goal at most 1.1) |")

    # Lines per second through the merge: every document of 5 minutes, 8 devices against one.
    every = ["metadata", FROM, "2024-01-01T00:05:00Z", ""]
    one_s, one_lines = timed(everyone + ["--device", "dev0"] + every)
    all_s, all_lines = timed(everyone + every)
    print(f"| lines per second through the merge, every document of 5 minutes | "
          f"{all_lines / all_s:.0f} lines/s over 8 devices ({all_lines} lines) | one device "
          f"{one_lines / one_s:.0f} lines/s | {(all_lines / all_s) / (one_lines / one_s):.2f} "
          f"(goal at least 0.9) |")

    # Memory while one device is held back: the others run ahead until their queues are full.
    held = devices[3][1]
    run = subprocess.Popen([f"{bin_dir}/recsearch", *everyone, "--device-timeout", "8s", *every,
                            "--json"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(0.5)
    held.send_signal(signal.SIGSTOP)
    samples = []
    while run.poll() is None:
        with open(f"/proc/{run.pid}/status") as f:
            samples.extend(int(l.split()[1]) / 1024 for l in f if l.startswith("VmRSS:"))
        time.sleep(0.5)
    held.send_signal(signal.SIGCONT)
    early, late = samples[1] if len(samples) > 1 else 0, max(samples)
    print(f"| recsearch's resident memory while one of 8 devices is stopped (SIGSTOP) until it is "
          f"dropped | {early:.1f} MiB after 1 s, at most {late:.1f} MiB over {len(samples) / 2:.0f} "
          f"s | flat while held | {late / max(early, 0.1):.2f} |")
finally:
    for p in reversed(procs):
        p.send_signal(signal.SIGCONT)
        p.terminate()
    for p in procs:
        try:
            p.wait(timeout=5)
        except subprocess.TimeoutExpired:
            p.kill()
    shutil.rmtree(work, ignore_errors=True)
