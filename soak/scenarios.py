"""The faults and the bad input, and when they happen: a plan of random
moments over the stream, run one after another on the fault thread."""
import json
import os
import socket
import threading
import time

BIG = 5 * 1024 * 1024
SO_SNDBUFFORCE = getattr(socket, "SO_SNDBUFFORCE", 32)


def plan(rng, seconds, counts):
    """[(second, kind)]: each kind's count at random moments in the middle
    80% of the stream, so the first and last commands also meet a quiet
    agent."""
    events = [(rng.uniform(0.1, 0.9) * seconds, kind)
              for kind, n in counts.items() for _ in range(n)]
    return sorted(events)


def bad_payloads(rng):
    """Garbage, JSON that is not an object, commands whose ID the agent
    must refuse, and 5 MB of broken JSON."""
    garbage = bytes(rng.getrandbits(8) for _ in range(300))
    return [
        b"{not json",
        garbage,
        b"[1, 2, 3]",
        b'"a string"',
        b"42",
        json.dumps({"ID": {"nested": 1}, "COMMAND": "Echo"}).encode(),
        json.dumps({"ID": [1, 2], "COMMAND": "Echo"}).encode(),
        b'{"ID": "bad-\xff\xfe", "COMMAND": "Echo"}',
        b'{"ID": "big", "DATA": "' + b"x" * BIG,
    ]


def big_command():
    """5 MB of valid JSON: a command with a refused ID, so that it is parsed
    whole yet answered by nobody. Sent once a run, on the commands topic:
    the agent logs a parsed command whole at level 1."""
    return json.dumps({"ID": {"big": True}, "COMMAND": "Echo", "DATA": "x" * BIG}).encode()


def ipc_bad_input(path, payloads):
    """The same messages on the agent's local IPC socket, one connection
    each (the agent may end a stream for a bad message). Each connection
    waits for the agent's identity message, which says it was admitted (a
    peer gone before its admission is refused unread), and stays open a
    moment after its send. Returns how many messages were sent admitted."""
    taken = 0
    for payload in payloads + [b"{" + b" " * (300 * 1024) + b"}",  # over the 256 KiB limit
                               json.dumps({"type": 7}).encode(),
                               json.dumps({"type": "publish", "topic": "",
                                           "message": "!!", "qos": 9}).encode()]:
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as s:
                try:  # as root, past the kernel's send buffer cap: the agent's limit is the test
                    s.setsockopt(socket.SOL_SOCKET, SO_SNDBUFFORCE, 2 * BIG)
                except OSError:
                    pass
                s.settimeout(2)
                s.connect(path)
                s.recv(65536)  # "setidentity"
                s.send(payload)
                taken += 1
                s.settimeout(0.3)
                s.recv(65536)  # the agent ends the stream, or nothing comes
        except OSError:
            pass  # too large for one packet, refused or timed out: all answers
    return taken


class FaultRunner:
    """Runs the plan against the live processes on its own thread, while
    the stream goes on; counts what it did."""

    def __init__(self, events, cloud, agent, proxy, requester, topics, rng, stall_seconds):
        self.events, self.cloud, self.agent, self.proxy = events, cloud, agent, proxy
        self.requester, self.topics, self.rng = requester, topics, rng
        self.stall_seconds = stall_seconds
        self.done = {k: 0 for k in ("broker_kill", "agent_kill", "stall", "cut", "bad_input")}
        self.ipc_taken = 0
        self.error = None
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="faults", daemon=True)

    def start(self):
        self._t0 = time.monotonic()
        self._thread.start()

    def stop(self):
        self._stop.set()
        self._thread.join(120)

    def _run(self):
        try:
            for at, kind in self.events:
                if self._stop.wait(max(0.0, self._t0 + at - time.monotonic())):
                    return
                getattr(self, kind)()
                self.done[kind] += 1
        except Exception as e:  # reported by the main thread
            self.error = e

    def broker_kill(self):
        self.cloud.kill_broker()
        time.sleep(self.rng.uniform(0.2, 2.0))  # down for a moment
        self.cloud.start_broker()

    def agent_kill(self):
        self.agent.kill()
        time.sleep(self.rng.uniform(0.2, 2.0))
        self.agent.start()

    def stall(self):
        self.proxy.stall()
        self._stop.wait(self.stall_seconds)
        self.proxy.cut()

    def cut(self):
        self.proxy.cut()

    def bad_input(self):
        for payload in bad_payloads(self.rng):
            for topic in self.topics["inbound"]:
                self.requester.publish(topic, payload)
        if self.done["bad_input"] == 0:
            self.requester.publish(self.topics["commands"], big_command())
        if os.path.exists(self.agent.ipc_socket()):
            self.ipc_taken += ipc_bad_input(self.agent.ipc_socket(), bad_payloads(self.rng))
