"""A paired agent for the benchmarks: devcloud's CA, broker and credential
service under a fresh folder, and agenthost with the module in a root of its
own, provisioned for real and connected. Client certificates for the bench's
own MQTT clients come from the same CA."""
import os
import shutil
import subprocess
import tempfile
import time

from pairing_bench import NODE_MANAGER, start_cloud, stop_all, value_of

# The agent's topics; it is ready once the broker has logged all its
# subscriptions (whatever the agent's own log level).
AGENT_SUBSCRIPTIONS = 5


def read_proc(pid, name, key):
    """The number after `key` in /proc/PID/<name> ("status", "smaps_rollup")."""
    with open(f"/proc/{pid}/{name}") as f:
        return next(int(line.split()[1]) for line in f if line.startswith(key))


def count_lines(path, text):
    with open(path, encoding="utf-8", errors="replace") as f:
        return sum(text in line for line in f)


class PairedAgent:
    """Use as a context manager; everything stops and the folder goes at the end."""

    def __init__(self, build, prefix, log_level=2, vm_id="vm7", settings=(), agent_args=()):
        self.build, self.prefix, self.log_level, self.vm_id = build, prefix, log_level, vm_id
        self.settings = settings  # (key, name, value) written before the agent starts
        self.agent_args = list(agent_args)  # more agenthost options
        self.procs = []
        self.desktop = "e1/" + vm_id

    def tool(self, *parts):
        return os.path.abspath(os.path.join(self.build, *parts))

    def __enter__(self):
        self.work = tempfile.mkdtemp(prefix=self.prefix)
        try:
            self._start()
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exc):
        stop_all(self.procs)
        shutil.rmtree(self.work, ignore_errors=True)

    def _start(self):
        devcloud = self.tool("tools/devcloud/devcloud")
        self.cloud = start_cloud(devcloud, self.work, self.procs)
        self.port = int(value_of(os.path.join(self.work, "broker.out"), "port"))
        credsvc_out = os.path.join(self.work, "credsvc.out")
        url = value_of(credsvc_out, "url")
        self.ca = os.path.join(self.cloud, "ca.pem")
        self.root = os.path.join(self.work, "desktop")
        settings = [(NODE_MANAGER, "mqtt_SslCertThumbprint", value_of(credsvc_out, "thumbprint")),
                    # The fresh 30-day certificate stays outside the renewal window:
                    # no renewal attempt runs during a measurement.
                    (NODE_MANAGER, "mqtt_CertExpiryDays", "7")]
        for key, name, value in settings + list(self.settings):
            subprocess.run([self.tool("tools/regctl/regctl"), "--root", self.root, "set", key,
                            name, value], check=True, capture_output=True)
        self._launch("agent.log")
        subprocess.run([devcloud, "provision", "--dir", self.cloud, "--root", self.root, "--url",
                        url, "--vm-id", self.vm_id, "--edge-id", "e1", "--short-template-id",
                        "t3"], check=True, capture_output=True)
        broker_log = os.path.join(self.cloud, "broker", "mosquitto.log")
        subscribed = f": e1t3_{self.vm_id} 1 desktop/"
        deadline = time.monotonic() + 60
        while count_lines(broker_log, subscribed) < AGENT_SUBSCRIPTIONS:
            assert time.monotonic() < deadline, "the agent did not connect; see " + self.log
            time.sleep(0.05)

    def _launch(self, log_name):
        self.log = os.path.join(self.work, log_name)
        self.agent = subprocess.Popen(
            [self.tool("host/agenthost"), "--root", self.root, "--plugin",
             self.tool("plugin/ndpx_mqtt.so"), "--log-level", str(self.log_level), "--log-file",
             self.log, *self.agent_args], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.procs.append(self.agent)

    def restart(self):
        """Stops the agent and starts it again on its stored pairing, as a
        desktop that paired once and has been restarted since; returns once it
        has connected."""
        self.agent.terminate()
        self.agent.wait(timeout=30)
        self.procs.remove(self.agent)
        self._launch("agent-restarted.log")
        deadline = time.monotonic() + 60
        while not (os.path.exists(self.log) and
                   count_lines(self.log, "Successfully connected to MQTT Server") > 0):
            assert time.monotonic() < deadline, "the agent did not reconnect; see " + self.log
            time.sleep(0.05)

    def client_cert(self, cn):
        """A certificate for one of the bench's clients: its file prefix."""
        prefix = os.path.join(self.cloud, cn)
        subprocess.run([self.tool("tools/devcloud/devcloud"), "client-cert", "--dir", self.cloud,
                        "--cn", cn, "--out", prefix], check=True, capture_output=True)
        return prefix
