#!/usr/bin/python3
"""The load of bench/events.sh: STREAMS event streams (4 per session) on one
path, writes through the API and through wcfgctl, and for each write the
delay from its answer (the API's, or wcfgctl's exit) to its event at every
stream; then the same writes through the API while ten clients that watch
everything resume together from before all of them (what the live streams
wait for while the hub brings the ten up to date); then the daemon's CPU
time and resident memory while the streams stay open and idle.

    events_load.py PORT PID STREAMS WRITES IDLE_SECONDS
"""
import http.client
import json
import os
import selectors
import ssl
import subprocess
import sys
import threading
import time

PATH = "Device.WiFi.SSID.1."


def context():
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    return ctx


def login(port):
    c = http.client.HTTPSConnection("127.0.0.1", port, context=context())
    c.request("POST", "/api/v1/UserLogin",
              json.dumps({"username": "admin", "password": "1234abcd"}))
    r = c.getresponse()
    body = json.loads(r.read())
    cookie = r.getheader("Set-Cookie").split(";")[0]
    return c, cookie, body["sessionkey"]


def open_stream(port, cookie, query="?path=" + PATH, resume=None):
    raw = context().wrap_socket(__import__("socket").create_connection(("127.0.0.1", port)))
    extra = "Last-Event-ID: %s\r\n" % resume if resume else ""
    raw.sendall(("GET /api/v1/Events%s HTTP/1.1\r\nHost: d\r\nCookie: %s\r\n%s\r\n"
                 % (query, cookie, extra)).encode())
    head = b""
    while b"\r\n\r\n" not in head:
        head += raw.recv(4096)
    if b" 200 " not in head.split(b"\r\n")[0]:
        sys.exit("stream refused: %s" % head.split(b"\r\n")[0].decode())
    raw.setblocking(False)
    return raw


class Readers:
    """Reads every stream on one thread; notes when each value arrives."""

    def __init__(self, streams):
        self.sel = selectors.DefaultSelector()
        self.arrivals = {}  # value -> [arrival times]
        self.lock = threading.Lock()
        self.stop = False
        for i, s in enumerate(streams):
            self.sel.register(s, selectors.EVENT_READ, [i, b""])
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.stop:
            for key, _ in self.sel.select(0.2):
                try:
                    data = key.fileobj.recv(65536)
                except ssl.SSLWantReadError:
                    continue
                now = time.monotonic()
                buf = key.data[1] + data
                lines = buf.split(b"\n")
                key.data[1] = lines.pop()
                for line in lines:
                    if line.startswith(b"data: "):
                        value = json.loads(line[6:]).get("Object", {}).get("SSID")
                        with self.lock:
                            self.arrivals.setdefault(value, []).append(now)


def percentile(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(len(values) * p / 100))] if values else float("nan")


def cpu_ms(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) * 1000.0 / os.sysconf("SC_CLK_TCK")


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])


def idle_cost(pid, seconds):
    before, t0 = cpu_ms(pid), time.monotonic()
    time.sleep(seconds)
    spent, elapsed = cpu_ms(pid) - before, time.monotonic() - t0
    return spent, elapsed


def position(port, cookie):
    """The last change a read shows (X-Event-Id), as a client resumes from it."""
    c = http.client.HTTPSConnection("127.0.0.1", port, context=context())
    c.request("GET", "/api/v1/TR181/Value/%s" % PATH, headers={"Cookie": cookie})
    r = c.getresponse()
    r.read()
    c.close()
    return r.getheader("X-Event-Id") or "1"


def resume_together(port, cookie, since, count, done):
    """`count` clients that watch everything open their streams at once, all
    resuming from `since`, and read until each has caught up (its first
    block after the backlog) or gave up; `done` gets the seconds it took."""
    def one():
        t0 = time.monotonic()
        s = open_stream(port, cookie, query="", resume=since)
        s.setblocking(True)
        s.settimeout(30)
        got = b""
        try:
            # Caught up: it shows a value of this phase's writes, or a resync.
            while b"event: resync" not in got and b'"resume-' not in got:
                data = s.recv(65536)
                if not data:
                    break
                got += data
        except (OSError, ssl.SSLError):
            pass
        done.append(time.monotonic() - t0)
        s.close()
    threads = [threading.Thread(target=one) for _ in range(count)]
    for t in threads:
        t.start()
    return threads


def api_writes(prefix, n, writer, cookie, key, answered, midway=None):
    for i in range(n):
        if midway and i == n // 4:
            midway()
        value = "%s-%d" % (prefix, i)
        writer.request("PUT", "/api/v1/TR181/Value/%s?sessionkey=%d" % (PATH, key),
                       json.dumps({"SSID": value}), {"Cookie": cookie})
        body = json.loads(writer.getresponse().read())
        answered[value] = time.monotonic()
        key = body["sessionkey"]
        time.sleep(0.02)
    return key


def wait_arrivals(readers, answered, nstreams):
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        with readers.lock:
            if all(len(readers.arrivals.get(v, [])) >= nstreams for v in answered):
                return
        time.sleep(0.05)


def main():
    port, pid, nstreams, nwrites, idle = (int(a) for a in sys.argv[1:6])
    spent, elapsed = idle_cost(pid, idle)
    print("  no stream, idle for %.0f s: daemon CPU %.0f ms (%.3f %% of one core), RSS %d kB"
          % (elapsed, spent, spent / elapsed / 10, rss_kb(pid)))
    sessions = [login(port) for _ in range((nstreams + 3) // 4)]
    for connection, _, _ in sessions:
        connection.close()
    streams = [open_stream(port, sessions[i // 4][1]) for i in range(nstreams)]
    readers = Readers(streams)
    writer, cookie, key = login(port)
    since = position(port, cookie)
    answered = {}  # value -> answer time
    key = api_writes("api", nwrites, writer, cookie, key, answered)
    for i in range(nwrites // 2):
        value = "cli-%d" % i
        subprocess.run(["build/wcfgctl", "set", PATH, json.dumps({"SSID": value})],
                       check=True, stdout=subprocess.DEVNULL)
        answered[value] = time.monotonic()
        time.sleep(0.02)
    # Ten clients resume together, from before every write so far, while the
    # API's writes go on.
    resumed, resumers = [], []
    key = api_writes("resume", nwrites, writer, cookie, key, answered,
                     midway=lambda: resumers.extend(
                         resume_together(port, sessions[0][1], since, 10, resumed)))
    for t in resumers:
        t.join()
    wait_arrivals(readers, answered, nstreams)
    for kind in ("api", "cli", "resume"):
        delays, missing = [], 0
        with readers.lock:
            for value, t in answered.items():
                if value.startswith(kind):
                    got = readers.arrivals.get(value, [])
                    missing += nstreams - len(got)
                    delays += [(a - t) * 1000 for a in got]
        writes = sum(1 for v in answered if v.startswith(kind))
        label = {"api": "through the API", "cli": "through wcfgctl",
                 "resume": "API, 10 clients resuming"}[kind]
        print("  %-28s %5d writes x %d streams: p50 %6.1f ms, p99 %6.1f ms, max %6.1f ms, %d missing"
              % (label, writes, nstreams, percentile(delays, 50), percentile(delays, 99),
                 max(delays or [0]), missing))
    print("  the 10 resuming clients up to date after: p50 %.0f ms, max %.0f ms"
          % (percentile(resumed, 50) * 1000, max(resumed or [0]) * 1000))
    spent, elapsed = idle_cost(pid, idle)
    print("  %d streams open and idle for %.0f s: daemon CPU %.0f ms (%.3f %% of one core), RSS %d kB"
          % (nstreams, elapsed, spent, spent / elapsed / 10, rss_kb(pid)))
    readers.stop = True


if __name__ == "__main__":
    main()
