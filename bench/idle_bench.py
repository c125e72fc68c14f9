#!/usr/bin/env python3
"""What a paired, connected agent costs while nothing happens, against a raw
MQTT subscriber over mutual TLS on the same broker.

Pairs an agent (agenthost with the module) against devcloud's broker and
credential service, starts bench/mqtt_floor --idle (its own client
certificate, subscribed to one desktop's commands topic, the agent's
keep-alive and session expiry), lets both settle, and then watches both
processes for --seconds. It reports for each:
  RSS, PSS      VmRSS and Pss (/proc/PID/smaps_rollup) at the end, MiB
  CPU           utime + stime over the window, % of one core (clock ticks)
  run ms/min    the threads' run time (schedstat, ns), ms per minute
  threads       at the end
  wake-ups/s    voluntary + non-voluntary context switches of all threads
                over the window, per second
and agent / subscriber for each, and the agent's threads that switched most.
With --restart the agent is stopped after pairing and started again on its
stored pairing: a desktop's usual state, in which no HTTPS exchange has run.

Usage: python3 bench/idle_bench.py [--build build] [--seconds 120] [--settle 10]
           [--log-level 2] [--metrics-interval S] [--restart]
"""
import argparse
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from paired_agent import PairedAgent, read_proc  # noqa: E402
from pairing_bench import stop_all  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_ticks(pid):
    """utime + stime of the whole process."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def threads_of(pid):
    """{(tid, name): (context switches, run time in ns)} of the threads alive now;
    switches are voluntary + non-voluntary, run time from schedstat (finer
    than the clock ticks of utime and stime)."""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        task = f"/proc/{pid}/task/{tid}"
        try:
            with open(task + "/comm") as f:
                name = f.read().strip()
            with open(task + "/status") as f:
                switches = sum(int(line.split()[1]) for line in f
                               if line.endswith("ctxt_switches:", 0, line.index(":") + 1))
            with open(task + "/schedstat") as f:
                run_ns = int(f.read().split()[0])
            out[(tid, name)] = (switches, run_ns)
        except OSError:
            pass  # it ended while we looked
    return out


class Watch:
    """One process's counters at the window's start; its figures at the end."""

    def __init__(self, pid):
        self.pid = pid
        self.ticks, self.threads, self.start = cpu_ticks(pid), threads_of(pid), time.monotonic()

    def finish(self):
        seconds = time.monotonic() - self.start
        # A thread that ended during the window takes its counts with it.
        delta = {k: [now - then for now, then in zip(v, self.threads.get(k, (0, 0)))]
                 for k, v in threads_of(self.pid).items()}
        self.busiest = sorted(delta.items(), key=lambda kv: -kv[1][0])[:5]
        return {
            "RSS MiB": read_proc(self.pid, "status", "VmRSS:") / 1024,
            "PSS MiB": read_proc(self.pid, "smaps_rollup", "Pss:") / 1024,
            "CPU %": 100 * (cpu_ticks(self.pid) - self.ticks) / TICKS / seconds,
            "run ms/min": sum(d[1] for d in delta.values()) / 1e6 / seconds * 60,
            "threads": read_proc(self.pid, "status", "Threads:"),
            "wake-ups/s": sum(d[0] for d in delta.values()) / seconds,
        }


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--seconds", type=float, default=120, help="the window watched")
    ap.add_argument("--settle", type=float, default=10,
                    help="seconds after connecting before the window starts")
    ap.add_argument("--log-level", type=int, default=2, help="the agent's (2 is its default)")
    ap.add_argument("--metrics-interval", type=int,
                    help="agenthost's seconds between metric collections (default: its own)")
    ap.add_argument("--restart", action="store_true",
                    help="watch the agent after a restart on its stored pairing (no HTTPS used)")
    args = ap.parse_args()
    extra = ["--metrics-interval", str(args.metrics_interval)] if args.metrics_interval else []
    with PairedAgent(args.build, "ndpx-idle-bench.", log_level=args.log_level,
                     agent_args=extra) as a:
        if args.restart:
            a.restart()
        cert = a.client_cert("bench-idle")
        floor = subprocess.Popen([a.tool("bench/mqtt_floor"), "--idle", "--port", str(a.port),
                                  "--ca", a.ca, "--cert", cert, "--client-id", "bench-idle",
                                  "--desktop", "bench/idle", "--session-expiry", "300"],
                                 stdout=subprocess.PIPE, text=True)
        try:
            assert floor.stdout.readline().strip() == "ready", "the subscriber did not connect"
            time.sleep(args.settle)
            watches = {"agent": Watch(a.agent.pid), "subscriber": Watch(floor.pid)}
            print(f"watching for {args.seconds:g} s ...", file=sys.stderr)
            time.sleep(args.seconds)
            got = {who: w.finish() for who, w in watches.items()}
        finally:
            stop_all([floor])
    print(f"idle for {args.seconds:g} s (after {args.settle:g} s to settle)")
    print(f"{'':12s} {'agent':>10s} {'subscriber':>11s} {'agent/sub':>10s}")
    for key in got["agent"]:
        ag, sub = got["agent"][key], got["subscriber"][key]
        f = ".0f" if key == "threads" else ".2f"
        ratio = f"{ag / sub:10.2f}" if sub else f"{'-':>10s}"
        print(f"{key:12s} {ag:10{f}} {sub:11{f}} {ratio}")
    print("agent's threads that switched most (switches, run ms in the window):")
    for (tid, name), (n, run_ns) in watches["agent"].busiest:
        print(f"  {name:16s} {tid:>8s} {n:6d} {run_ns / 1e6:8.1f}")


if __name__ == "__main__":
    main()
