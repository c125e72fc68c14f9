"""A TCP proxy on loopback between the agent and the broker, so that the
suite can hold the bytes of a live connection (nothing closed) and cut it."""
import select
import socket
import threading

BACKLOG = 1 << 20  # bytes held for a slow reader before its sender is no longer read


class StallProxy:
    """Listens on 127.0.0.1 (port chosen by the kernel) and joins each
    connection to `upstream`. stall() stops reading both ends of every
    connection, new ones included, so bytes pile up in the kernel's buffers
    as on a frozen network; cut() closes every connection and ends a stall."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.upstream = None  # (host, port), set once the broker runs
        self._peers = {}  # socket -> the socket at the other end
        self._out = {}  # socket -> bytes read from its peer, not yet written to it
        self._stalled = False
        self._cut = False
        self._stop = False
        self._lock = threading.Lock()
        self._wake_r, self._wake_w = socket.socketpair()
        self._thread = threading.Thread(target=self._run, name="proxy", daemon=True)
        self._thread.start()

    def stall(self):
        with self._lock:
            self._stalled = True
        self._wake_w.send(b"x")

    def cut(self):
        with self._lock:
            self._cut = True
        self._wake_w.send(b"x")

    def connections(self):
        with self._lock:
            return len(self._peers) // 2

    def close(self):
        with self._lock:
            self._stop = True
        self._wake_w.send(b"x")
        self._thread.join(10)
        self._listener.close()

    def _accept(self):
        client, _ = self._listener.accept()
        try:
            server = socket.create_connection(self.upstream, timeout=2)
        except (OSError, TypeError):
            client.close()  # no broker: the agent sees a refused connection
            return
        for s in (client, server):
            s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            s.setblocking(False)
        with self._lock:
            self._peers[client], self._peers[server] = server, client
            self._out[client], self._out[server] = bytearray(), bytearray()

    def _close_pair(self, s):
        with self._lock:
            other = self._peers.pop(s, None)
            self._peers.pop(other, None)
            self._out.pop(s, None)
            pending = self._out.pop(other, None)
        if other is not None and pending:
            try:  # what the closing end sent before it went, as a network would
                other.send(pending)
            except OSError:
                pass
        for x in (s, other):
            if x is not None:
                x.close()

    def _run(self):
        while True:
            with self._lock:
                if self._stop:
                    break
                if self._cut:
                    self._cut = self._stalled = False
                    doomed = list(self._peers)
                else:
                    doomed = []
            for s in doomed:
                self._close_pair(s)
            with self._lock:
                live = [] if self._stalled else list(self._peers)
                # Each direction on its own: a slow reader holds back only
                # what is sent to it, never what it sends.
                reading = [s for s in live if len(self._out[self._peers[s]]) < BACKLOG]
                writing = [s for s in live if self._out[s]]
            readable, writable, _ = select.select([self._listener, self._wake_r, *reading],
                                                  writing, [], 1)
            for s in writable:
                self._write(s)
            for s in readable:
                if s is self._wake_r:
                    self._wake_r.recv(64)
                elif s is self._listener:
                    self._accept()
                else:
                    self._read(s)
        for s in list(self._peers):
            self._close_pair(s)

    def _read(self, s):
        with self._lock:
            other = self._peers.get(s)
        if other is None:
            return
        try:
            data = s.recv(65536)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if not data:
            self._close_pair(s)
            return
        with self._lock:
            self._out[other] += data

    def _write(self, s):
        with self._lock:
            pending = self._out.get(s)
            if pending is None:
                return
            data = bytes(pending)
        try:
            sent = s.send(data)
        except BlockingIOError:
            return
        except OSError:
            self._close_pair(s)
            return
        with self._lock:
            if s in self._out:
                del self._out[s][:sent]
