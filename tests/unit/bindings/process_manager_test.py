"""The Python binding against a manager that is written by hand.

Run as root in a mount namespace of its own, whose /run is empty: it serves names there.
"""
import errno
import gc
import os
import queue
import socket
import struct
import threading
import unittest

import process_manager
from process_manager import Agent, AgentError, Change, Event, State, Status

MAGIC, VERSION, HELLO, REQUEST, RESPONSE = 0x4F58454E, 1, 1, 2, 3
PATIENCE = 60


class Manager:
    """Connects to a service as the manager does."""

    def __init__(self, name="svc"):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(f"/run/nexio/{name}.sock")
        self.send(HELLO, b"PROCMGR")

    def send(self, kind, data, sequence=0):
        self.socket.send(struct.pack("<IHHII", MAGIC, VERSION, kind, sequence, len(data)) + data)

    def report(self, kind, body):
        self.send(REQUEST, struct.pack("<IIQ", kind, 0, len(body)) + body.ljust(3968, b"\0"))

    def receive(self):
        """The kind, the body and the sequence number of the next frame."""
        packet = self.socket.recv(70000)
        kind, _, size = struct.unpack_from("<IIQ", packet, 16)
        return kind, packet[32:32 + size], struct.unpack_from("<I", packet, 8)[0]


def names(*rows):
    """A status report's body."""
    body = struct.pack("<I", len(rows))
    for name, *values in rows:
        body += struct.pack("<I", len(name)) + name + b"".join(struct.pack("<I", v) for v in values)
    return body


class AgentTest(unittest.TestCase):
    def connect(self):
        manager = Manager()
        self.addCleanup(manager.socket.close)
        return manager

    def test_requests_byte_by_byte(self):
        with Agent("svc") as agent:
            self.assertEqual((agent.name, agent.connected), ("svc", False))
            manager = self.connect()
            agent.wait_connected(PATIENCE)
            for call, kind, body in (
                    (lambda: agent.report(State.READY), 3, b"1#2#"),
                    (lambda: agent.start("a", ["x", "y"]), 0, b"1#a#2#x#y#0#"),
                    (lambda: agent.restart("a", path="/bin/a", vf="7", environment={"K": "1"}), 1,
                     b"1#a#0#3#0#1#/bin/a#1#1#7#2#1#K=1#"),
                    (lambda: agent.terminate(["a", "b"]), 2, b"2#a#b#"),
                    (lambda: agent.report_execution("a", 9, 34, running=True), 5, b"1#a#9#34#0#"),
                    (lambda: agent.request_status(["b", "a"]), 9, names((b"a",), (b"b",))),
                    (lambda: agent.report(State.GOING_DOWN), 3, b"1#3#")):
                call()
                self.assertEqual(manager.receive()[:2], (kind, body))

    def test_callbacks(self):
        told = queue.Queue()
        with Agent("svc", on_connected=lambda: told.put("connected"),
                   on_disconnected=lambda: told.put("disconnected"), on_changes=told.put,
                   on_status=told.put):
            manager = self.connect()
            manager.report(4, b"2#a#12#34#0#0#b#13#7#4#1#")
            manager.report(10, names((b"a", 0), (b"bb", 2)))
            manager.socket.close()
            self.assertEqual([told.get(timeout=PATIENCE) for _ in range(4)], [
                "connected", [Change("a", 12, 34, Event.STARTED, False),
                              Change("b", 13, 7, Event.FAILED, True)],
                {"a": Status.THERE, "bb": Status.STOPPED}, "disconnected"])

    def test_answers_are_waited_for(self):
        with Agent("svc") as agent:
            manager = self.connect()

            def answer():
                manager.receive()
                manager.report(10, names((b"a", 0), (b"b", 1)))
                kind, body, sequence = manager.receive()
                loads.append((kind, body))
                manager.send(RESPONSE, b"15795205", sequence)

            loads = []
            answers = threading.Thread(target=answer)
            answers.start()
            agent.wait_connected(PATIENCE)
            self.assertEqual(agent.query(["b", "a"], PATIENCE), {"b": Status.GONE, "a": Status.THERE})
            with self.assertRaises(AgentError) as refused:
                agent.load({"board": "rev2"}, PATIENCE)
            self.assertEqual(refused.exception.errno, errno.EREMOTEIO)
            answers.join()
            self.assertEqual(loads[0][0], 6)
            self.assertIn(b"board#rev2", loads[0][1])

    def test_beats(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as heart, Agent("svc") as agent:
            self.assertRefused(errno.ECONNREFUSED, agent.beat)
            heart.bind("/run/heartbeat.sock")
            self.addCleanup(os.unlink, "/run/heartbeat.sock")
            heart.settimeout(PATIENCE)
            agent.beat()
            self.assertEqual(heart.recv(100), b"svc")
            agent.start_heartbeat(0.01)
            self.assertEqual([heart.recv(100) for _ in range(3)], [b"svc"] * 3)
            agent.stop_heartbeat()

    def assertRefused(self, number, call, *arguments):
        with self.assertRaises(AgentError) as refused:
            call(*arguments)
        self.assertEqual(refused.exception.errno, number, refused.exception)
        self.assertTrue(refused.exception.strerror)

    def test_refusals(self):
        os.environ["PROC_NAME"] = "PROCMGR"
        self.assertRefused(errno.EINVAL, Agent)
        self.assertRefused(errno.EINVAL, Agent, "a/b")
        self.assertRefused(errno.EINVAL, Agent, "svc\0x")
        os.environ["PROC_NAME"] = "svc"
        with Agent() as agent:
            self.assertRefused(errno.EADDRINUSE, Agent, "svc")
            self.assertRefused(errno.ENOTCONN, agent.report, State.READY)
            self.assertRefused(errno.ENOTCONN, agent.wait_connected, 0.01)
            self.assertRefused(errno.EINVAL, agent.terminate, [])
            self.assertRefused(errno.EINVAL, agent.start, "a#b")
        self.assertRefused(errno.ESHUTDOWN, agent.beat)
        agent.close()
        self.assertEqual((agent.name, agent.connected), ("", False))

    def test_ends_in_its_own_callback_and_with_its_last_reference(self):
        ended = threading.Event()

        def close(_):
            agents.pop().close()
            ended.set()

        agents = [Agent("svc", on_changes=close)]
        manager = self.connect()
        manager.report(4, b"1#a#12#34#0#0#")
        self.assertTrue(ended.wait(PATIENCE))
        for _ in range(2):  # The name is free again.
            agent = Agent("svc", on_connected=lambda: None)
            del agent
            gc.collect()

    def test_version(self):
        self.assertRegex(process_manager.version(), r"^\d+\.\d+\.\d+$")


if __name__ == "__main__":
    unittest.main()
