#!/usr/bin/env python3
"""The fault suite: streams "Echo" commands to a paired agent through a real
broker while the broker is killed, the agent is killed, the agent's
connection is stalled and cut, and bad input arrives on every topic and on
the IPC socket; then prints the per-command ledger, the fault counts and the
agent's memory and log growth. Exits 1 when the agent lost a command or ran
one twice, when the ledger does not add up, or when a fault could not be
done. See docs/soak.md.

Usage: python3 soak/soak.py --short [--build build]
       python3 soak/soak.py --minutes 30 [--broker-kills 20 --agent-kills 5 ...]
"""
import argparse
import os
import random
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from controlplane import Requester  # noqa: E402
from ledger import Ledger, verdict  # noqa: E402
from processes import NODE_MANAGER, Agent, Cloud, LogMeter, wait_for_text  # noqa: E402
from proxy import StallProxy  # noqa: E402
from scenarios import FaultRunner, plan  # noqa: E402

SHORT = dict(minutes=0.9, rate=7.0, broker_kills=3, agent_kills=1, stalls=1, cuts=1,
             bad_input=2, stall_seconds=5.0, drain=40.0)
LONG = dict(minutes=10.0, rate=10.0, broker_kills=20, agent_kills=5, stalls=3, cuts=3,
            bad_input=5, stall_seconds=10.0, drain=120.0)


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default="build")
    ap.add_argument("--short", action="store_true", help="the CI form, about 2 minutes")
    for name, default in LONG.items():
        ap.add_argument("--" + name.replace("_", "-"), type=type(default), default=None,
                        help=f"(long form: {default}, short: {SHORT[name]})")
    ap.add_argument("--resend-after", type=float, default=15,
                    help="seconds without an answer before a command is sent again")
    ap.add_argument("--agent-setting", action="append", default=[], metavar="NAME=VALUE",
                    help="an agent setting (Node Manager key) written before it starts, e.g. "
                         "mqtt_DuplicateMsgInterval=0 to see the suite catch a command run twice")
    ap.add_argument("--seed", type=int, default=None)
    ap.add_argument("--keep", action="store_true", help="keep the work folder and its logs")
    args = ap.parse_args()
    for name, default in (SHORT if args.short else LONG).items():
        if getattr(args, name) is None:
            setattr(args, name, default)
    if args.seed is None:
        args.seed = random.randrange(1 << 30)
    args.build = os.path.abspath(args.build)
    return args


def pair(cloud, agent, settings):
    """Settings, start and provisioning of the desktop; its topics."""
    for name, _, value in (s.partition("=") for s in settings):
        agent.setting(name, value)
    agent.setting("mqtt_SslCertThumbprint", cloud.thumbprint)
    agent.setting("mqtt_IPCServerEnabled", "1")
    # The suite itself sends bad input on the IPC socket: admit this interpreter.
    agent.setting(os.path.basename(os.path.realpath("/proc/self/exe")), "1",
                  key=NODE_MANAGER + "\\ipcincludelist")
    log = agent.start()
    assert wait_for_text(log, "MQTT_STATE_WAITING_CONFIG"), "the agent did not start"
    bootstrap = cloud.provision(agent.root, "vm-soak")
    assert wait_for_text(log, "State: MQTT_STATE_CONNECTED", limit=60), "the agent did not pair"
    desktop = "desktop/e1/vm-soak/agent/"
    topics = {"commands": desktop + "sessions/commands", "response": desktop + "sessions/response"}
    topics["inbound"] = [topics["commands"], "desktop/e1/t3/configuration",
                         desktop + "receive/dtemplate", desktop + "credentials/token", bootstrap]
    return topics


class Sampler:
    """The agent's VmRSS and the log's growth since the previous sample."""

    def __init__(self, agent):
        self.agent, self.meter, self.rows = agent, LogMeter(agent), []
        self._last = (time.monotonic(), self.meter.total())

    def sample(self, label):
        now, size = time.monotonic(), self.meter.total()
        try:
            rss = self.agent.rss_kib()
        except OSError:
            rss = None  # between a kill and the restart
        rate = (size - self._last[1]) / max(now - self._last[0], 1e-3) * 60
        self.rows.append((label, self.agent.proc.pid, rss, rate, size))
        self._last = (now, size)


def stream(args, requester, faults, sampler):
    """Commands at `rate` a second for `minutes`, resending overdue ones,
    sampling at a tenth and at half of it; then the drain."""
    seconds, sent, t0 = args.minutes * 60, 0, time.monotonic()
    marks = [(seconds / 10, "start"), (seconds / 2, "middle")]
    faults.start()
    while (elapsed := time.monotonic() - t0) < seconds:
        while sent < int(elapsed * args.rate):
            requester.send(f"soak-{sent}")
            sent += 1
        if marks and elapsed >= marks[0][0]:
            sampler.sample(marks.pop(0)[1])
        requester.resend_overdue(args.resend_after)
        time.sleep(0.05)
    faults.stop()
    deadline = time.monotonic() + args.drain
    while requester.ledger.unanswered() and time.monotonic() < deadline:
        requester.resend_overdue(args.resend_after)
        time.sleep(0.2)
    time.sleep(3)  # late copies of answers
    sampler.sample("end")
    return time.monotonic() - t0


def report(args, r, faults, sampler, requester, took):
    print(f"\nsoak: {args.minutes:g} min stream, {took:.0f} s with the drain, seed {args.seed}, "
          f"{args.rate:g} commands/s, resend after {args.resend_after:g} s")
    print("faults done: " + ", ".join(f"{k} {v}" for k, v in faults.done.items()) +
          f"; bad messages taken by the IPC socket {faults.ipc_taken}; "
          f"requester (re)connects {requester.connects}; broker starts tried again "
          f"{faults.cloud.restart_failures}")
    rows = [
        ("commands sent", r["sent"]), ("  sent again (no answer in time)", r["resends"]),
        ("  copies dropped by the agent's duplicate filter", r["dropped_by_filter"]),
        ("answered once", r["once"]),
        ("answered twice, same run (answer delivered again)", r["delivered_twice"]),
        ("ran twice in one agent process (agent)", r["ran_twice_one_process"]),
        ("ran twice, once per agent process (across a kill)", r["ran_twice_across_kill"]),
        ("never answered, never reached the agent (broker)", r["never_broker"]),
        ("never answered, answer published, never delivered (broker)", r["never_answer_lost"]),
        ("never answered, received by the agent (agent)", r["never_agent"]),
        ("never answered, inside the agent at a kill", r["never_at_kill"]),
        ("answers to IDs never sent, or unstamped", r["strays"]),
    ]
    print("\nledger")
    for name, value in rows:
        print(f"  {name:62s} {value:7d}")
    print(f"  adds up: {'yes' if r['adds_up'] else 'NO'}")
    print("\nper SIGKILL of the agent: inside (arrived, no answer logged) / answered yet "
          "delivered again to the next process / that one's age at the kill (ms)")
    print("  " + ", ".join(f"{i}/{a}/{age:.0f}" for i, a, age in r["at_kill"]))
    print(f"  inside at a kill, outcome: {r['at_kill_outcome']}; ran twice across a kill with "
          f"both answers delivered: {r['both_delivered']}")
    if r["window_ms"]:
        print("arrival to answer published, agent log (ms): p50 %.1f  p99 %.1f  max %.1f  "
              "mean %.1f" % r["window_ms"])
    print("\nagent memory and log")
    print(f"  {'when':8s} {'pid':>8s} {'VmRSS KiB':>10s} {'log B/min':>12s} {'log total B':>12s}")
    for label, pid, rss, rate, size in sampler.rows:
        print(f"  {label:8s} {pid:8d} {rss if rss is not None else '-':>10} {rate:12.0f} "
              f"{size:12d}")
    if r["agent_ids"]:
        print("\nagent faults, IDs: " + " ".join(r["agent_ids"][:50]))


def failures(r, faults, counts):
    failed = []
    if r["agent_fault"]:
        failed.append(f"the agent lost or ran twice {r['agent_fault']} commands")
    if not r["adds_up"]:
        failed.append("the ledger does not add up")
    if faults.error or faults.done != counts:
        failed.append(f"faults not all done: {faults.done} of {counts} ({faults.error!r})")
    return failed


def main():
    args = parse_args()
    rng = random.Random(args.seed)
    work = tempfile.mkdtemp(prefix="ndpx-soak.")
    proxy, cloud, agent, requester = StallProxy(), None, None, None
    failed = ["did not finish"]  # kept for a look, until the run says otherwise
    try:
        cloud = Cloud(args.build, work, proxy.port)
        proxy.upstream = ("127.0.0.1", cloud.port)
        agent = Agent(args.build, work, os.path.join(work, "desktop"))
        topics = pair(cloud, agent, args.agent_setting)
        ledger = Ledger()
        requester = Requester("soak-requester", cloud.port, cloud.client_cert("soak-control"),
                              topics, ledger)
        counts = {"broker_kill": args.broker_kills, "agent_kill": args.agent_kills,
                  "stall": args.stalls, "cut": args.cuts, "bad_input": args.bad_input}
        faults = FaultRunner(plan(rng, args.minutes * 60, counts), cloud, agent, proxy,
                             requester, topics, rng, args.stall_seconds)
        sampler = Sampler(agent)
        took = stream(args, requester, faults, sampler)
        agent.stop()
        r = verdict(ledger, agent.runs)
        report(args, r, faults, sampler, requester, took)
        failed = failures(r, faults, counts)
        for line in failed:
            print("soak: FAILED: " + line)
        return 1 if failed else 0
    finally:
        if requester:
            requester.close()
        if agent:
            agent.stop()
        if cloud:
            cloud.stop()
        proxy.close()
        if failed or args.keep:
            print(f"soak: logs kept in {work}")
        else:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
