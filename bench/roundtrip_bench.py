#!/usr/bin/env python3
"""Command round trip through the real agent process against two raw MQTT
echo processes on the same broker, in one run.

Pairs an agent (agenthost with the module) against devcloud's broker and
credential service, then runs bench/mqtt_roundtrip_bench, which starts the
two floors (bench/mqtt_floor: no persistence, and the client library's file
persistence in a temporary folder), takes the three in turn for --rounds
rounds at 1 and at 20 commands in flight, and prints each round, its
ratios agent / floor, and the medians of the per-round ratios of p50
latency, throughput and context switches per command.

Usage: python3 bench/roundtrip_bench.py [--build build] [--rounds 7]
           [--round-trips 2000] [--log-level 2]
"""
import argparse
import os
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from paired_agent import PairedAgent  # noqa: E402


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--rounds", type=int, default=7)
    ap.add_argument("--round-trips", type=int, default=2000, help="per measurement")
    ap.add_argument("--log-level", type=int, default=2, help="the agent's (2 is its default)")
    args = ap.parse_args()
    with PairedAgent(args.build, "ndpx-roundtrip-bench.", log_level=args.log_level) as a:
        subprocess.run([a.tool("bench/mqtt_roundtrip_bench"), "--port", str(a.port), "--ca", a.ca,
                        "--cloud-cert", a.client_cert("bench-cloud"), "--floor-cert",
                        a.client_cert("bench-floor"), "--agent-desktop", a.desktop,
                        "--agent-pid", str(a.agent.pid), "--rounds", str(args.rounds),
                        "--round-trips", str(args.round_trips)], check=True)


if __name__ == "__main__":
    main()
