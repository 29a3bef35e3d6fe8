#!/usr/bin/python3
"""A peer written with python3-dbus and a server or client of the library understand each other."""

import time
import unittest

import dbus
import dbus.bus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

import wire

SERVER = "org.trelin.nelo_rpc.test.Echo"
CLIENT = "org.trelin.nelo_rpc.test.Caller"


def plain(arguments):
    """The arguments of a message as plain Python values, for comparison."""
    return [bytes(a) if isinstance(a, (dbus.Array, dbus.ByteArray)) else str(a) if isinstance(a, str) else int(a)
            for a in arguments]


class Peer:
    """A connection whose messages are kept, and handed to a function if there is one."""

    def __init__(self, bus, on_message=None):
        self.connection = dbus.bus.BusConnection(bus.address, mainloop=DBusGMainLoop())
        self.messages = []
        self._on_message = on_message
        self.connection.add_message_filter(self._receive)

    def _receive(self, connection, message):
        if message.get_path() != wire.PATH:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        self.messages.append(message)
        if self._on_message is not None:
            self._on_message(connection, message)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def call(self, signature, *arguments):
        """Calls the echo server and returns the answer, which is the reply message itself."""
        message = dbus.lowlevel.MethodCallMessage(SERVER, wire.PATH, wire.INTERFACE, wire.MEMBER)
        if signature:
            message.append(signature=signature, *arguments)
        return self.connection.send_message_with_reply_and_block(message, wire.LIMIT)

    def close(self):
        self.connection.close()


def wait_until(condition):
    """Lets the peers of this process handle their messages until the condition holds."""
    context = GLib.MainContext.default()
    ticker = GLib.timeout_add(5, lambda: True)  # so that a blocking pass ends now and then
    try:
        end = time.monotonic() + wire.LIMIT
        while not condition():
            if time.monotonic() > end:
                raise TimeoutError("nothing happened")
            context.iteration(True)
    finally:
        GLib.source_remove(ticker)


class PythonAsClient(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)
        self.server = wire.Program(self.bus, "EchoServerProgram", SERVER)
        self.addCleanup(lambda: self.assertEqual(0, self.server.stop()))
        self.peer = Peer(self.bus)
        self.addCleanup(self.peer.close)

    def test_every_class_of_value_goes_there_and_back(self):
        reply = self.peer.call(wire.EVERY_CLASS_SIGNATURE, *wire.EVERY_CLASS_ARGUMENTS)

        self.assertEqual(f"call 0 {wire.EVERY_CLASS_TEXT}", self.server.next_line())
        reserved = len("iis" "iii" "iis")
        self.assertEqual(wire.EVERY_CLASS_SIGNATURE[reserved:], reply.get_signature())
        self.assertEqual(wire.EVERY_CLASS_ARGUMENTS[reserved:], plain(reply.get_args_list(byte_arrays=True)))

    def test_an_empty_call_has_an_empty_answer(self):
        reply = self.peer.call("")

        self.assertEqual("call 0 {}", self.server.next_line())
        self.assertEqual("", reply.get_signature())

    def test_a_megabyte_of_bytes_comes_back_unchanged(self):
        data = bytes(i * 31 % 256 for i in range(1 << 20))
        reply = self.peer.call("iiayi", 0, 3, data, 0)

        self.assertTrue(data == bytes(reply.get_args_list(byte_arrays=True)[2]))

    def test_a_peer_keeps_its_connection_id(self):
        other = Peer(self.bus)
        self.addCleanup(other.close)
        for peer, expected in ((self.peer, 0), (other, 1), (self.peer, 0), (other, 1)):
            peer.call("")
            self.assertEqual(f"call {expected} {{}}", self.server.next_line())

    def test_a_callback_arrives_as_a_signal_to_this_peer_alone(self):
        other = Peer(self.bus)
        self.addCleanup(other.close)
        self.peer.call("")
        other.call("")
        self.assertEqual(["call 0 {}", "call 1 {}"], [self.server.next_line(), self.server.next_line()])

        self.server.say("callback 0")
        self.assertEqual("sent 1", self.server.next_line())
        wait_until(lambda: self.peer.messages)

        signal = self.peer.messages[0]
        self.assertIsInstance(signal, dbus.lowlevel.SignalMessage)
        self.assertEqual(wire.INTERFACE, signal.get_interface())
        self.assertEqual(wire.MEMBER, signal.get_member())
        self.assertEqual(self.peer.connection.get_unique_name(), signal.get_destination())
        self.assertEqual(wire.EVERY_CLASS_SIGNATURE, signal.get_signature())
        self.assertEqual(wire.EVERY_CLASS_ARGUMENTS, plain(signal.get_args_list(byte_arrays=True)))
        other.call("")  # whatever was sent to it before has arrived with the answer
        wait_until(lambda: not GLib.MainContext.default().pending())
        self.assertEqual([], other.messages)

    def test_a_callback_to_a_peer_that_left_is_not_sent(self):
        other = Peer(self.bus)
        other.call("")
        self.assertEqual("call 0 {}", self.server.next_line())
        name = other.connection.get_unique_name()
        other.close()
        wait_until(lambda: not self.peer.connection.name_has_owner(name))

        self.server.say("callback 0")
        self.assertEqual("sent 0", self.server.next_line())

    def test_a_signal_arrives_as_a_callback(self):
        signal = dbus.lowlevel.SignalMessage(wire.PATH, wire.INTERFACE, wire.MEMBER)
        signal.set_destination(SERVER)
        signal.append(signature=wire.EVERY_CLASS_SIGNATURE, *wire.EVERY_CLASS_ARGUMENTS)
        self.peer.connection.send_message(signal)
        self.peer.connection.flush()

        self.assertEqual(f"callback {wire.EVERY_CLASS_TEXT}", self.server.next_line())


class PythonAsServer(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)
        self.answer = self.echo
        self.peer = Peer(self.bus, lambda connection, message: self.answer(connection, message))
        self.addCleanup(self.peer.close)
        self.peer.connection.request_name(SERVER)
        self.caller = wire.Program(self.bus, "CallerProgram", CLIENT, SERVER)
        self.addCleanup(lambda: self.assertEqual(0, self.caller.stop()))

    @staticmethod
    def echo(connection, message):
        reply = dbus.lowlevel.MethodReturnMessage(message)
        if message.get_signature():
            reply.append(signature=message.get_signature(), *message.get_args_list())
        connection.send_message(reply)

    def line_of_caller(self):
        wait_until(self.caller.has_line)
        return self.caller.next_line()

    def test_a_call_arrives_as_a_method_call(self):
        self.caller.say("call")
        self.assertEqual(f"reply {wire.EVERY_CLASS_TEXT}", self.line_of_caller())

        call = self.peer.messages[0]
        self.assertIsInstance(call, dbus.lowlevel.MethodCallMessage)
        self.assertEqual(wire.INTERFACE, call.get_interface())
        self.assertEqual(wire.MEMBER, call.get_member())
        self.assertEqual(SERVER, call.get_destination())
        self.assertFalse(call.get_no_reply())
        self.assertEqual(wire.EVERY_CLASS_SIGNATURE, call.get_signature())
        self.assertEqual(wire.EVERY_CLASS_ARGUMENTS, plain(call.get_args_list(byte_arrays=True)))

    def test_an_empty_list_arrives_as_an_empty_body(self):
        self.caller.say("call empty")
        self.assertEqual("reply {}", self.line_of_caller())
        self.assertEqual("", self.peer.messages[0].get_signature())

    def test_entries_of_an_answer_may_come_in_any_order(self):
        def answer(connection, message):
            reply = dbus.lowlevel.MethodReturnMessage(message)
            reply.append(signature="iiiiiiiis", *[3, 0, 30, 0, 0, 1, 3, 1, "later"])
            connection.send_message(reply)
        self.answer = answer

        self.caller.say("call")
        self.assertEqual(f"reply {{0 = (CTypedValue<int> = 1) | 3 = (CTypedValue<{wire.STRING}> = later) | }}",
                         self.line_of_caller())

    def test_an_error_is_an_empty_answer_and_the_client_goes_on(self):
        def refuse(connection, message):
            connection.send_message(dbus.lowlevel.ErrorMessage(message, "org.example.Refused", "not today"))
        self.answer = refuse
        self.caller.say("call")
        self.assertEqual("reply {}", self.line_of_caller())

        self.answer = self.echo
        self.caller.say("call")
        self.assertEqual(f"reply {wire.EVERY_CLASS_TEXT}", self.line_of_caller())

    def test_a_signal_arrives_as_a_callback(self):
        self.caller.say("call empty")
        self.assertEqual("reply {}", self.line_of_caller())
        signal = dbus.lowlevel.SignalMessage(wire.PATH, wire.INTERFACE, wire.MEMBER)
        signal.set_destination(self.peer.messages[0].get_sender())
        signal.append(signature=wire.EVERY_CLASS_SIGNATURE, *wire.EVERY_CLASS_ARGUMENTS)
        self.peer.connection.send_message(signal)

        self.assertEqual(f"callback {wire.EVERY_CLASS_TEXT}", self.line_of_caller())


if __name__ == "__main__":
    unittest.main(verbosity=2)
