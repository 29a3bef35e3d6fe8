#!/usr/bin/python3
"""Messages of busctl, which has a bus library of its own, are understood by a server, and the other way round."""

import shutil
import unittest

import wire

SERVER = "org.trelin.nelo_rpc.test.Echo"


@unittest.skipIf(shutil.which("busctl") is None, "busctl is not installed: it comes with systemd")
class Busctl(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)
        self.server = wire.Program(self.bus, "EchoServerProgram", SERVER)
        self.addCleanup(lambda: self.assertEqual(0, self.server.stop()))

    def echo(self, *arguments):
        """Calls with a signature and its arguments and returns the answer in the same form."""
        done = self.bus.run("busctl", "--system", f"--timeout={wire.LIMIT}", "call",
                            SERVER, wire.PATH, wire.INTERFACE, wire.MEMBER, *arguments)
        self.assertEqual(0, done.returncode, done.stderr)
        return done.stdout.strip()

    def test_an_int_goes_there_and_back(self):
        self.assertEqual("iii 0 0 -7", self.echo("iii", "0", "0", "--", "-7"))
        self.assertEqual("call 0 {0 = (CTypedValue<int> = -7) | }", self.server.next_line())

    def test_strings_of_both_classes_go_there_and_back(self):
        self.assertEqual('iisiis 0 1 "a b" 1 2 "c"', self.echo("iisiis", "0", "1", "a b", "1", "2", "c"))
        self.assertEqual(f"call 0 {{0 = (CTypedValue<{wire.STRING}> = a b) | "
                         f"1 = (CTypedValue<{wire.C_STRING}> = c) | }}", self.server.next_line())

    def test_bytes_go_there_and_back(self):
        self.assertEqual("iiayi 0 3 3 0 1 255 9", self.echo("iiayi", "0", "3", "3", "0", "1", "255", "9"))
        self.assertEqual("call 0 {0 = (CBinaryValue[size=3]) | }", self.server.next_line())

    def test_an_array_without_bytes_goes_there_and_back(self):
        self.assertEqual("iiayi 0 3 0 4", self.echo("iiayi", "0", "3", "0", "4"))
        self.assertEqual("call 0 {0 = (CBinaryValue[bool=false]) | }", self.server.next_line())

    def test_an_empty_call_has_an_empty_answer(self):
        self.assertEqual("", self.echo())
        self.assertEqual("call 0 {}", self.server.next_line())

    def test_a_signal_arrives_as_a_callback(self):
        done = self.bus.run("busctl", "--system", f"--destination={SERVER}", "emit",
                            wire.PATH, wire.INTERFACE, wire.MEMBER, "iii", "0", "0", "7")
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual("callback {0 = (CTypedValue<int> = 7) | }", self.server.next_line())


@unittest.skipIf(shutil.which("busctl") is None, "busctl is not installed: it comes with systemd")
class BusctlOnAServerThatTrustsNobody(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)
        self.server = wire.Program(self.bus, "EchoServerProgram", SERVER, "untrusted")
        self.addCleanup(lambda: self.assertEqual(0, self.server.stop()))

    def busctl(self, *arguments):
        return self.bus.run("busctl", "--system", f"--timeout={wire.LIMIT}", *arguments)

    def test_the_tree_has_the_way_to_the_object(self):
        done = self.busctl("tree", "--list", SERVER)
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual(["/", "/org", "/org/trelin", wire.PATH], done.stdout.split())

    def test_the_object_is_described(self):
        done = self.busctl("introspect", SERVER, wire.PATH)
        self.assertEqual(0, done.returncode, done.stderr)
        words = [line.split()[:2] for line in done.stdout.splitlines()]
        for expected in ([wire.INTERFACE, "interface"], ["." + wire.MEMBER, "method"], ["." + wire.MEMBER, "signal"],
                         ["org.freedesktop.DBus.Introspectable", "interface"],
                         ["org.freedesktop.DBus.Peer", "interface"], [".Ping", "method"]):
            self.assertIn(expected, words)

    def test_a_call_of_an_actor_is_taken(self):
        done = self.busctl("call", SERVER, wire.PATH, wire.INTERFACE, wire.MEMBER, "iisiiiiisiii",
                           "--", "-4", "1", "Thing", "-2", "0", "1", "-1", "1", "Do", "0", "0", "7")
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual("iii 0 0 7", done.stdout.strip())

    def test_another_call_is_refused_with_its_cause(self):
        done = self.busctl("call", SERVER, wire.PATH, wire.INTERFACE, wire.MEMBER, "s", "text")
        self.assertNotEqual(0, done.returncode)
        self.assertIn("Integer should be in DBusMessage", done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
