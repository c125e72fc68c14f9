#!/usr/bin/env python3
"""Pairing time from provisioning file to CONNECTED, as a distribution.

Starts the development broker and credential service once, then for each run
starts agenthost with the module in a fresh root, drops a fresh LCM spec into
it and times the way to MQTT_STATE_CONNECTED, with its parts taken from the
agent's own log time stamps:
  detect   spec written -> spec read by the agent
  keygen   key pair and CSR
  https    one-time-password exchange at the credential service
  store    storing the certificates and pairing data
  connect  MQTT over TLS until connected

Usage: python3 bench/pairing_bench.py [--build build] [--runs 20]
"""
import argparse
import datetime
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

NODE_MANAGER = r"HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager"
STAMP = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) ")
MARKS = {
    "read": "ReadLCMSpecFromFile(): Using LCM spec file",
    "keygen": "CreateAgentKeyPair(): Creating agent key pair.",
    "request": "RequestCredentials(): Requesting credentials from hub.",
    "granted": "RequestCredentials(): Successfully requested credentials",
    "connecting": "Connect(): Connecting MQTT.",
    "connected": "State: MQTT_STATE_CONNECTED",
}


def wait_for(path, text, limit):
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        try:
            with open(path, encoding="utf-8", errors="replace") as f:
                if text in f.read():
                    return True
        except FileNotFoundError:
            pass
        time.sleep(0.01)
    return False


def value_of(path, key):
    with open(path, encoding="utf-8") as f:
        for line in f:
            if line.startswith(key + " "):
                return line.split(" ", 1)[1].strip()
    raise RuntimeError(f"{key} not found in {path}")


def stamps(log):
    found = {}
    with open(log, encoding="utf-8", errors="replace") as f:
        for line in f:
            m = STAMP.match(line)
            if not m:
                continue
            for name, text in MARKS.items():
                if name not in found and text in line:
                    found[name] = datetime.datetime.strptime(m.group(1), "%Y-%m-%d %H:%M:%S.%f")
    return found


def pct(values, p):
    values = sorted(values)
    k = max(0, min(len(values) - 1, round(p / 100 * (len(values) - 1))))
    return values[k]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--runs", type=int, default=20)
    args = ap.parse_args()
    tool = lambda *p: os.path.join(args.build, *p)
    devcloud, regctl = tool("tools/devcloud/devcloud"), tool("tools/regctl/regctl")
    agenthost, module = tool("host/agenthost"), tool("plugin/ndpx_mqtt.so")

    work = tempfile.mkdtemp(prefix="ndpx-pairing-bench.")
    procs = []
    try:
        cloud = os.path.join(work, "cloud")
        os.makedirs(cloud)
        subprocess.run([devcloud, "ca", "init", "--dir", cloud], check=True, capture_output=True)
        for name in ("broker", "credsvc"):
            out = open(os.path.join(work, name + ".out"), "w")
            procs.append(subprocess.Popen([devcloud, name, "--dir", cloud], stdout=out, stderr=out))
        assert wait_for(os.path.join(work, "broker.out"), "port ", 30), "broker did not start"
        assert wait_for(os.path.join(work, "credsvc.out"), "thumbprint ", 30), "service did not start"
        url = value_of(os.path.join(work, "credsvc.out"), "url")
        thumbprint = value_of(os.path.join(work, "credsvc.out"), "thumbprint")

        rows = []
        for run in range(args.runs):
            root = os.path.join(work, f"desktop{run}")
            log = os.path.join(work, f"agent{run}.log")
            subprocess.run([regctl, "--root", root, "set", NODE_MANAGER, "mqtt_SslCertThumbprint",
                            thumbprint], check=True, capture_output=True)
            agent = subprocess.Popen([agenthost, "--root", root, "--plugin", module,
                                      "--log-level", "1", "--log-file", log],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                assert wait_for(log, "MQTT_STATE_WAITING_CONFIG", 30), "agent did not start"
                written = datetime.datetime.now()
                subprocess.run([devcloud, "provision", "--dir", cloud, "--root", root, "--url", url,
                                "--vm-id", f"vm{run}", "--edge-id", "e1", "--short-template-id",
                                "t3"], check=True, capture_output=True)
                assert wait_for(log, MARKS["connected"], 60), f"run {run} did not connect"
            finally:
                agent.send_signal(signal.SIGTERM)
                agent.wait(30)
            s = stamps(log)
            ms = lambda a, b: (b - a).total_seconds() * 1000
            rows.append({
                "total": ms(written, s["connected"]),
                "detect": ms(written, s["read"]),
                "keygen": ms(s["keygen"], s["request"]),
                "https": ms(s["request"], s["granted"]),
                "store": ms(s["granted"], s["connecting"]),
                "connect": ms(s["connecting"], s["connected"]),
            })
            print(f"run {run + 1:2d}: {rows[-1]['total']:7.1f} ms", file=sys.stderr)

        print(f"\npairing time over {len(rows)} runs (ms)")
        print(f"{'part':8s} {'p50':>8s} {'p90':>8s} {'max':>8s} {'mean':>8s}")
        for part in ("total", "detect", "keygen", "https", "store", "connect"):
            v = [r[part] for r in rows]
            print(f"{part:8s} {pct(v, 50):8.1f} {pct(v, 90):8.1f} {max(v):8.1f} "
                  f"{statistics.mean(v):8.1f}")
    finally:
        for p in procs:
            p.send_signal(signal.SIGTERM)
            try:
                p.wait(30)
            except subprocess.TimeoutExpired:
                p.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
