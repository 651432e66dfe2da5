#!/usr/bin/env python3
"""Memory of a server under clients that each hold an unfinished request line.

    partial_line_attack.py BENCH_SERVER [--clients 300] [--line-mib 1]

Starts BENCH_SERVER (bench/bench_server), reads its resident memory after start, opens the
clients, has each send --line-mib MiB without a newline, waits until the server has taken what
it will take, and reads the resident memory again (VmRSS and the peak VmHWM). Prints one line per
reading and how many of the clients the server closed.
"""
import argparse
import os
import socket
import subprocess
import sys
import time


def memory_kb(pid):
    values = {}
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            key, _, rest = line.partition(":")
            if key in ("VmRSS", "VmHWM"):
                values[key] = int(rest.split()[0])
    return values


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--clients", type=int, default=300)
    parser.add_argument("--line-mib", type=float, default=1.0)
    args = parser.parse_args()

    server = subprocess.Popen([args.server, "--nodes", "2000"], stdout=subprocess.PIPE, text=True)
    try:
        ready = dict(f.split("=", 1) for f in server.stdout.readline().split() if "=" in f)
        port = int(ready["port"])
        time.sleep(0.5)
        before = memory_kb(server.pid)
        print(f"after start: VmRSS {before['VmRSS']} kB")

        payload = b" " * int(args.line_mib * 1024 * 1024)
        clients, closed = [], 0
        for _ in range(args.clients):
            s = socket.create_connection(("127.0.0.1", port))
            s.setblocking(False)
            clients.append([s, 0])
        # Push every client's line as far as the server reads it.
        deadline = time.time() + 60
        while time.time() < deadline:
            progress = False
            for c in clients:
                s, sent = c
                if s is None or sent >= len(payload):
                    continue
                try:
                    n = s.send(payload[sent:sent + 65536])
                    c[1] += n
                    progress = progress or n > 0
                except BlockingIOError:
                    pass
                except OSError:
                    s.close()
                    c[0] = None
                    closed += 1
            if not progress:
                break
        time.sleep(2)
        for c in clients:
            if c[0] is None:
                continue
            try:
                if c[0].recv(4096) == b"":
                    closed += 1
                    c[0].close()
                    c[0] = None
            except BlockingIOError:
                pass
            except OSError:
                closed += 1
                c[0] = None
        after = memory_kb(server.pid)
        print(f"{args.clients} clients x {args.line_mib} MiB unfinished: VmRSS {after['VmRSS']} kB, "
              f"peak VmHWM {after['VmHWM']} kB, clients closed by the server: {closed}")
        for c in clients:
            if c[0] is not None:
                c[0].close()
    finally:
        server.terminate()
        server.wait(timeout=10)


if __name__ == "__main__":
    sys.exit(main())
