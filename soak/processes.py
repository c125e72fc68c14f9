"""The real processes of a soak run: devcloud's CA, broker (mosquitto with
its store saved on every change) and credential service, and agenthost with
the module in its own root, paired for real."""
import glob
import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "bench"))
from pairing_bench import NODE_MANAGER, start_cloud, stop_all, value_of  # noqa: E402


def wait_for_text(path, text, offset=0, limit=30.0):
    """True once `text` is in `path` after byte `offset`, within `limit` s."""
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        try:
            with open(path, "rb") as f:
                f.seek(offset)
                if text.encode() in f.read():
                    return True
        except FileNotFoundError:
            pass
        time.sleep(0.02)
    return False


def last_value(path, key):
    """The value of the last `key value` line of `path`."""
    found = None
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            if line.startswith(key + " "):
                found = line.split(" ", 1)[1].strip()
    if found is None:
        raise RuntimeError(f"{key} not found in {path}")
    return found


class Cloud:
    """The devcloud processes. Agents are told to reach the broker at
    `agent_port` (the suite's proxy), the requester reaches it directly."""

    def __init__(self, build, work, agent_port):
        self.devcloud = os.path.join(build, "tools/devcloud/devcloud")
        self.work = work
        self.procs = []
        try:
            self.dir = start_cloud(self.devcloud, work, self.procs, broker_args=["--persist"],
                                   credsvc_args=["--broker-host", "127.0.0.1", "--broker-port",
                                                 str(agent_port)])
        except BaseException:
            stop_all(self.procs)  # the one that did start
            raise
        self.broker_out = os.path.join(work, "broker.out")
        self.port = int(value_of(self.broker_out, "port"))
        assert wait_for_text(self.broker_out, "pid "), "the broker did not name its pid"
        self.mosquitto_pid = int(last_value(self.broker_out, "pid"))
        credsvc_out = os.path.join(work, "credsvc.out")
        self.url = value_of(credsvc_out, "url")
        self.thumbprint = value_of(credsvc_out, "thumbprint")
        self.restart_failures = 0  # broker starts tried again

    def client_cert(self, cn):
        """A control-plane certificate: (ca, cert, key) file names."""
        prefix = os.path.join(self.dir, cn)
        subprocess.run([self.devcloud, "client-cert", "--dir", self.dir, "--cn", cn, "--out",
                        prefix], check=True, capture_output=True)
        return os.path.join(self.dir, "ca.pem"), prefix + ".pem", prefix + ".key"

    def provision(self, root, vm_id):
        """Writes the desktop's provisioning document; its bootstrap topic."""
        out = subprocess.run([self.devcloud, "provision", "--dir", self.dir, "--root", root,
                              "--url", self.url, "--vm-id", vm_id, "--edge-id", "e1",
                              "--short-template-id", "t3"], check=True, capture_output=True,
                             text=True).stdout
        return next(line.split(" ", 2)[2] for line in out.splitlines()
                    if line.startswith("bootstrap topic "))

    def kill_broker(self):
        """SIGKILLs mosquitto itself; its devcloud parent then exits."""
        os.kill(self.mosquitto_pid, signal.SIGKILL)
        self.procs[0].wait(30)

    def start_broker(self, attempts=5):
        """mosquitto again on the same port, from the store it saved. A
        start that fails at once (the machine's inotify instances, shared by
        every user, run out now and then) is tried again."""
        for _ in range(attempts):
            offset = os.path.getsize(self.broker_out)
            with open(self.broker_out, "a") as out:
                self.procs[0] = subprocess.Popen([self.devcloud, "broker", "--dir", self.dir,
                                                  "--port", str(self.port), "--persist"],
                                                 stdout=out, stderr=out)
            deadline = time.monotonic() + 30
            while self.procs[0].poll() is None and time.monotonic() < deadline:
                if wait_for_text(self.broker_out, "pid ", offset, limit=0.5):
                    self.mosquitto_pid = int(last_value(self.broker_out, "pid"))
                    return
            if self.procs[0].poll() is None:
                self.procs[0].kill()
                self.procs[0].wait(30)
            self.restart_failures += 1
            time.sleep(1)
        raise RuntimeError("the broker did not restart; see " + self.broker_out)

    def stop(self):
        stop_all(self.procs)


class Agent:
    """agenthost with the module under `root`. Every start writes its own
    log (agent-N.log), so each process's lines can be told apart."""

    def __init__(self, build, work, root):
        self.agenthost = os.path.join(build, "host/agenthost")
        self.module = os.path.join(build, "plugin/ndpx_mqtt.so")
        self.regctl = os.path.join(build, "tools/regctl/regctl")
        self.work, self.root = work, root
        self.runs = []  # (pid, log file, how it ended: None running, "killed", "stopped")
        self.proc = None

    def setting(self, name, value, key=NODE_MANAGER):
        subprocess.run([self.regctl, "--root", self.root, "set", key, name, value], check=True,
                       capture_output=True)

    def start(self):
        log = os.path.join(self.work, f"agent-{len(self.runs)}.log")
        # Level 1 logs every incoming command with its ID.
        self.proc = subprocess.Popen([self.agenthost, "--root", self.root, "--plugin",
                                      self.module, "--log-level", "1", "--log-file", log],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.runs.append([self.proc.pid, log, None])
        return log

    def kill(self):
        self.proc.kill()
        self.proc.wait(30)
        self.runs[-1][2] = "killed"

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(30)
        if self.runs and self.runs[-1][2] is None:
            self.runs[-1][2] = "stopped"

    @property
    def log(self):
        return self.runs[-1][1]

    def rss_kib(self):
        """The running agent's resident memory (VmRSS), KiB."""
        with open(f"/proc/{self.proc.pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def ipc_socket(self):
        return os.path.join(self.root, "run/Brasswick/ipc",
                            "{1CA68F57-44E0-4475-8065-A32557C79A56}.sock")


class LogMeter:
    """Bytes the agents have written to their logs so far, rotated files
    included (the host rotates at 10 MB by renaming to .1 ... .5)."""

    def __init__(self, agent):
        self.agent = agent

    def total(self):
        size = 0
        for _, log, _ in self.agent.runs:
            for f in glob.glob(log) + glob.glob(log + ".[0-9]"):
                size += os.path.getsize(f)
        return size
