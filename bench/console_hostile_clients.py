#!/usr/bin/python3
"""The console under hostile clients, measured over loopback.

    bench/console_hostile_clients.py [TSANOMALYCTL] [--flood-mb 150] [--drip-seconds 20]

Header flood: four clients at once each send `GET /metrics` and then header
lines until the console closes the connection or FLOOD_MB are sent; prints
the console's resident memory (VmRSS) before, at its peak and after, and how
much each client got to send.

Dripping clients: ten connections each send one header line every 3 s while
a legitimate client asks for /metrics once a second (10 s timeout); prints
the legitimate requests' latencies (median, slowest) and how many failed.
"""
import argparse
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def start_console(ctl, work):
    db = os.path.join(work, "anomaly.db")
    subprocess.run([ctl, "simulate", db, "--workloads", "12", "--days", "40", "--pending", "12", "--anomalies",
                    "20", "--seed", "7"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([ctl, "detect", "-database_location", work, "-database_file_name", "anomaly.db", "-log_path",
                    work], check=True, stdout=subprocess.DEVNULL)
    server = subprocess.Popen([ctl, "serve", db, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
    while True:
        line = server.stdout.readline()
        if not line:
            raise SystemExit("the console did not start")
        if line.startswith("Console listening on "):
            port = int(line.rsplit(":", 1)[1].strip().rstrip("/"))
            return server, port


def flood(port, limit, sent, index):
    block = ("X-Filler: " + "f" * 1000 + "\r\n").encode() * 64
    total = 0
    try:
        with socket.create_connection(("127.0.0.1", port)) as s:
            s.sendall(b"GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            while total < limit:
                s.sendall(block)
                total += len(block)
    except OSError:
        pass
    sent[index] = total


def metrics_latency(port, timeout):
    started = time.monotonic()
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
            s.settimeout(timeout)
            s.sendall(f"GET /metrics HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nConnection: close\r\n\r\n".encode())
            answer = b""
            while True:
                chunk = s.recv(65536)
                if not chunk:
                    break
                answer += chunk
        return time.monotonic() - started if answer.startswith(b"HTTP/1.1 200") else None
    except OSError:
        return None


def header_flood(server, port, flood_mb):
    before = rss_kib(server.pid)
    sent = [0] * 4
    threads = [threading.Thread(target=flood, args=(port, flood_mb << 20, sent, i)) for i in range(4)]
    for t in threads:
        t.start()
    peak = before
    while any(t.is_alive() for t in threads):
        if server.poll() is not None:
            break
        peak = max(peak, rss_kib(server.pid))
        time.sleep(0.02)
    for t in threads:
        t.join()
    time.sleep(1)
    alive = server.poll() is None
    after = rss_kib(server.pid) if alive else 0
    print(f"header flood, 4 clients x {flood_mb} MiB: RSS before {before / 1024:.1f} MiB, peak {peak / 1024:.1f} MiB,"
          f" after {after / 1024:.1f} MiB; console {'alive' if alive else 'DEAD'}")
    print("  sent before the console closed each connection: " + ", ".join(f"{n / 1024:.0f} KiB" for n in sent))
    return alive


def drip(port, seconds):
    stop = time.monotonic() + seconds

    def dripper():
        try:
            with socket.create_connection(("127.0.0.1", port)) as s:
                s.sendall(b"GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n")
                while time.monotonic() < stop:
                    time.sleep(3)
                    s.sendall(b"X-Drip: 1\r\n")
        except OSError:
            pass

    threads = [threading.Thread(target=dripper, daemon=True) for _ in range(10)]
    for t in threads:
        t.start()
    time.sleep(0.5)
    latencies, failed = [], 0
    while time.monotonic() < stop:
        latency = metrics_latency(port, 10)
        if latency is None:
            failed += 1
        else:
            latencies.append(latency)
        time.sleep(1)
    median = statistics.median(latencies) * 1000 if latencies else float("nan")
    slowest = max(latencies) * 1000 if latencies else float("nan")
    print(f"10 dripping clients, {seconds} s: {len(latencies)} legitimate requests answered, {failed} failed;"
          f" median {median:.1f} ms, slowest {slowest:.1f} ms")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tsanomalyctl", nargs="?", default="build/tsanomalyctl")
    parser.add_argument("--flood-mb", type=int, default=150)
    parser.add_argument("--drip-seconds", type=int, default=20)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as work:
        server, port = start_console(args.tsanomalyctl, work)
        try:
            drip(port, args.drip_seconds)
            header_flood(server, port, args.flood_mb)
        finally:
            server.terminate()
            server.wait(timeout=30)
    return 0


if __name__ == "__main__":
    sys.exit(main())
