"""The per-command ledger: what the control plane sent and got back, what
each agent process logged it received and answered, and the verdict per
command ID."""
import datetime
import json
import re
import statistics
import threading
import time

STAMP = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) ")
SOAK_ID = r'"ID"\s*:\s*"(soak-\d+)"'
INCOMING = re.compile(r"OnMessage\(\): Incoming message: .*" + SOAK_ID)
DUPLICATE = re.compile(r"Found duplicate message for ID: (soak-\d+)")
PUBLISHED = re.compile(r"PublishMessage\(\): Published message .*/sessions/response: (.*)$")


def stamp_of(answer):
    """(pid, seq) of the process run that executed a command."""
    try:
        return int(answer["EXEC_PID"]), int(answer["EXEC_SEQ"])
    except (KeyError, TypeError, ValueError):
        return None


class Ledger:
    """The control plane's record; thread-safe (answers arrive on the
    client library's thread)."""

    def __init__(self):
        self._lock = threading.Lock()
        self.sent = {}  # ID -> [last send (monotonic), sends]
        self.answers = {}  # ID -> [(pid, seq), ...], one per answer received
        self.strays = []  # answers to IDs never sent, or without a stamp

    def sending(self, cid):
        with self._lock:
            entry = self.sent.setdefault(cid, [0.0, 0])
            entry[0], entry[1] = time.monotonic(), entry[1] + 1

    def answer(self, payload):
        try:
            answer = json.loads(payload)
            cid, stamp = answer.get("ID"), stamp_of(answer)
        except (ValueError, AttributeError):
            answer, cid, stamp = None, None, None
        with self._lock:
            if cid in self.sent and stamp is not None:
                self.answers.setdefault(cid, []).append(stamp)
            else:
                self.strays.append(payload[:200])

    def overdue(self, after):
        """IDs without an answer whose last send is `after` seconds old."""
        now = time.monotonic()
        with self._lock:
            return [c for c, (last, _) in self.sent.items()
                    if c not in self.answers and now - last >= after]

    def unanswered(self):
        with self._lock:
            return len(self.sent) - len(self.answers)

    def resends(self):
        with self._lock:
            return sum(n - 1 for _, n in self.sent.values())


def read_agent_log(log):
    """What one agent process logged: {ID: [arrival times]}, {ID: [(time,
    stamp)]} of answers published, the count of copies its duplicate
    filter dropped, and the time of its last line. A killed process's log ends where it was killed; the
    host rotates at 10 MB (.1 is the newest of the older files)."""
    received, published, dropped, last = {}, {}, 0, None
    files = [f"{log}.{i}" for i in range(5, 0, -1)] + [log]
    for name in files:
        try:
            f = open(name, encoding="utf-8", errors="replace")
        except FileNotFoundError:
            continue
        with f:
            for line in f:
                m = STAMP.match(line)
                if not m:
                    continue
                at = last = datetime.datetime.strptime(m.group(1), "%Y-%m-%d %H:%M:%S.%f")
                if (i := INCOMING.search(line)) is not None:
                    received.setdefault(i.group(1), []).append(at)
                elif DUPLICATE.search(line):
                    dropped += 1
                elif (p := PUBLISHED.search(line)) is not None:
                    try:
                        answer = json.loads(p.group(1))
                    except ValueError:
                        continue
                    if str(answer.get("ID", "")).startswith("soak-"):
                        published.setdefault(answer["ID"], []).append((at, stamp_of(answer)))
    return received, published, dropped, last


def pct(values, p):
    values = sorted(values)
    return values[max(0, min(len(values) - 1, round(p / 100 * (len(values) - 1))))]


def verdict(ledger, runs):
    """The ledger per class. `runs`: [(pid, log, "killed"/"stopped")] of
    every agent process in start order."""
    agent = [(pid, end) + read_agent_log(log) for pid, log, end in runs]
    pids = {pid for pid, *_ in agent}
    r = {k: 0 for k in ("once", "delivered_twice", "ran_twice_one_process",
                        "ran_twice_across_kill", "never_broker", "never_answer_lost",
                        "never_agent", "never_at_kill")}
    r.update(sent=len(ledger.sent), resends=ledger.resends(), strays=len(ledger.strays),
             dropped_by_filter=sum(a[4] for a in agent), unknown_pid=0, agent_ids=[],
             at_kill=[], both_delivered=0, at_kill_outcome={"answered later": 0, "never": 0, "ran twice": 0})
    latencies = []
    for pid, end, received, published, *_ in agent:
        for cid, arrivals in received.items():
            if cid in published:
                latencies.append((published[cid][0][0] - arrivals[0]).total_seconds() * 1000)
    # Per kill: commands inside (arrived, no answer logged), and those the
    # killed process answered that the broker still delivered to the next
    # one (no acknowledgement reached it), with the oldest one's age at the
    # kill (the killed process's last line).
    kills = []
    for (pid, end, rec, pub, _, last), following in zip(agent, agent[1:] + [None]):
        if end != "killed":
            continue
        again = [c for c in rec if c in pub and following and c in following[2]]
        age = max(((last - rec[c][0]).total_seconds() * 1000 for c in again), default=0.0)
        kills.append((sum(1 for c in rec if c not in pub), len(again), age))
    r["at_kill"] = kills
    for cid in ledger.sent:
        copies = ledger.answers.get(cid, [])
        stamps = set(copies)
        for _, _, _, published, *_ in agent:
            stamps.update(s for _, s in published.get(cid, []) if s is not None)
        r["unknown_pid"] += sum(1 for s in stamps if s[0] not in pids)
        in_runs = [(pid, end, cid in rec, cid in pub) for pid, end, rec, pub, *_ in agent]
        at_kill = any(end == "killed" and got and not answered
                      for _, end, got, answered in in_runs)
        if len(stamps) >= 2:
            one_process = len({pid for pid, _ in stamps}) < len(stamps)
            key = "ran_twice_one_process" if one_process else "ran_twice_across_kill"
            r[key] += 1
            if one_process:
                r["agent_ids"].append(cid)
            else:
                r["both_delivered"] += len(set(copies)) >= 2
        elif len(copies) >= 2:
            r["delivered_twice"] += 1
        elif len(copies) == 1:
            r["once"] += 1
        elif at_kill:
            r["never_at_kill"] += 1
        elif not any(got for _, _, got, _ in in_runs):
            r["never_broker"] += 1
        elif any(answered for *_, answered in in_runs):
            r["never_answer_lost"] += 1
        else:
            r["never_agent"] += 1
            r["agent_ids"].append(cid)
        if at_kill:
            outcome = ("ran twice" if len(stamps) >= 2 else
                       "answered later" if copies else "never")
            r["at_kill_outcome"][outcome] += 1
    r["window_ms"] = (pct(latencies, 50), pct(latencies, 99), max(latencies),
                      statistics.mean(latencies)) if latencies else None
    classes = ("once", "delivered_twice", "ran_twice_one_process", "ran_twice_across_kill",
               "never_broker", "never_answer_lost", "never_agent", "never_at_kill")
    r["adds_up"] = sum(r[k] for k in classes) == r["sent"] and r["unknown_pid"] == 0 \
        and r["strays"] == 0
    r["agent_fault"] = r["ran_twice_one_process"] + r["never_agent"]
    return r
