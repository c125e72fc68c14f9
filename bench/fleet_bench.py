#!/usr/bin/env python3
"""A pairing storm: N desktops provisioned at once against one broker and one
credential service, on one machine.

Starts the development CA, broker and credential service once, then N
agenthost processes, each with the module in a root of its own, and waits
until every one is waiting for its provisioning file. All N are then
provisioned at once (N `devcloud provision` runs started together) and the
bench waits until every agent's log shows MQTT_STATE_CONNECTED, or until
--timeout. It reports:
  connected   how many agents reached MQTT_STATE_CONNECTED
  pairing     per agent, its provisioning run's end -> CONNECTED (p50, p90, max)
  fleet       the first provisioning run's start -> the last CONNECTED
  baseline    N `openssl genrsa 2048` run two at a time (the machine's two
              cores), timed in the same run before the fleet; fleet/baseline
  failures    the first warning or error lines of each agent that did not
              connect, grouped by text
  memory      VmRSS and PSS (/proc/PID/smaps_rollup) of the agents, summed,
              once the storm is over
  credsvc     the credential service's peak of requests in flight at once
  retries     attempts per agent (credential requests made) and when the
              failed passes ended and the retries ran, in time bins
              from the fleet's start, with the waits the agents drew

At the default fs.inotify.max_user_instances (128 per user) only part of a
large fleet gets inotify instances; the rest must fall back to polling.
--raise-inotify raises the limit for the run (and says so, and puts it
back) to see the fleet without that.

With --outage S the credential service answers 500 for the first S seconds
after provisioning (then a normal one takes over the same port), so that
every agent's retries, and how its back-off spreads them, show.

Usage: python3 bench/fleet_bench.py [--build build] [--agents 50] [--timeout 300]
                                    [--outage 0] [--raise-inotify] [--keep]
"""
import argparse
import collections
import datetime
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pairing_bench import (NODE_MANAGER, STAMP, pct, start_cloud, stop_all, value_of,  # noqa: E402
                           wait_for)

CONNECTED = "MqttManager::SetState(): State: MQTT_STATE_CONNECTED"
WAITING = "MQTT_STATE_WAITING_CONFIG"
REQUEST = "RequestCredentials(): Requesting credentials from hub."
FAILED_PASS = "Registration failed, will restart."
WAIT_DRAWN = re.compile(r"Wait interval set to (-?\d+) secs")
LEVEL = re.compile(r"^\S+ \S+ \[[^\]]*\] L(\d) \d+: (.*)$")
INOTIFY_LIMIT = "/proc/sys/fs/inotify/max_user_instances"
BIN_SECONDS = 5


def when(line):
    m = STAMP.match(line)
    return datetime.datetime.strptime(m.group(1), "%Y-%m-%d %H:%M:%S.%f") if m else None


class AgentLog:
    """Reads an agent's log as it grows and keeps what the report needs."""

    def __init__(self, path):
        self.path, self.offset, self.rest = path, 0, ""
        self.waiting = self.connected = None
        self.requests, self.failed_passes, self.waits, self.problems = [], [], [], []

    def poll(self):
        try:
            with open(self.path, encoding="utf-8", errors="replace") as f:
                f.seek(self.offset)
                text = f.read()
                self.offset = f.tell()
        except FileNotFoundError:
            return
        lines = (self.rest + text).split("\n")
        self.rest = lines.pop()
        for line in lines:
            self.take(line)

    def take(self, line):
        t = when(line)
        if WAITING in line and self.waiting is None:
            self.waiting = t
        if CONNECTED in line and self.connected is None:
            self.connected = t
        if REQUEST in line:
            self.requests.append(t)
        if FAILED_PASS in line:
            self.failed_passes.append(t)
        m = WAIT_DRAWN.search(line)
        if m:
            self.waits.append(int(m.group(1)))
        m = LEVEL.match(line)
        if m and int(m.group(1)) >= 3 and len(self.problems) < 50:
            # Alike across agents, so that they group.
            text = re.sub(r"\S*/desktop\d+/", "DESKTOP/", m.group(2))
            self.problems.append((t, re.sub(r"\bvm\d+\b", "vmN", text)))

    def first_problems(self, usual):
        return [text for _, text in self.problems if text not in usual][:3]


def usual_problems(logs):
    """Warnings most connected agents log too (no Azure AD, no realm tool on a
    bench machine): not what a failure is about."""
    ok = [l for l in logs if l.connected]
    seen = collections.Counter(text for l in ok for text in {x for _, x in l.problems})
    return {text for text, count in seen.items() if count > len(ok) / 2}


def memory_of(pid):
    """(VmRSS, PSS) in kB and the open descriptors, or None once the process
    is gone."""
    try:
        with open(f"/proc/{pid}/status") as f:
            rss = next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
        with open(f"/proc/{pid}/smaps_rollup") as f:
            pss = next(int(l.split()[1]) for l in f if l.startswith("Pss:"))
        return rss, pss, len(os.listdir(f"/proc/{pid}/fd"))
    except (OSError, StopIteration):
        return None


def keygen_baseline(count):
    """Seconds for `count` RSA-2048 key generations, two at a time."""
    start = time.monotonic()
    running = []
    for _ in range(count):
        if len(running) == 2:
            running.pop(0).wait()
        running.append(subprocess.Popen(["openssl", "genrsa", "2048"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL))
    for p in running:
        p.wait()
    return time.monotonic() - start


def raise_limits(agents):
    # Each agent holds a few dozen descriptors and the service a few per
    # request; the broker one per agent. Children inherit this limit.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    want = min(hard, max(soft, 64 * agents + 1024))
    if want > soft:
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))
        print(f"raised the open-file limit for the bench and its children: {soft} -> {want}",
              file=sys.stderr)


def set_inotify_instances(value, why):
    subprocess.run(["sysctl", "-w", f"fs.inotify.max_user_instances={value}"], check=True,
                   capture_output=True)
    print(f"set fs.inotify.max_user_instances (machine-wide) to {value}: {why}", file=sys.stderr)


def raise_inotify(agents):
    """The limit before, when it was raised."""
    with open(INOTIFY_LIMIT) as f:
        now = int(f.read())
    want = 2 * agents + 128
    if now >= want:
        return None
    set_inotify_instances(want, f"was {now}; every agent takes an inotify instance and all "
                                "of them run as one user here")
    return now


def histogram(title, counter, unit):
    print(f"\n{title}")
    if not counter:
        print("  (none)")
        return
    top = max(counter.values())
    for key in sorted(counter):
        bar = "#" * max(1, round(40 * counter[key] / top))
        print(f"  {key:>8}{unit} {counter[key]:5d} {bar}")


def provision_all(devcloud, cloud, url, roots):
    """Starts every provisioning run at once; the wall time each one ended."""
    ended = [None] * len(roots)
    errors = {}

    def run(i):
        p = subprocess.run([devcloud, "provision", "--dir", cloud, "--root", roots[i], "--url", url,
                            "--vm-id", f"vm{i}", "--edge-id", "e1", "--short-template-id", "t3"],
                           capture_output=True, text=True)
        ended[i] = datetime.datetime.now()
        if p.returncode != 0:
            errors[i] = p.stderr.strip().splitlines()[-1:] or [f"exit {p.returncode}"]

    threads = [threading.Thread(target=run, args=(i,)) for i in range(len(roots))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return ended, errors


def credsvc_on(devcloud, cloud, work, port, name, fault="none"):
    """A credential service on `port` (the one the agents were given)."""
    out_path = os.path.join(work, name + ".out")
    with open(out_path, "w") as out:
        p = subprocess.Popen([devcloud, "credsvc", "--dir", cloud, "--port", port, "--fault",
                              fault], stdout=out, stderr=out)
    assert wait_for(out_path, "thumbprint ", 30), f"{name} did not start"
    return p


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--agents", type=int, default=50)
    ap.add_argument("--timeout", type=int, default=300,
                    help="seconds from provisioning until the agents not connected count as failed")
    ap.add_argument("--raise-inotify", action="store_true",
                    help="raise fs.inotify.max_user_instances for the fleet (needs root)")
    ap.add_argument("--outage", type=int, default=0, metavar="SECONDS",
                    help="the credential service answers 500 for the first SECONDS after "
                         "provisioning, so that every agent's retries show")
    ap.add_argument("--keep", action="store_true", help="keep the work folder (logs)")
    args = ap.parse_args()
    tool = lambda *p: os.path.abspath(os.path.join(args.build, *p))
    devcloud, regctl = tool("tools/devcloud/devcloud"), tool("tools/regctl/regctl")
    agenthost, module = tool("host/agenthost"), tool("plugin/ndpx_mqtt.so")
    n = args.agents

    raise_limits(n)
    print(f"baseline: {n} x openssl genrsa 2048, two at a time ...", file=sys.stderr)
    baseline = keygen_baseline(n)

    work = tempfile.mkdtemp(prefix="ndpx-fleet-bench.")
    procs, agents = [], []
    inotify_before = None
    try:
        if args.raise_inotify:
            inotify_before = raise_inotify(n)
        cloud = start_cloud(devcloud, work, procs)
        url = value_of(os.path.join(work, "credsvc.out"), "url")
        thumbprint = value_of(os.path.join(work, "credsvc.out"), "thumbprint")
        roots = [os.path.join(work, f"desktop{i}") for i in range(n)]
        logs = [AgentLog(os.path.join(work, f"agent{i}.log")) for i in range(n)]
        for i, root in enumerate(roots):
            # Renewal stays out of the storm: the fresh 30-day certificate
            # is then outside the renewal window.
            for name, value in (("mqtt_SslCertThumbprint", thumbprint),
                                ("mqtt_CertExpiryDays", "7")):
                subprocess.run([regctl, "--root", root, "set", NODE_MANAGER, name, value],
                               check=True, capture_output=True)
            agents.append(subprocess.Popen([agenthost, "--root", root, "--plugin", module,
                                            "--log-level", "1", "--log-file", logs[i].path],
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        deadline = time.monotonic() + 60 + n / 2
        while time.monotonic() < deadline and any(l.waiting is None for l in logs):
            time.sleep(0.2)
            for l in logs:
                l.poll()
        print(f"{sum(l.waiting is not None for l in logs)} of {n} agents waiting for "
              "provisioning", file=sys.stderr)

        service = "credsvc"
        if args.outage:
            port = value_of(os.path.join(work, "credsvc.out"), "port")
            stop_all([procs.pop()])
            procs.append(credsvc_on(devcloud, cloud, work, port, "credsvc-outage", "500"))
        start = datetime.datetime.now()
        ended, provision_errors = provision_all(devcloud, cloud, url, roots)
        print(f"provisioned in {(max(ended) - start).total_seconds():.1f} s "
              f"({len(provision_errors)} failed)", file=sys.stderr)
        deadline = time.monotonic() + args.timeout
        while time.monotonic() < deadline:
            if service != "credsvc-after" and args.outage and \
                    datetime.datetime.now() >= start + datetime.timedelta(seconds=args.outage):
                stop_all([procs.pop()])
                service = "credsvc-after"
                procs.append(credsvc_on(devcloud, cloud, work, port, service))
                print(f"the credential service answers again after {args.outage} s",
                      file=sys.stderr)
            for l in logs:
                l.poll()
            if all(l.connected for l in logs):
                break
            time.sleep(0.5)
        memory = [m for m in (memory_of(a.pid) for a in agents) if m]
        exited = {i: a.returncode for i, a in enumerate(agents) if a.poll() is not None}
    finally:
        stop_all(agents)
        stop_all(procs)
        if inotify_before is not None:
            set_inotify_instances(inotify_before, "back to what it was")
    credsvc_out = open(os.path.join(work, service + ".out")).read()
    for l in logs:
        l.poll()

    connected = [i for i, l in enumerate(logs) if l.connected]
    print(f"\nfleet of {n} agents" +
          (f", credential service answering 500 for the first {args.outage} s"
           if args.outage else ""))
    print(f"connected: {len(connected)} of {n}")
    if connected:
        times = [(logs[i].connected - ended[i]).total_seconds() for i in connected]
        print(f"provisioned -> connected: p50 {pct(times, 50):.1f} s, p90 {pct(times, 90):.1f} s, "
              f"max {max(times):.1f} s")
        fleet = (max(logs[i].connected for i in connected) - start).total_seconds()
        print(f"first provisioning -> last connected: {fleet:.1f} s")
        print(f"baseline, {n} RSA-2048 keys two at a time: {baseline:.1f} s")
        print(f"fleet / baseline = {fleet / baseline:.2f}")
    if memory:
        rss, pss = sum(m[0] for m in memory), sum(m[1] for m in memory)
        print(f"agents' memory ({len(memory)} running): VmRSS {rss / 1024:.0f} MiB "
              f"({rss / len(memory) / 1024:.1f} each), PSS {pss / 1024:.0f} MiB "
              f"({pss / len(memory) / 1024:.1f} each); open descriptors: "
              f"{max(m[2] for m in memory)} at most in one agent")
    peak = re.search(r"peak requests in flight (\d+)", credsvc_out)
    print(f"credential service: peak requests in flight {peak.group(1) if peak else '?'}, "
          f"{credsvc_out.count(': 200 issued')} certificates issued, "
          f"{len(re.findall(r': [45]0[0-9] ', credsvc_out))} refusals")

    usual = usual_problems(logs)
    failed = collections.Counter()
    for i, l in enumerate(logs):
        if not l.connected:
            failed[" | ".join(l.first_problems(usual)) or "(no warning or error logged)"] += 1
    for i, code in sorted(exited.items()):
        failed[f"agenthost exited early with status {code}"] += 1
    for i, why in sorted(provision_errors.items()):
        failed["provisioning: " + " ".join(why)] += 1
    if failed:
        print("\nfailures (first warning and error lines of each agent that did not connect):")
        for text, count in failed.most_common():
            print(f"  {count:4d} x {text}")
    noisy = collections.Counter(p for l in logs if l.connected for p in {x for _, x in l.problems})
    everyone = {text for text, count in noisy.items() if count == len(connected)}
    if noisy:
        print(f"\nwarnings and errors of agents that did connect (agents logging each; "
              f"{len(everyone)} that every one of them logs left out):")
        for text, count in noisy.most_common():
            if text not in everyone:
                print(f"  {count:4d} x {text}")

    histogram("credential requests per agent (agents)",
              collections.Counter(len(l.requests) for l in logs), " req")
    histogram(f"failed passes, by {BIN_SECONDS} s bin from the fleet's start",
              collections.Counter(int((t - start).total_seconds()) // BIN_SECONDS * BIN_SECONDS
                                  for l in logs for t in l.failed_passes), " s")
    histogram(f"retried credential requests, by {BIN_SECONDS} s bin from the fleet's start",
              collections.Counter(int((t - start).total_seconds()) // BIN_SECONDS * BIN_SECONDS
                                  for l in logs for t in l.requests[1:]), " s")
    histogram("retry waits drawn (seconds)",
              collections.Counter(w for l in logs for w in l.waits), " s")
    if args.keep:
        print(f"\nlogs kept in {work}")
    else:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
