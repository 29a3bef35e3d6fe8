#!/usr/bin/python3
"""Messages of dbus-send are understood by a server, and dbus-send understands its answers."""

import signal
import tempfile
import unittest

import wire

SERVER = "org.trelin.nelo_rpc.test.Echo"


class WithABus(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)

    def send(self, *arguments, path=wire.PATH, member=wire.MEMBER, kind="method_call"):
        options = ["--print-reply", f"--reply-timeout={wire.LIMIT * 1000}"] if kind == "method_call" else []
        return self.bus.run("dbus-send", "--system", f"--dest={SERVER}", f"--type={kind}", *options,
                            path, f"{wire.INTERFACE}.{member}", *arguments)


class DbusSend(WithABus):
    def setUp(self):
        super().setUp()
        self.server = wire.Program(self.bus, "EchoServerProgram", SERVER)
        self.addCleanup(lambda: self.assertEqual(0, self.server.stop()))

    def answer(self, *arguments):
        """The arguments of the answer, as dbus-send prints them."""
        done = self.send(*arguments)
        self.assertEqual(0, done.returncode, done.stderr)
        header, *lines = done.stdout.splitlines()
        self.assertTrue(header.startswith("method return "), header)
        return [line.strip() for line in lines]

    def test_an_int_goes_there_and_back(self):
        self.assertEqual(["int32 0", "int32 0", "int32 -7"], self.answer("int32:0", "int32:0", "int32:-7"))
        self.assertEqual("call 0 {0 = (CTypedValue<int> = -7) | }", self.server.next_line())

    def test_a_string_goes_there_and_back(self):
        self.assertEqual(["int32 0", "int32 1", 'string "Gr\u00fc\u00df"'],
                         self.answer("int32:0", "int32:1", "string:Gr\u00fc\u00df"))
        self.assertEqual(f"call 0 {{0 = (CTypedValue<{wire.STRING}> = Gr\u00fc\u00df) | }}", self.server.next_line())

    def test_a_c_string_goes_there_and_back(self):
        self.assertEqual(["int32 0", "int32 2", 'string "c text"'],
                         self.answer("int32:0", "int32:2", "string:c text"))
        self.assertEqual(f"call 0 {{0 = (CTypedValue<{wire.C_STRING}> = c text) | }}", self.server.next_line())

    def test_bytes_go_there_and_back(self):
        self.assertEqual(["int32 0", "int32 3", "array of bytes [", "00 01 ff", "]", "int32 9"],
                         self.answer("int32:0", "int32:3", "array:byte:0,1,255", "int32:9"))
        self.assertEqual("call 0 {0 = (CBinaryValue[size=3]) | }", self.server.next_line())

    def test_several_entries_come_back_in_ascending_order_without_the_reserved_ones(self):
        self.assertEqual(
            ["int32 1", "int32 1", 'string "x"', "int32 4", "int32 0", "int32 44"],
            self.answer("int32:4", "int32:0", "int32:44",
                        "int32:-1", "int32:1", "string:Echo",
                        "int32:1", "int32:1", "string:x"))
        self.assertEqual(f"call 0 {{METHOD_NAME = (CTypedValue<{wire.STRING}> = Echo) | "
                         f"1 = (CTypedValue<{wire.STRING}> = x) | 4 = (CTypedValue<int> = 44) | }}",
                         self.server.next_line())

    def test_an_empty_call_has_an_empty_answer(self):
        self.assertEqual([], self.answer())
        self.assertEqual("call 0 {}", self.server.next_line())

    def test_each_run_is_a_peer_of_its_own(self):
        for expected in range(3):
            self.answer()
            self.assertEqual(f"call {expected} {{}}", self.server.next_line())

    def test_a_signal_arrives_as_a_callback(self):
        self.assertEqual(0, self.send("int32:0", "int32:0", "int32:7", kind="signal").returncode)
        self.assertEqual("callback {0 = (CTypedValue<int> = 7) | }", self.server.next_line())

    def test_the_path_alone_decides_and_not_the_member(self):
        self.assertEqual(0, self.send(member="Another").returncode)
        self.assertEqual("call 0 {}", self.server.next_line())

    def test_a_call_of_another_path_is_refused_and_the_server_goes_on(self):
        done = self.send("int32:0", path="/org/example/elsewhere")
        self.assertNotEqual(0, done.returncode)
        self.assertIn("org.freedesktop.DBus.Error.UnknownMethod", done.stderr)
        self.assertEqual([], self.answer())
        self.assertEqual("call 0 {}", self.server.next_line())


class IllFormedBody(WithABus):
    """Peers are trusted: what breaks the format ends the server, and its last word says why."""

    def last_words_after(self, *arguments):
        with tempfile.TemporaryFile("w+", encoding="utf-8") as errors:
            server = wire.Program(self.bus, "EchoServerProgram", SERVER, errors=errors)
            self.addCleanup(server.stop)
            self.assertNotEqual(0, self.send(*arguments).returncode)
            self.assertEqual(-signal.SIGABRT, server.wait())
            errors.seek(0)
            return errors.read()

    def test_an_unknown_tag_ends_the_server(self):
        self.assertIn("] Unknown type inside DBusMessage: 4 for map index 7\n",
                      self.last_words_after("int32:7", "int32:4", "boolean:true"))

    def test_another_type_than_a_string_ends_the_server(self):
        self.assertIn("] String should be in DBusMessage\n",
                      self.last_words_after("int32:0", "int32:1", "uint32:5"))


class OnAServerThatTrustsNobody(WithABus):
    def setUp(self):
        super().setUp()
        self.server = wire.Program(self.bus, "EchoServerProgram", SERVER, "untrusted")
        self.addCleanup(lambda: self.assertEqual(0, self.server.stop()))

    def ask(self, member, path=wire.PATH):
        return self.bus.run("dbus-send", "--system", f"--dest={SERVER}", "--print-reply",
                            f"--reply-timeout={wire.LIMIT * 1000}", path, f"org.freedesktop.DBus.{member}")

    def test_an_unknown_tag_is_refused_and_the_server_goes_on(self):
        for _ in range(2):
            done = self.send("int32:3", "int32:4")
            self.assertNotEqual(0, done.returncode)
            self.assertIn("org.freedesktop.DBus.Error.InvalidArgs", done.stderr)
            self.assertIn("Unknown type inside DBusMessage: 4 for map index 3", done.stderr)

    def test_another_member_is_refused(self):
        self.assertIn("org.freedesktop.DBus.Error.UnknownMethod", self.send(member="Other").stderr)

    def test_the_object_is_described_and_so_is_the_way_to_it(self):
        self.assertIn(f'<interface name="{wire.INTERFACE}">', self.ask("Introspectable.Introspect").stdout)
        self.assertIn('<node name="org"/>', self.ask("Introspectable.Introspect", path="/").stdout)

    def test_it_answers_a_ping(self):
        self.assertEqual(0, self.ask("Peer.Ping").returncode)


if __name__ == "__main__":
    unittest.main(verbosity=2)
