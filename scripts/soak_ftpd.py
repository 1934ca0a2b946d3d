#!/usr/bin/python3
"""Soak test of `vekutil ftpd` on loopback.

Runs the server for --minutes under a steady mixed load from a few client
threads (logins, listings, downloads, uploads, failed logins, transfers
aborted half-way, connections dropped mid-command). Once a minute the load
pauses until the server is idle, and the library's block and byte counts
(from SITE STATUS, when the server knows it) and the server's resident size
(from /proc) are sampled. Writes the samples as CSV and an SVG chart, and
exits 1 when a figure kept growing after the first five minutes, or when
the ordinary actions failed.
"""
import argparse
import ftplib
import io
import json
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

USER, PASSWORD = "soak", "soak-pw"
SETTLE_MINUTES = 5


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, seconds=15):
    deadline = time.time() + seconds
    while time.time() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except OSError:
            time.sleep(0.1)
    return False


def rss_kib(pid):
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


class Server:
    """The server process, with accounts given the way its command line wants."""

    def __init__(self, tool, work, port):
        self.port = port
        root = os.path.join(work, "root")
        help_text = subprocess.run([tool, "ftpd", "--help"], capture_output=True, text=True).stdout
        if "--db" in help_text:  # the appliance keeps its accounts in a database
            db = os.path.join(work, "accounts.db")
            subprocess.run([tool, "ftpd", "--db", db, "--level", "all", "user", "add", USER],
                           input=PASSWORD + "\n", text=True, check=True, capture_output=True)
            argv = [tool, "ftpd", "--db", db, "--listen", str(port), "--root", root]
        else:
            argv = [tool, "ftpd", "--listen", str(port), "--root", root, "--user", "%s:%s:all" % (USER, PASSWORD)]
        self.log = open(os.path.join(work, "ftpd.log"), "w")
        self.process = subprocess.Popen(argv, stdout=self.log, stderr=subprocess.STDOUT, cwd=work)
        if not wait_port(port):
            self.stop()
            raise SystemExit("soak: the server did not start: " + " ".join(argv))

    def status(self):
        """The memory figures of SITE STATUS, or None when the server has none."""
        try:
            ftp = ftplib.FTP()
            ftp.connect("127.0.0.1", self.port, timeout=15)
            ftp.login(USER, PASSWORD)
            reply = ftp.sendcmd("SITE STATUS")
            ftp.quit()
        except (ftplib.Error, OSError, EOFError):
            return None
        match = re.search(r"\{.*\}", reply, re.S)
        if not match:
            return None
        try:
            return json.loads(match.group(0)).get("memory")
        except ValueError:
            return None

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()  # our own child, by its pid
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.log.close()


class Load:
    """Client threads running a fixed mix of actions until stopped. The
    sampler pauses them: each finishes its action and waits."""

    ACTIONS = ["session", "upload", "bad_login", "aborted_download", "dropped", "tree", "session", "upload"]

    def __init__(self, port, clients, pause_s):
        self.port = port
        self.pause_s = pause_s
        self.stop_flag = threading.Event()
        self.resume = threading.Event()
        self.resume.set()
        self.lock = threading.Lock()
        self.idle = 0
        self.done = {name: 0 for name in set(self.ACTIONS)}
        self.failed = {name: 0 for name in set(self.ACTIONS)}
        self.errors = []
        self.threads = [threading.Thread(target=self.run, args=(i,), daemon=True) for i in range(clients)]
        for t in self.threads:
            t.start()

    def connect(self):
        ftp = ftplib.FTP()
        ftp.connect("127.0.0.1", self.port, timeout=15)
        return ftp

    def run(self, worker):
        rnd = random.Random(worker)
        step = 0
        while not self.stop_flag.is_set():
            if not self.resume.is_set():
                with self.lock:
                    self.idle += 1
                self.resume.wait()
                with self.lock:
                    self.idle -= 1
                continue
            name = self.ACTIONS[(step + worker) % len(self.ACTIONS)]
            step += 1
            try:
                getattr(self, name)(worker, step, rnd)
                with self.lock:
                    self.done[name] += 1
            except (ftplib.Error, OSError, EOFError, AssertionError) as e:
                with self.lock:
                    self.failed[name] += 1
                    if len(self.errors) < 20:
                        self.errors.append("%s: %r" % (name, e))
            time.sleep(self.pause_s)

    def pause(self, seconds=30):
        """Stops the load; True once every client is idle."""
        self.resume.clear()
        deadline = time.time() + seconds
        while time.time() < deadline:
            with self.lock:
                if self.idle == len(self.threads):
                    return True
            time.sleep(0.05)
        return False

    def go_on(self):
        self.resume.set()

    def finish(self):
        self.stop_flag.set()
        self.resume.set()
        for t in self.threads:
            t.join(60)

    # ---- the actions

    def session(self, worker, step, rnd):
        ftp = self.connect()
        ftp.login(USER, PASSWORD)
        ftp.pwd()
        ftp.cwd("sub")
        ftp.nlst()
        ftp.cwd("..")
        lines = []
        ftp.retrlines("LIST", lines.append)
        assert any("small.bin" in l for l in lines), "listing without small.bin"
        data = io.BytesIO()
        ftp.retrbinary("RETR small.bin", data.write)
        assert len(data.getvalue()) == 4096, "short download"
        ftp.quit()

    def upload(self, worker, step, rnd):
        name = "up-%d-%d.bin" % (worker, step)
        payload = bytes(rnd.getrandbits(8) for _ in range(rnd.choice([1, 1000, 70000])))
        ftp = self.connect()
        ftp.login(USER, PASSWORD)
        ftp.storbinary("STOR " + name, io.BytesIO(payload))
        back = io.BytesIO()
        ftp.retrbinary("RETR " + name, back.write)
        assert back.getvalue() == payload, "upload came back different"
        ftp.delete(name)
        ftp.quit()

    def bad_login(self, worker, step, rnd):
        ftp = self.connect()
        try:
            ftp.login(USER, "wrong")
            raise AssertionError("a wrong password was accepted")
        except ftplib.error_perm:
            pass
        ftp.close()

    def aborted_download(self, worker, step, rnd):
        ftp = self.connect()
        ftp.login(USER, PASSWORD)
        ftp.voidcmd("TYPE I")
        conn = ftp.transfercmd("RETR big.bin")
        conn.recv(65536)
        conn.close()  # the data connection goes away half-way
        ftp.sock.close()  # and so does the control connection, without QUIT
        ftp.close()

    def dropped(self, worker, step, rnd):
        s = socket.create_connection(("127.0.0.1", self.port), timeout=15)
        s.recv(1024)
        s.sendall(b"USER " + USER.encode() + b"\r\nPASS ")  # a command cut off
        s.close()

    def tree(self, worker, step, rnd):
        ftp = self.connect()
        ftp.login(USER, PASSWORD)
        d = "dir-%d-%d" % (worker, step)
        ftp.mkd(d)
        ftp.storbinary("STOR %s/a.txt" % d, io.BytesIO(b"text\n"))
        ftp.rename("%s/a.txt" % d, "%s/b.txt" % d)
        ftp.delete("%s/b.txt" % d)
        ftp.rmd(d)
        ftp.quit()


def make_root(work):
    root = os.path.join(work, "root")
    os.makedirs(os.path.join(root, "sub"))
    with open(os.path.join(root, "small.bin"), "wb") as f:
        f.write(bytes(range(256)) * 16)
    with open(os.path.join(root, "big.bin"), "wb") as f:
        f.write(os.urandom(4 << 20))
    for i in range(20):
        with open(os.path.join(root, "sub", "file%02d.txt" % i), "w") as f:
            f.write("file %d\n" % i)


def svg_chart(samples, path):
    """Three panels over minutes: blocks, bytes (KiB), resident size (KiB)."""
    series = [("library blocks", "blocks", "#1f77b4"), ("library KiB", "kib", "#2ca02c"),
              ("resident KiB", "rss", "#d62728")]
    width, panel, left, top = 720, 170, 90, 30
    height = top + panel * len(series) + 40
    last_min = max(s["minute"] for s in samples) or 1
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="sans-serif" '
           'font-size="12">' % (width, height),
           '<rect width="100%" height="100%" fill="white"/>',
           '<text x="%d" y="18" font-size="14">vekutil ftpd soak: %d minutes, sampled every minute'
           ' (dashed: end of the first %d minutes)</text>' % (left, last_min, SETTLE_MINUTES)]
    for i, (title, key, colour) in enumerate(series):
        y0 = top + i * panel + 10
        h = panel - 40
        values = [(s["minute"], s[key]) for s in samples if s.get(key) is not None]
        out.append('<rect x="%d" y="%d" width="%d" height="%d" fill="none" stroke="#999"/>'
                   % (left, y0, width - left - 20, h))
        out.append('<text x="%d" y="%d">%s</text>' % (left + 5, y0 + 14, title))
        if not values:
            out.append('<text x="%d" y="%d" fill="#999">not reported by this server</text>'
                       % (left + 200, y0 + h // 2))
            continue
        lo = min(v for _, v in values)
        hi = max(v for _, v in values)
        if hi == lo:
            lo, hi = lo - 1, hi + 1
        span = hi - lo
        lo, hi = lo - span * 0.1, hi + span * 0.1

        def xy(minute, value):
            x = left + (width - left - 20) * minute / last_min
            y = y0 + h - h * (value - lo) / (hi - lo)
            return x, y

        for value in (lo, (lo + hi) / 2, hi):
            _, y = xy(0, value)
            out.append('<text x="%d" y="%.1f" text-anchor="end">%d</text>' % (left - 5, y + 4, value))
        sx, _ = xy(SETTLE_MINUTES, lo)
        if SETTLE_MINUTES <= last_min:
            out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="#999" stroke-dasharray="4"/>'
                       % (sx, y0, sx, y0 + h))
        points = " ".join("%.1f,%.1f" % xy(m, v) for m, v in values)
        out.append('<polyline fill="none" stroke="%s" stroke-width="2" points="%s"/>' % (colour, points))
        for m, v in values:
            x, y = xy(m, v)
            out.append('<circle cx="%.1f" cy="%.1f" r="3" fill="%s"/>' % (x, y, colour))
    y = top + panel * len(series) + 15
    for m in range(0, last_min + 1, max(1, last_min // 10)):
        x = left + (width - left - 20) * m / last_min
        out.append('<text x="%.1f" y="%d" text-anchor="middle">%d min</text>' % (x, y, m))
    out.append("</svg>")
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def growth(samples, key, slack_fraction, slack_min):
    """Text describing growth after the settling minutes, or None. Growth
    means both of the last two samples lie above the first settled one by
    more than the slack."""
    settled = [s[key] for s in samples if s["minute"] >= SETTLE_MINUTES and s.get(key) is not None]
    if len(settled) < 3:
        return None
    base = settled[0]
    limit = base + max(slack_min, base * slack_fraction)
    if min(settled[-2:]) > limit:
        return "%s grew from %d to %d after minute %d (limit %d)" % (key, base, settled[-1], SETTLE_MINUTES, limit)
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tool", required=True, help="the vekutil program")
    parser.add_argument("--minutes", type=int, default=30)
    parser.add_argument("--out", default="soak", help="directory for the chart and the samples")
    parser.add_argument("--clients", type=int, default=3)
    parser.add_argument("--pause", type=float, default=0.05, help="seconds between a client's actions")
    parser.add_argument("--sample-seconds", type=float, default=60.0)
    args = parser.parse_args()

    os.makedirs(args.out, exist_ok=True)
    work = tempfile.mkdtemp(prefix="vekutil-soak.")
    make_root(work)
    server = Server(os.path.abspath(args.tool), work, free_port())
    load = None
    samples = []
    try:
        has_status = server.status() is not None
        print("soak: %d minutes against pid %d on port %d; library counts %s" %
              (args.minutes, server.process.pid, server.port,
               "from SITE STATUS" if has_status else "not available (no SITE STATUS): resident size only"))
        load = Load(server.port, args.clients, args.pause)
        start = time.time()
        for minute in range(0, args.minutes + 1):
            target = start + minute * args.sample_seconds
            while time.time() < target:
                if server.process.poll() is not None:
                    raise SystemExit("soak: the server exited with %s" % server.process.returncode)
                time.sleep(0.2)
            quiet = load.pause()
            time.sleep(1.0)  # sessions the clients just closed end on the server
            memory = server.status() if has_status else None
            # Bytes are counted in the allocator's debug mode only; 0 beside
            # live blocks means "not counted".
            blocks = memory.get("blocks") if memory else None
            kib = memory.get("bytes") if memory else None
            kib = kib // 1024 if kib else None
            sample = {"minute": minute, "rss": rss_kib(server.process.pid), "blocks": blocks, "kib": kib}
            load.go_on()
            samples.append(sample)
            with load.lock:
                actions = sum(load.done.values())
                failures = sum(load.failed.values())
            print("minute %2d: blocks %s, library KiB %s, resident KiB %s; actions %d, failed %d%s" %
                  (minute, sample["blocks"], sample["kib"], sample["rss"], actions, failures,
                   "" if quiet else " (clients did not pause)"), flush=True)
    finally:
        if load:
            load.finish()
        server.stop()

    with open(os.path.join(args.out, "soak.csv"), "w") as f:
        f.write("minute,blocks,library_kib,resident_kib\n")
        for s in samples:
            f.write("%d,%s,%s,%s\n" % (s["minute"], s["blocks"] if s["blocks"] is not None else "",
                                       s["kib"] if s["kib"] is not None else "", s["rss"] or ""))
    svg_chart(samples, os.path.join(args.out, "soak.svg"))
    shutil.rmtree(work, ignore_errors=True)

    print("actions done:   " + ", ".join("%s %d" % kv for kv in sorted(load.done.items())))
    print("actions failed: " + ", ".join("%s %d" % kv for kv in sorted(load.failed.items())))
    for e in load.errors[:10]:
        print("  " + e)
    print("chart: %s" % os.path.join(args.out, "soak.svg"))

    problems = [p for p in (growth(samples, "blocks", 0.0, 64), growth(samples, "kib", 0.02, 64),
                            growth(samples, "rss", 0.10, 4096)) if p]
    total = sum(load.done.values()) + sum(load.failed.values())
    if total == 0 or sum(load.failed.values()) > total * 0.01:
        problems.append("%d of %d actions failed" % (sum(load.failed.values()), total))
    for p in problems:
        print("soak: FAILED: " + p)
    if not problems:
        print("soak: passed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
