"""What the tests of both ends share: the program under test, and a peer for it that is not ours."""
import collections
import contextlib
import hashlib
import itertools
import json
import os
import pathlib
import re
import select
import socket
import subprocess
import sys
import tempfile
import time
from websockets import client, frames, server, uri

PROGRAM = os.path.abspath(sys.argv.pop(1))
SECRET = "the secret of these tests"
CASES = json.loads(pathlib.Path(__file__).with_name("cases.json").read_text(encoding="utf-8"))
LARGEST = 16 << 20  # bytes of a message
ids = (f"app.{number}" for number in itertools.count())


def raw(text):
    """The bytes of a text in the cases, which may be [left, how often, right]."""
    left, count, right = [text, 1, ""] if isinstance(text, str) else text
    return (left * count + right * count).encode("latin-1")


def parse(text):
    """A message of the program: compact, with a line feed at its end, and its time stamp is that of the present."""
    message = json.loads(text)
    assert text == json.dumps(message, separators=(",", ":"), sort_keys=True) + "\n", text
    if "timestamp" in message:  # milliseconds, which begin anew every 1,000,000 s
        assert (time.time_ns() // 10**6 - message["timestamp"]) % 10**9 < 60_000, text
        message["timestamp"] = "now"
    return message


def registration(app, stamp, name="libnira-ipc"):
    source = f"{name}|{SECRET}|{(stamp + 2**31) % 2**32 - 2**31}"  # what 32 bits leave of the stamp
    return {"register": app, "niraIpcVersionMajor": 1, "niraIpcVersionMinor": 0, "niraIpcVersionBuild": 2,
            "niraIpcClient": name, "authKey": hashlib.sha256(source.encode()).hexdigest(), "timestamp": stamp}


def sleeps_when_idle(pid):
    """Whether none of the library's threads is woken in five seconds in which nothing happens."""
    def switches():  # of contexts, by thread
        states = (path.read_text() for path in pathlib.Path(f"/proc/{pid}/task").glob("*/status"))
        return [state.split("\nvoluntary_")[1] for state in states if re.match(r"Name:\s*nira-(stub|prox)", state)]

    before, limit = None, time.monotonic() + 10
    while before != (before := switches()) and time.monotonic() < limit:
        time.sleep(0.2)  # what has just been done is not over yet
    time.sleep(5)  # this is what is measured
    return before == switches()


class Process:
    """The program under test, with a secret. It ends when its input does; whatever is wrong then is a failure."""

    def __init__(self, *arguments, **environment):
        self.storage, self.log_file = tempfile.TemporaryDirectory(), tempfile.TemporaryFile()
        self.printed, self.told = collections.defaultdict(list), time.monotonic_ns()  # when, by line
        key = pathlib.Path(self.storage.name, "nira_ipc_key")
        key.touch(0o600)
        key.write_text(SECRET)
        environment = {"NIRA_IPC_SECURE_STORAGE": self.storage.name, "NIRA_IPC_LOG": "error", **environment}
        self.process = subprocess.Popen([PROGRAM, *map(str, arguments)], env={**os.environ, **environment}, bufsize=0,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.log_file)
        self.expect("ready")

    def log(self):
        return os.pread(self.log_file.fileno(), 1 << 30, 0).decode(errors="replace")

    def tell(self, *commands):
        self.told = time.monotonic_ns()
        self.process.stdin.write("".join(f"{command}\n" for command in commands).encode())

    def expect(self, line, limit=15):
        """Waits for such a line, and takes it; gives the seconds from the last command until it was printed."""
        deadline = time.monotonic() + limit
        while not self.printed[line]:
            wait = max(deadline - time.monotonic(), 0)
            data = select.select([self.process.stdout], [], [], wait)[0] and self.process.stdout.readline()
            assert data, f"no {line!r} after {list(self.printed)[-20:]}, log: {self.log()[-4000:]}"
            stamp, *words = data.decode(errors="replace").split()
            self.printed[" ".join(words)].append(int(stamp))
        return (self.printed[line].pop(0) - self.told) / 1e9

    def end(self):
        self.process.stdin.close()
        status = self.process.wait(30)
        assert status == 0, f"{PROGRAM} ended with {status}: {self.log()[-8000:]}"


class Peer:
    """The other end of a connection: speaks whole messages or single frames."""

    def __init__(self, sock, protocol):
        self.socket, self.protocol, self.frames = sock, protocol, []

    def flush(self):
        with contextlib.suppress(ConnectionError):  # whoever listens will notice
            for data in self.protocol.data_to_send():
                self.socket.sendall(data)

    def next(self, limit=10):
        """The next frame, or the other's half of the handshake; None when the connection has ended."""
        self.socket.settimeout(limit)
        with contextlib.suppress(ConnectionError):
            while not self.frames and (data := self.socket.recv(1 << 20)):
                self.protocol.receive_data(data)
                self.frames += self.protocol.events_received()
                self.flush()
        return self.frames.pop(0) if self.frames else None

    def hear(self, limit=10):
        """The next message, which the program sends in one frame; None when the connection has ended."""
        while (frame := self.next(limit)) and frame.opcode is frames.Opcode.PONG:
            pass
        return parse(frame.data.decode()) if frame and frame.opcode is frames.Opcode.TEXT else None

    def pieces(self, message, count):
        """Sends the message in so many frames, one each time it is asked to go on."""
        data = message if isinstance(message, bytes) else json.dumps(message, ensure_ascii=False).encode()
        bounds = [len(data) * piece // count for piece in range(count + 1)]
        for piece, (begin, end) in enumerate(zip(bounds, bounds[1:])):
            send = self.protocol.send_continuation if piece else self.protocol.send_text
            yield send(data[begin:end], fin=piece == count - 1) or self.flush()

    def say(self, message, pieces=1):
        return len(list(self.pieces(message, pieces)))

    def answer(self, request, pieces=1, **members):
        self.say({"uniqueKey": request["uniqueKey"], **members}, pieces)


class Client(Peer):
    """A client of the stub under test."""

    def __init__(self, port, app=None, **options):
        super().__init__(socket.create_connection(("127.0.0.1", port), 10),
                         client.ClientConnection(uri.parse_uri(f"ws://localhost:{port}/"), max_size=None, **options))
        self.protocol.send_request(self.protocol.connect())
        self.flush()
        self.response, self.app = self.next(), app
        if app:
            assert self.ask("register", registration(app, int(time.time())))["result"] == f"success to register {app}"

    def envelope(self, kind, request, key=1):
        return {"request_type": kind, "request": request, "uniqueKey": key, "caller": self.app, "timestamp": 1}

    def ask(self, *request):
        self.say(self.envelope(*request))
        return self.hear()


class Server:
    """A service for the proxy under test."""

    def __init__(self, port=0):
        self.socket = socket.create_server(("127.0.0.1", port))
        self.port = self.socket.getsockname()[1]

    def accept(self, limit=10):
        self.socket.settimeout(limit)
        peer = Peer(self.socket.accept()[0], server.ServerConnection(max_size=None))
        peer.request = peer.next()
        peer.protocol.send_response(peer.protocol.accept(peer.request))
        peer.flush()
        return peer


def free_port():
    return Server().port  # which nobody holds from here on
