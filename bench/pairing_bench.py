#!/usr/bin/env python3
"""Pairing time from provisioning file to CONNECTED, and the renewal of the
client certificate that follows, as distributions.

Starts the development broker, credential service and renewal responder
once, then for each run starts agenthost with the module in a fresh root,
drops a fresh LCM spec into it and times the way to MQTT_STATE_CONNECTED,
with its parts taken from the agent's own log time stamps:
  detect   spec in place -> spec read by the agent (the clock starts when
           the document is in place, not when the tool that writes it starts)
  keygen   key pair and CSR
  https    one-time-password exchange at the credential service
  store    storing the certificates and pairing data
  connect  MQTT over TLS until connected
Before each pairing it times one `openssl genrsa 2048` (the key every
pairing makes, as a separate program), the baseline of the same run.
With --renew it then sets mqtt_TriggerCertSwap and times the renewal from
the token's arrival to CONNECTED on the new certificate:
  keygen   new key pair and CSR
  https    the token's password exchanged at the credential service
  prove    the broker's check of the pending certificate (TLS + CONNECT)
  swap     certificate store and pairing values made current
  connect  the old client replaced, MQTT over TLS until connected
and, beside it, the whole way from the trigger (request and token over MQTT
included).

Usage: python3 bench/pairing_bench.py [--build build] [--runs 20] [--renew]
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
RENEWAL_MARKS = {
    "trigger": "TriggerRefreshAndSwap(): Triggering refresh",
    "token": "HandleOTPTokenResponseMessage(): Received OTP token message",
    "keygen": "ProcessOTPTokenResponse(): Processing OTP token refresh response",
    "request": "ProcessOTPTokenResponse(): Requesting fresh credentials from nexhub.",
    "granted": "ProcessOTPTokenResponse(): Successfully refreshed client pending credentials",
    "proving": "ClientCertificateRefresh(): Forcing cert swap.",
    "proven": "brokerAccepts(): The broker accepts",
    "swapped": "ActivatePendingCertificate(): Successfully swapped",
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


def stamps(log, marks=MARKS, start=None):
    """The time of each mark's first line (after the line holding `start`)."""
    found = {}
    with open(log, encoding="utf-8", errors="replace") as f:
        for line in f:
            m = STAMP.match(line)
            if not m:
                continue
            if start is not None:
                start = None if start in line else start
                if start is not None:
                    continue
            for name, text in marks.items():
                if name not in found and text in line:
                    found[name] = datetime.datetime.strptime(m.group(1), "%Y-%m-%d %H:%M:%S.%f")
    return found


def written_at(provision_output):
    """When the provisioning document was in place (devcloud provision's
    "written at us N" line): the agent reads and removes it at once."""
    for line in provision_output.splitlines():
        if line.startswith("written at us "):
            return int(line.split()[-1]) / 1e6
    raise RuntimeError("devcloud provision did not say when it wrote the document")


def pct(values, p):
    values = sorted(values)
    k = max(0, min(len(values) - 1, round(p / 100 * (len(values) - 1))))
    return values[k]


def wait_for_count(path, text, count, limit):
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        with open(path, encoding="utf-8", errors="replace") as f:
            if f.read().count(text) >= count:
                return True
        time.sleep(0.01)
    return False


def table(title, rows, parts):
    print(f"\n{title}")
    print(f"{'part':8s} {'p50':>8s} {'p90':>8s} {'max':>8s} {'mean':>8s}")
    for part in parts:
        v = [r[part] for r in rows]
        print(f"{part:8s} {pct(v, 50):8.1f} {pct(v, 90):8.1f} {max(v):8.1f} "
              f"{statistics.mean(v):8.1f}")


def stop_all(procs):
    """Asks each process to stop, newest first; kills one that does not."""
    for p in reversed(procs):
        p.send_signal(signal.SIGTERM)
        try:
            p.wait(30)
        except subprocess.TimeoutExpired:
            p.kill()


def start_cloud(devcloud, work, procs, broker_args=(), credsvc_args=()):
    """A devcloud CA, broker and credential service under `work` (their
    output in broker.out and credsvc.out, extra arguments for each given);
    the devcloud folder."""
    cloud = os.path.join(work, "cloud")
    os.makedirs(cloud)
    subprocess.run([devcloud, "ca", "init", "--dir", cloud], check=True, capture_output=True)
    for name, extra in (("broker", broker_args), ("credsvc", credsvc_args)):
        out = open(os.path.join(work, name + ".out"), "w")
        procs.append(subprocess.Popen([devcloud, name, "--dir", cloud, *extra], stdout=out,
                                      stderr=out))
    assert wait_for(os.path.join(work, "broker.out"), "port ", 30), "broker did not start"
    assert wait_for(os.path.join(work, "credsvc.out"), "thumbprint ", 30), "service did not start"
    return cloud


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--runs", type=int, default=20)
    ap.add_argument("--renew", action="store_true",
                    help="after pairing, renew and swap the client certificate and time it")
    args = ap.parse_args()
    tool = lambda *p: os.path.join(args.build, *p)
    devcloud, regctl = tool("tools/devcloud/devcloud"), tool("tools/regctl/regctl")
    agenthost, module = tool("host/agenthost"), tool("plugin/ndpx_mqtt.so")

    work = tempfile.mkdtemp(prefix="ndpx-pairing-bench.")
    procs = []
    try:
        cloud = start_cloud(devcloud, work, procs)
        url = value_of(os.path.join(work, "credsvc.out"), "url")
        thumbprint = value_of(os.path.join(work, "credsvc.out"), "thumbprint")
        if args.renew:
            port = value_of(os.path.join(work, "broker.out"), "port")
            out = open(os.path.join(work, "renewer.out"), "w")
            procs.append(subprocess.Popen([devcloud, "renewer", "--dir", cloud, "--port", port,
                                           "--url", url], stdout=out, stderr=out))
            assert wait_for(os.path.join(work, "renewer.out"), "renewer ready", 30), \
                "renewer did not start"

        rows = []
        renewals = []
        genrsa = []
        for run in range(args.runs):
            started = time.monotonic()
            subprocess.run(["openssl", "genrsa", "2048"], check=True, capture_output=True)
            genrsa.append((time.monotonic() - started) * 1000)
            root = os.path.join(work, f"desktop{run}")
            log = os.path.join(work, f"agent{run}.log")
            setting = lambda name, value: subprocess.run(
                [regctl, "--root", root, "set", NODE_MANAGER, name, value], check=True,
                capture_output=True)
            setting("mqtt_SslCertThumbprint", thumbprint)
            # Renewed only when asked: the fresh 30-day certificate is outside the window.
            setting("mqtt_CertExpiryDays", "7")
            agent = subprocess.Popen([agenthost, "--root", root, "--plugin", module,
                                      "--log-level", "1", "--log-file", log],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                assert wait_for(log, "MQTT_STATE_WAITING_CONFIG", 30), "agent did not start"
                provisioned = subprocess.run(
                    [devcloud, "provision", "--dir", cloud, "--root", root, "--url", url,
                     "--vm-id", f"vm{run}", "--edge-id", "e1", "--short-template-id", "t3"],
                    check=True, capture_output=True, text=True)
                # The clock starts when the document is on disk, not when the tool that
                # issues its password starts: that tool's own run is no part of pairing.
                written = datetime.datetime.fromtimestamp(written_at(provisioned.stdout))
                assert wait_for(log, MARKS["connected"], 60), f"run {run} did not connect"
                if args.renew:
                    assert wait_for(log, "checks complete.", 30), f"run {run}: no first check"
                    setting("mqtt_TriggerCertSwap", "1")
                    assert wait_for(log, RENEWAL_MARKS["swapped"], 60), f"run {run} did not swap"
                    assert wait_for_count(log, MARKS["connected"], 2, 60), \
                        f"run {run} did not reconnect"
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
            line = f"run {run + 1:2d}: pairing {rows[-1]['total']:7.1f} ms, genrsa " \
                   f"{genrsa[-1]:6.1f} ms"
            if args.renew:
                r = stamps(log, RENEWAL_MARKS, start=RENEWAL_MARKS["trigger"])
                r["trigger"] = stamps(log, RENEWAL_MARKS)["trigger"]
                renewals.append({
                    "total": ms(r["token"], r["connected"]),
                    "keygen": ms(r["keygen"], r["request"]),
                    "https": ms(r["request"], r["granted"]),
                    "prove": ms(r["proving"], r["proven"]),
                    "swap": ms(r["proven"], r["swapped"]),
                    "connect": ms(r["swapped"], r["connected"]),
                    "trigger": ms(r["trigger"], r["connected"]),
                })
                line += f", renewal {renewals[-1]['total']:7.1f} ms"
            print(line, file=sys.stderr)

        table(f"pairing time over {len(rows)} runs (ms)", rows,
              ("total", "detect", "keygen", "https", "store", "connect"))
        table("baseline, openssl genrsa 2048 before each run (ms)", [{"genrsa": g} for g in genrsa],
              ("genrsa",))
        paired, keyed = pct([r["total"] for r in rows], 50), pct(genrsa, 50)
        print(f"\npairing p50 {paired:.1f} ms - genrsa p50 {keyed:.1f} ms = "
              f"{paired - keyed:.1f} ms; pairing / genrsa = {paired / keyed:.2f}")
        if renewals:
            table(f"renewal, token to connected on the new certificate, over {len(renewals)} "
                  "runs (ms); trigger: from the operator's trigger", renewals,
                  ("total", "keygen", "https", "prove", "swap", "connect", "trigger"))
            ratio = pct([r["total"] for r in renewals], 50) / pct([r["total"] for r in rows], 50)
            print(f"\nrenewal p50 / pairing p50 = {ratio:.2f}")
    finally:
        stop_all(procs)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
