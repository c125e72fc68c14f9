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
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pairing_bench import NODE_MANAGER, start_cloud, stop_all, value_of, wait_for  # noqa: E402


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--messages", type=int, default=300)
    ap.add_argument("--rounds", type=int, default=5)
    args = ap.parse_args()
    tool = lambda *p: os.path.join(args.build, *p)
    devcloud, regctl = tool("tools/devcloud/devcloud"), tool("tools/regctl/regctl")
    agenthost, module = tool("host/agenthost"), tool("plugin/ndpx_mqtt.so")
    probe = tool("bench/ipc_publish_bench")

    work = tempfile.mkdtemp(prefix="ndpx-ipc-bench.")
    procs = []
    try:
        cloud, root = start_cloud(devcloud, work, procs), os.path.join(work, "desktop")
        port = value_of(os.path.join(work, "broker.out"), "port")
        url = value_of(os.path.join(work, "credsvc.out"), "url")
        certs = {}
        for name in ("bench-cloud", "bench-direct"):
            certs[name] = os.path.join(cloud, name)
            subprocess.run([devcloud, "client-cert", "--dir", cloud, "--cn", name, "--out",
                            certs[name]], check=True, capture_output=True)

        setting = lambda key, name, value: subprocess.run(
            [regctl, "--root", root, "set", key, name, value], check=True, capture_output=True)
        setting(NODE_MANAGER, "mqtt_IPCServerEnabled", "1")
        setting(NODE_MANAGER + r"\ipcincludelist", "ipc_publish_bench", "1")
        log = os.path.join(work, "agent.log")
        # The bridge logs every message at level 1: keep the agent at level 2.
        procs.append(subprocess.Popen([agenthost, "--root", root, "--plugin", module,
                                       "--log-level", "2", "--log-file", log],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        subprocess.run([devcloud, "provision", "--dir", cloud, "--root", root, "--url", url,
                        "--vm-id", "vm7", "--edge-id", "e1", "--short-template-id", "t3"],
                       check=True, capture_output=True)
        # Logged at level 2, unlike the state line.
        assert wait_for(log, "Reconnected to MQTT broker", 60), "the agent did not connect"
        subprocess.run([probe, "--root", root, "--port", port, "--ca",
                        os.path.join(cloud, "ca.pem"), "--cloud-cert", certs["bench-cloud"],
                        "--direct-cert", certs["bench-direct"], "--messages", str(args.messages),
                        "--rounds", str(args.rounds)], check=True)
    finally:
        stop_all(procs)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
