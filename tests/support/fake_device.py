#!/usr/bin/python3
"""A device's gateway gone wrong, for the hub and recsearch --devices: one server, and the
first part of each request's path says how it misbehaves (http://127.0.0.1:PORT/MODE). Its
lines carry times inside the range asked for, so that only the fault it is asked for is wrong.

    fake_device.py PORT     prints "ready" once it listens
"""
import json
import sys
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


def seconds(text):
    return float(text)


def result(sec, usec=0, **extra):
    line = {"job": 1, "kind": "recording", "time": "", "sec": sec, "usec": usec, "on": True,
            "start_state": False}
    line.update(extra)
    return json.dumps(line)


def lines_of(mode, start):
    """The lines of a mode, each a str (a line) or a float (seconds to wait first)."""
    t = int(start) + 1
    good = [result(t), result(t + 1)]
    completed = '{"job":1,"kind":"completed","results":2}'
    modes = {
        "sec-as-text": [good[0], '{"kind":"recording","sec":"%d","usec":0}' % t],
        "kind-number": ['{"kind":5}'],
        "through-number": ['{"kind":"progress","through":12}'],
        "error-number": ['{"error":42}'],
        "year-1970": [result(2 ** 40)],
        "sec-2-62": [result(2 ** 62)],
        "sec-1e300": ['{"kind":"recording","sec":1e300,"usec":0}'],
        "disorder": [good[1], good[0]],
        "wrong-kind": ['{"kind":"metadata","sec":%d,"usec":0}' % t],
        "claims-north": [result(t, device="north"), result(t + 1, device="north"), completed],
        "bom": ["\ufeff" + good[0], "   " + good[1], completed],
        "controls": ['{"kind":"notice","message":"\\u001b[2Jbell\\u0007 csi\\u009b"}',
                     result(t, track="\u001b]0;x\u0007\u009b31m"), completed],
        "chatter": [x for _ in range(600) for x in (1.0, "{}")],
        "same-progress": [x for _ in range(600) for x in
                          (1.0, '{"kind":"progress","through":"%d"}' % t)],
    }
    return modes[mode]


class Device(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers.get("Content-Length", "0"))))
        mode = self.path.split("/")[1]
        start = min(seconds(body["start"]), seconds(body["end"]))
        if mode == "error-object":
            self.answer(404, json.dumps({"error": {"code": 404, "message": "gone"}}))
            return
        if mode == "flood":
            self.flood(max(seconds(body["start"]), seconds(body["end"])),
                       "metadata" if self.path.endswith("/metadata") else "recording")
            return
        self.send_response(200)
        self.send_header("Content-Type", "application/x-ndjson")
        self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        self.chunk('{"kind":"search","id":1}\n')
        if mode == "drip":
            for c in '{"kind":"progress","through":"' + "9" * 1000:
                time.sleep(1)
                self.chunk(c)
        for line in lines_of(mode, start):
            if isinstance(line, float):
                time.sleep(line)
            else:
                self.chunk(line + "\n")
        self.chunk("")

    def flood(self, end, kind):
        """Valid results as fast as they can be taken, a microsecond apart, from a second before
        the range's end."""
        self.send_response(200)
        self.send_header("Content-Type", "application/x-ndjson")
        self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        at = int((end - 1) * 1e6)
        padding = "x" * 60000  # lines near the longest a device may send
        while at < end * 1e6:
            self.chunk(result(at // 1000000, at % 1000000, kind=kind, track=padding) + "\n")
            at += 1
        self.chunk('{"kind":"completed"}\n')
        self.chunk("")

    def answer(self, status, text):
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        self.wfile.write(text.encode())

    def chunk(self, text):
        data = text.encode()
        try:
            self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data))
            self.wfile.flush()
        except (BrokenPipeError, ConnectionResetError):
            raise SystemExit  # this request's thread only


def main():
    server = ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Device)
    server.daemon_threads = True
    print("ready", flush=True)
    server.serve_forever()


main()
