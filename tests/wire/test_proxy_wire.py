"""The proxy, seen over the wire by services that are not ours: test_proxy_wire.py APP"""
import concurrent.futures
import re
import time
import unittest
from wire import CASES, LARGEST, Process, Server, free_port, raw, registration, sleeps_when_idle

REQUESTS = CASES["proxy: requests"]


class Proxy(unittest.TestCase):
    trap = Server()  # what the environment calls an HTTP proxy

    def app(self):
        app = Process(http_proxy=f"http://127.0.0.1:{self.trap.port}")
        self.addCleanup(app.end)
        return app

    def connect(self, app, server, outcome="1", **answer):
        app.tell(f"connect {server.port} app")
        service = server.accept()
        service.registration = service.hear()
        service.answer(service.registration, **answer or {"result": "success to register app"})
        self.expect(app, f"connect {outcome}")
        return service

    def pair(self):
        return (app := self.app()), self.connect(app, Server())

    def expect(self, app, line, least=0, most=3):
        self.assertTrue(least <= app.expect(line, most + 10) <= most, line)

    def request_all(self, app, service):
        """Each of the requests' cases, and what the app sends for it."""
        app.tell(*(case["command"] for case in REQUESTS))
        heard = [service.hear() for _ in REQUESTS]
        return [(case, next(each for each in heard if each["request"] == case["request"])) for case in REQUESTS]

    def expect_all(self, app, requests, outcome, message="", least=0, most=3):
        for case, heard in requests:
            line = case[outcome].replace("KEY", str(heard["uniqueKey"])).replace("MESSAGE", message)
            self.expect(app, line, least, most)

    def assert_works(self, app, service):
        requests = self.request_all(app, service)
        for case, heard in requests:
            service.answer(heard, **case["members"])
        self.expect_all(app, requests, "answered")

    def test_registers_as_the_protocol_says(self):
        app, service = self.pair()
        headers, heard, now = service.request.headers, service.registration, int(time.time())
        self.assertEqual((service.request.path, headers["Host"][:9]), ("/", "localhost"))
        self.assertIsNone(headers.get("Sec-WebSocket-Protocol") or headers.get("Sec-WebSocket-Extensions"))
        self.assertIn(heard["request"]["timestamp"], range(now - 10, now + 1))
        self.assertIn(heard["uniqueKey"], range(2**31))
        self.assertEqual(heard, {"request_type": "register", "caller": "app", "uniqueKey": heard["uniqueKey"],
                                 "request": registration("app", heard["request"]["timestamp"]), "timestamp": "now"})
        self.assertRaises(BlockingIOError, self.trap.accept, 0)

    def test_is_connected_when_it_is_accepted_and_once_at_a_time(self):
        app, server = self.app(), Server()
        for case in CASES["proxy: answers to a registration"]:
            service = self.connect(app, server, case["connected"], **case["members"])
            if case["connected"] == "1":
                app.tell(f"connect {server.port} app")
                self.expect(app, "connect 0")
                self.assert_works(app, service)
                app.tell("disconnect")
            self.assertIsNone(service.hear(), case)
        self.assertFalse(app.printed["event closed close"])
        app.tell(f"connect {server.port} app")
        server.accept().socket.close()  # in the middle of the registration
        self.expect(app, "connect 0")
        self.assert_works(app, self.connect(app, server))

    def test_matches_answers_by_key_whatever_comes_between(self):
        app, service = self.pair()
        for case, heard in reversed(self.request_all(app, service)):
            self.assertEqual(heard, {"request_type": case["request_type"], "request": case["request"], "caller": "app",
                                     "uniqueKey": heard["uniqueKey"], "timestamp": "now"})
            for text in CASES["proxy: texts between two answers"]:
                service.say(raw(text).replace(b"KEY", str(heard["uniqueKey"]).encode()))
            service.answer(heard, 30, **case["members"])
            self.expect_all(app, [(case, heard)], "answered", most=10)
        self.assertFalse([line for line in app.printed if line.startswith("event message")])

    def test_delivers_pushes(self):
        app, service = self.pair()
        app.expect("event open open")
        for case in CASES["proxy: pushes"]:
            service.say(case["push"], 3)
            if case["seen"] == "bundle":  # which the app sends back
                heard = service.hear()
                self.assertEqual((heard["request_type"], heard["request"]), ("bundle", case["push"]["request"]))
                service.answer(heard, stat="success")
            app.expect(f"event {case['seen']}")
        service.say(b'{"request":{"message":"' + b"x" * (LARGEST - 26) + b'"}}')
        app.expect(f"event message {LARGEST - 26} bytes")

    def test_answers_all_that_wait_when_the_connection_ends(self):
        app, server = self.app(), Server()
        for end in (lambda service: service.socket.close(), lambda service: service.protocol.send_close(),
                    lambda service: service.say(b" " * (LARGEST + 1), 9), lambda service: app.tell("disconnect")):
            service = self.connect(app, server)
            requests = self.request_all(app, service)
            end(service)
            service.flush()
            self.expect_all(app, requests, "failed", "Unexpected disconnection")
            app.tell("call g", "async h", "send i", "disconnect")
            for line in "call g false", "answer h", "send":
                self.expect(app, line, most=1)
        for _ in range(3):
            app.expect("event closed close")
        self.assert_works(app, self.connect(app, server))
        self.assertFalse(app.printed["event closed close"])  # for its own disconnecting there is none

    def flood(self, service, megabytes):
        """Pushes so many texts of a megabyte; gives how many the app took before it let none in for two seconds."""
        push = b'{"request":{"message":"' + b"x" * (1 << 20) + b'"}}'
        service.socket.settimeout(2)
        for count in range(megabytes):
            service.protocol.send_text(push)
            try:
                service.socket.sendall(b"".join(service.protocol.data_to_send()))
            except OSError:
                return count
        return megabytes

    def test_bounds_what_a_service_pushes_and_goes_on_when_there_is_room(self):
        app, service = self.pair()
        for _ in range(10):  # as many as there are workers
            service.say({"request": {"message": "hold"}})
            app.expect("event message hold")
        self.assertIn(self.flood(service, 100), range(15, 40))
        app.tell("& call f")  # reads on, and what it reads is bounded, too
        self.assertLess(self.flood(service, 100), 90)
        app.expect("call f false", 60)
        app.tell("release", "disconnect")
        app.expect("disconnect")
        service = self.connect(app, Server())
        self.assertEqual(self.flood(service, 100), 100)
        for _ in range(100):
            app.expect("event message 1048576 bytes")
        self.assert_works(app, service)

    def test_bounds_what_a_service_may_leave_unread(self):
        app, service = self.pair()
        app.tell(*["fill f"] * 6)  # of which it writes one
        app.expect("event closed close", 60)
        app.tell("disconnect")
        app.expect("disconnect")
        keys = re.findall(r"ARRANGE Remained WAIT ITEM, key\((\d+)\)", app.log())
        self.assertEqual(len(keys), 6)
        for key in keys:
            app.expect(f'answer f {{"message":"Unexpected disconnection","stat":"fail","uniqueKey":{key}}}')
        self.assert_works(app, self.connect(app, Server()))

    def unanswered_requests(self):
        app, service = self.pair()
        requests = self.request_all(app, service)
        self.expect_all(app, requests, "failed", "Timeout", 19.9, 22)
        for case, heard in requests:
            service.answer(heard, **case["members"])
        self.assert_works(app, service)
        self.assertFalse([line for line in app.printed if line.startswith("event message")])

    def services_that_do_not_answer(self):
        mute, silent, apps = Server(), Server(), [self.app() for _ in range(3)]
        for app, port in zip(apps, (mute.port, silent.port, free_port())):
            app.tell(f"connect {port} app")
        service = mute.accept()
        for app, least, most in zip(apps, (19.9, 4.5, 4.5), (22.5, 6, 6)):
            self.expect(app, "connect 0", least, most)
            self.assert_works(app, self.connect(app, Server()))
        self.assertEqual([service.hear()["request_type"], service.hear()], ["register", None])
        retries = re.findall(r"\[(\d+)\] Retry in (\d+) ms\.", apps[2].log())[:10]
        self.assertEqual(retries, [(str(number), "500") for number in range(10)])

    def a_late_service_that_is_left_in_peace(self):
        app, port = self.app(), free_port()
        app.tell(f"connect {port} app")
        while "[2] Retry" not in app.log():
            time.sleep(0.01)
        service = Server(port).accept()
        service.answer(service.hear(), result="success to register app")
        self.expect(app, "connect 1", least=1)
        self.assertTrue(sleeps_when_idle(app.process.pid))
        self.assert_works(app, service)

    def test_what_takes_its_time(self):
        waits = self.unanswered_requests, self.services_that_do_not_answer, self.a_late_service_that_is_left_in_peace
        with concurrent.futures.ThreadPoolExecutor(len(waits)) as pool:
            list(pool.map(lambda wait: wait(), waits))


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
