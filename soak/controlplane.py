"""The control plane's side: a requester with a persistent session that
streams QoS 1 "Echo" commands to one desktop, collects the answers and sends
again what was not answered in time, as a real control plane would."""
import json
import ssl
import sys
import threading

try:
    import paho.mqtt.client as mqtt
except ImportError:  # an interpreter outside Debian's own, e.g. a pyenv one
    sys.path.append("/usr/lib/python3/dist-packages")
    import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

SESSION_EXPIRY = 3600


class Requester:
    """One client, clean start false: the broker keeps its subscription and
    its queued answers across its reconnects, and the client library sends
    again every publish not yet acknowledged when it reconnects."""

    def __init__(self, name, port, tls, topics, ledger):
        self.topics, self.ledger = topics, ledger
        self.connects = 0
        self.client = mqtt.Client(client_id=name, protocol=mqtt.MQTTv5)
        ca, cert, key = tls
        self.client.tls_set(ca_certs=ca, certfile=cert, keyfile=key,
                            tls_version=ssl.PROTOCOL_TLS_CLIENT)
        self.client.max_inflight_messages_set(100)
        self.client.reconnect_delay_set(1, 2)
        self.client.on_connect = self._on_connect
        self.client.on_message = self._on_message
        props = Properties(PacketTypes.CONNECT)
        props.SessionExpiryInterval = SESSION_EXPIRY
        self._lock = threading.Lock()  # publish() from the stream and the bad input
        self.client.connect_async("127.0.0.1", port, keepalive=10, clean_start=False,
                                  properties=props)
        self.client.loop_start()

    def _on_connect(self, client, userdata, flags, rc, properties=None):
        if rc == 0:
            self.connects += 1
            client.subscribe(self.topics["response"], qos=1)

    def _on_message(self, client, userdata, message):
        self.ledger.answer(message.payload)

    def publish(self, topic, payload, qos=1):
        with self._lock:
            self.client.publish(topic, payload, qos=qos)

    def send(self, cid):
        """Sends (or sends again) the command `cid`."""
        self.ledger.sending(cid)
        self.publish(self.topics["commands"], json.dumps({"ID": cid, "COMMAND": "Echo"}))

    def resend_overdue(self, after):
        overdue = self.ledger.overdue(after)
        for cid in overdue:
            self.send(cid)
        return len(overdue)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()
