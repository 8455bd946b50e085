"""The stub, seen over the wire by clients that are not ours: test_stub_wire.py SERVICE"""
import json
import pathlib
import re
import select
import socket
import time
import unittest
from websockets.extensions.permessage_deflate import ClientPerMessageDeflateFactory as Deflate
from wire import CASES, LARGEST, Client, Process, free_port, ids, parse, raw, registration, sleeps_when_idle


class Stub(unittest.TestCase):
    def setUp(self):
        self.port = free_port()
        self.service = Process(self.port)
        self.addCleanup(self.service.end)

    def client(self, app=None):
        return Client(self.port, app or next(ids))

    def assert_works(self, client=None):
        """Whatever happened to others, a client is answered, and soon."""
        client, begin = client or self.client(), time.monotonic()
        self.assertEqual(client.ask("method", {"method": "works"}, 77)["uniqueKey"], 77)
        self.assertLess(time.monotonic() - begin, 3)

    def register(self, client, app, offset=0, name="libnira-ipc", change=(), spelling="lower", **_):
        while time.time() % 1 > 0.3:
            time.sleep(0.01)  # the service has to read the same second as we do
        request = registration(app, int(time.time()) + offset, name)
        request["authKey"] = getattr(request["authKey"], spelling)()
        request.update(change)
        client.app = app
        client.say(client.envelope("register", {key: value for key, value in request.items() if value is not None}))

    def assert_registers(self, client, **case):
        self.register(client, next(ids), **case)
        self.assertEqual(client.hear(), {"request_type": "register", "uniqueKey": 1, "timestamp": "now",
                                         "result": f"success to register {client.app}"}, case)
        self.service.expect(f"open {client.app} {client.app}")

    def test_registers_clients(self):
        for case in CASES["stub: accepted registrations"]:
            self.assert_registers(Client(self.port), **case)

    def test_refuses_clients_and_tells_whoever_has_the_id(self):
        owner = self.client()
        for case in CASES["stub: refused registrations"]:
            stranger = Client(self.port)
            self.register(stranger, owner.app, **case)
            self.assertEqual(owner.hear(), {"request_type": "register", "uniqueKey": 1, "timestamp": "now",
                                            "error": {"code": "-00000", "message": case["refusal"]}}, case)
            self.assert_registers(stranger)  # of its refusal it heard nothing
        self.service.expect(f"open not found {owner.app}")

    def test_sends_to_the_latest_client_of_an_id(self):
        first, late = self.client(), Client(self.port)
        second = self.client(first.app)
        first.say(first.envelope("message", {"message": "who is"}))
        self.assertEqual(second.hear(), {"uniqueKey": 1, "stat": "success"})
        first.socket.close()
        self.service.expect("closed close")
        self.assert_works(second)
        second.socket.close()
        self.service.expect(f"closed close {first.app}")
        late.say(first.envelope("message", {"message": "nobody is"}))
        self.service.expect(f"text nobody is {first.app}")  # it is told to the service; the reply has nowhere to go
        self.assert_registers(late)

    def test_answers_requests(self):
        client = self.client()
        for group, send in ((group, send) for group in CASES["stub: requests"] for send in group["sends"]):
            client.say({"caller": client.app, **send})
            heard = [client.hear() for _ in group["hears"]]
            if isinstance(group["hears"][0].get("request", {}).get("message"), dict):  # JSON within the JSON
                heard[0]["request"]["message"] = parse(heard[0]["request"]["message"])
            self.assertEqual(heard, group["hears"], send)
            if "sees" in group:
                self.service.expect(f"{group['sees']} {client.app}")

    def test_survives_hostile_texts_and_handlers_that_throw(self):
        client = self.client()
        throwing = [client.envelope("method", {"method": "throw"})] * 25  # more than there are workers
        for text in [*map(raw, CASES["stub: hostile texts"]), *throwing]:
            client.say(text)
            self.assert_works(client)

    def test_pushes_in_order(self):
        client, texts = self.client(), [f"text {number} \u20ac \"'\\/" for number in range(50)]
        self.service.tell(*(f"{client.app} {text}" for text in texts))
        self.assertEqual([client.hear() for _ in texts], [
            {"request_type": "message", "request": {"message": text}, "timestamp": "now"} for text in texts])

    def test_assembles_the_frames_of_each_client(self):
        clients = [self.client() for _ in range(3)]
        params = [{"s": {"type": "string", "value": client.app + 90 * "\u20ac"}} for client in clients]
        for _ in zip(*(client.pieces(client.envelope("method", {"method": "echo", "params": values}), 250)
                       for client, values in zip(clients, params))):
            clients[0].protocol.send_ping(b"between two frames")
        self.assertEqual([client.hear()["result"]["params"] for client in clients], params)

    def test_bounds_what_a_client_may_send(self):
        other = self.client()
        for excess, pieces in (0, 1), (0, 40), (1, 1), (1, 40), (LARGEST, 1):
            client = self.client()
            room = LARGEST - len(json.dumps(client.envelope("message", {"message": ""})))
            client.say(client.envelope("message", {"message": "x" * (room + excess)}), pieces)
            self.assertEqual(client.hear(30), None if excess else {"uniqueKey": 1, "stat": "success"}, (excess, pieces))
            self.service.expect(f"closed close {client.app}" if excess else f"text {room} bytes {client.app}")
            self.assert_works(other)

    def test_bounds_what_a_client_may_leave_unread(self):
        mute, other = self.client(), self.client()
        megabyte = f"{mute.app} {'x' * (1 << 20)}"
        self.service.tell(*[megabyte] * 60)
        self.assert_works(other)
        mute.say(mute.envelope("method", {"method": "alive"}))
        self.service.expect(f"method alive {mute.app}")
        self.service.tell(*[megabyte] * 40)
        self.service.expect(f"closed close {mute.app}")
        self.assert_works(other)

    def test_serves_200_clients_at_once(self):
        for client in [self.client() for _ in range(200)]:
            self.assert_works(client)

    def test_agrees_on_its_sub_protocol_and_on_no_extension(self):
        for asked in None, ["nira-protocol"], ["other", "nira-protocol"]:
            headers = Client(self.port, subprotocols=asked, extensions=[Deflate()]).response.headers
            self.assertEqual(headers.get("Sec-WebSocket-Protocol"), asked and "nira-protocol")
            self.assertNotIn("Sec-WebSocket-Extensions", headers)

    def test_is_not_hindered_by_who_speaks_no_websocket(self):
        strangers, http = [], b"GET / HTTP/1.1\r\nHost: localhost\r\n"
        for text, reaction in (b"", False), (http, False), (http + b"\r\n", True), (b"\x16\x03\x01\r\n\r\n" * 9, True):
            strangers.append(socket.create_connection(("127.0.0.1", self.port), 5))
            strangers[-1].sendall(text)
            self.assert_works()
            self.assertTrue(not reaction or select.select(strangers[-1:], [], [], 5)[0])  # an answer, or the end

    def test_has_its_port_to_itself_and_listens_on_the_loopback_interface_only(self):
        sockets = pathlib.Path("/proc/net/tcp").read_text() + pathlib.Path("/proc/net/tcp6").read_text()
        self.assertEqual(re.findall(rf" (\w+):{self.port:04X} \w+:0000 0A ", sockets), ["0100007F"])
        second = Process(self.port)
        self.assertIn("[m_SetWebSocketContext] Websocket context create error.", second.log())
        second.end()
        self.assert_works()

    def test_ends_all_connections_when_it_is_stopped(self):
        clients = [self.client("a"), self.client("b"), Client(self.port)]
        self.service.process.stdin.close()
        self.assertEqual([client.hear(1) for client in clients], [None] * 3)
        for line in "closed close a", "closed close b", "closed close":
            self.service.expect(line)

    def test_answers_without_handlers(self):
        client = self.client()
        for method, result in ("unregister", True), ("echo", False):
            self.assertEqual(client.ask("method", {"method": method})["result"], {"result": result})
        self.assertEqual(client.ask("bundle", {"bundle": {}}), {"uniqueKey": 1, "stat": "success"})

    def test_sleeps_while_nothing_happens(self):
        client = self.client()
        self.assertTrue(sleeps_when_idle(self.service.process.pid))
        self.assert_works(client)


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
