#!/usr/bin/env python3
"""A desktop process's publish through the agent's IPC bridge against the same
publish made by a direct MQTT client, on one broker, in one run.

Starts the development broker and credential service, pairs an agent with
the IPC bridge on (the probe include-listed), then runs
bench/ipc_publish_bench, which alternates the two paths for --rounds rounds
at 1 and at 20 messages in flight and prints each round and the median of
the per-round ratios (bridge / direct) of p50 latency and throughput.

Usage: python3 bench/ipc_bench.py [--build build] [--messages 300] [--rounds 5]
"""
import argparse
import os
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from paired_agent import PairedAgent  # noqa: E402
from pairing_bench import NODE_MANAGER  # noqa: E402


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--messages", type=int, default=300)
    ap.add_argument("--rounds", type=int, default=5)
    args = ap.parse_args()
    settings = [(NODE_MANAGER, "mqtt_IPCServerEnabled", "1"),
                (NODE_MANAGER + r"\ipcincludelist", "ipc_publish_bench", "1")]
    # The bridge logs every message at level 1: keep the agent at level 2.
    with PairedAgent(args.build, "ndpx-ipc-bench.", log_level=2, settings=settings) as a:
        subprocess.run([a.tool("bench/ipc_publish_bench"), "--root", a.root, "--port",
                        str(a.port), "--ca", a.ca, "--cloud-cert", a.client_cert("bench-cloud"),
                        "--direct-cert", a.client_cert("bench-direct"), "--messages",
                        str(args.messages), "--rounds", str(args.rounds)], check=True)


if __name__ == "__main__":
    main()
