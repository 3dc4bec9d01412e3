#!/usr/bin/python3
"""The standard search interface against recsearch on the same stack (its bus in
DBUS_SYSTEM_BUS_ADDRESS, recording_index following): time to the last result of the same
FindMetadata, pulled a page of 1000 at a time as a VMS pulls, and the gateway's resident memory
while two searches that nobody pulls sit in it. Prints table rows.
   onvif_bench.py BIN_DIR FROM TO"""
import base64
import hashlib
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request
from datetime import datetime, timezone

bin_dir, start, end = sys.argv[1], sys.argv[2], sys.argv[3]
xpath = '//Object[Appearance/Class/Type="Person"]'
work = tempfile.mkdtemp()
with open(f"{work}/tokens", "w") as f:
    f.write("bench\n")
with open(f"{work}/users", "w") as f:
    f.write("vms bench-password\n")
os.chmod(f"{work}/users", 0o600)
with socket.socket() as s:
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
web = subprocess.Popen([f"{bin_dir}/recording_search_web", "--listen", f"127.0.0.1:{port}",
                        "--token-file", f"{work}/tokens", "--onvif-users", f"{work}/users"])
url = f"http://127.0.0.1:{port}/onvif/search_service"


def security():
    nonce = os.urandom(16)
    created = datetime.now(timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
    digest = base64.b64encode(hashlib.sha1(nonce + created.encode() + b"bench-password").digest())
    return ("<s:Header><w:Security xmlns:w='http://docs.oasis-open.org/wss/2004/01/oasis-200401-"
            "wss-wssecurity-secext-1.0.xsd'><w:UsernameToken><w:Username>vms</w:Username>"
            "<w:Password Type='#PasswordDigest'>" + digest.decode() + "</w:Password><w:Nonce>" +
            base64.b64encode(nonce).decode() + "</w:Nonce><w:Created>" + created +
            "</w:Created></w:UsernameToken></w:Security></s:Header>")


def call(operation):
    body = ("<s:Envelope xmlns:s='http://www.w3.org/2003/05/soap-envelope' "
            "xmlns:t='http://www.onvif.org/ver10/search/wsdl'>" + security() + "<s:Body>" +
            operation + "</s:Body></s:Envelope>").encode()
    request = urllib.request.Request(url, body, {"Content-Type": "application/soap+xml"})
    with urllib.request.urlopen(request) as answer:
        return answer.read().decode()


def find(xp, keep_alive="PT30S"):
    answer = call(f"<t:FindMetadata><t:StartPoint>{start}</t:StartPoint><t:EndPoint>{end}"
                  "</t:EndPoint><t:Scope/><t:MetadataFilter><t:MetadataStreamFilter>"
                  f"{xp.replace('<', '&lt;')}</t:MetadataStreamFilter></t:MetadataFilter>"
                  f"<t:KeepAliveTime>{keep_alive}</t:KeepAliveTime></t:FindMetadata>")
    return re.search(r"SearchToken>([0-9a-f]+)<", answer).group(1)


def by_face():
    began = time.monotonic()
    token, results = find(xpath), 0
    while True:
        page = call(f"<t:GetMetadataSearchResults><t:SearchToken>{token}</t:SearchToken>"
                    "<t:MinResults>1</t:MinResults><t:MaxResults>1000</t:MaxResults>"
                    "<t:WaitTime>PT5S</t:WaitTime></t:GetMetadataSearchResults>")
        results += page.count("<tt:Result>")
        if ">Completed<" in page:
            return time.monotonic() - began, results


def by_recsearch():
    began = time.monotonic()
    out = subprocess.run([f"{bin_dir}/recsearch", "metadata", start, end, xpath, "--json"],
                         capture_output=True, text=True, check=True).stdout
    return time.monotonic() - began, out.count('"kind":"metadata"')


def rss_mib():
    with open(f"/proc/{web.pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024


try:
    for _ in range(100):
        try:
            call("<t:GetServiceCapabilities/>")
            break
        except OSError:
            time.sleep(0.05)
    face, plain = [], []
    for _ in range(5):
        face.append(by_face())
        plain.append(by_recsearch())
    assert len({n for _, n in face + plain}) == 1, "the face and recsearch found different counts"
    f, p = statistics.median(t for t, _ in face), statistics.median(t for t, _ in plain)
    print(f"| FindMetadata through the standard interface, pulled 1000 a page, time to the last "
          f"of {face[0][1]} results (median of 5) | {f:.2f} s | recsearch {p:.2f} s | {f / p:.2f}x "
          f"(goal at most 1.1x) |")
    before = rss_mib()
    tokens = [find("true()", "PT120S") for _ in range(2)]
    samples = []
    for _ in range(10):
        time.sleep(1)
        samples.append(rss_mib())
    print(f"| gateway resident memory with 2 FindMetadata of every document that nobody pulls, "
          f"each second for 10 s | {min(samples):.1f} to {max(samples):.1f} MiB, last "
          f"{samples[-1]:.1f} | before them {before:.1f} MiB | flat: each holds at most 2048 "
          f"results |")
    for token in tokens:
        call(f"<t:EndSearch><t:SearchToken>{token}</t:SearchToken></t:EndSearch>")
finally:
    web.terminate()
    web.wait()
