#!/usr/bin/python3
"""Bytes written to and read from the bus's socket by hand, without any bus library on this side.

The messages are those of golden/, so that a server and a client of the library are held against the same bytes that
their builders and readers are held against."""

import itertools
import os
import re
import socket
import struct
import unittest

import wire

SERVER = "org.example.climate"  # the destination of golden/call.hex
CLIENT = "org.example.panel"

METHOD_CALL, METHOD_RETURN, ERROR, SIGNAL = 1, 2, 3, 4
FIELD_PATH, FIELD_INTERFACE, FIELD_MEMBER, FIELD_ERROR_NAME = 1, 2, 3, 4
FIELD_REPLY_SERIAL, FIELD_DESTINATION, FIELD_SENDER, FIELD_SIGNATURE = 5, 6, 7, 8
FIELD_TYPES = {FIELD_PATH: "o", FIELD_REPLY_SERIAL: "u", FIELD_SIGNATURE: "g"}


def golden(name):
    with open(os.path.join(wire.HERE, "golden", name), encoding="utf-8") as file:
        text = re.sub(r"#.*", "", file.read())
    return b"".join(item[1:-1].encode() if item[0] == '"' else bytes.fromhex(item)
                    for item in re.findall(r'"[^"]*"|[0-9a-f]{2}', text))


class Message:
    """A message taken apart, or one to be put together."""

    def __init__(self, kind, fields, body=b"", serial=1, order="<"):
        self.kind = kind
        self.fields = fields
        self.body = body
        self.serial = serial
        self.order = order

    @staticmethod
    def parse(data):
        """Only little endian, which is what the library writes on this machine."""
        order, kind, _, version, body_length, serial, fields_length = struct.unpack_from("<cBBBIII", data)
        if order != b"l" or version != 1:
            raise ValueError("not a little-endian message of version 1")
        fields = {}
        position, end = 16, 16 + fields_length
        while position < end:
            position += -position % 8
            code, signature = data[position], chr(data[position + 2])
            position += 4
            if signature == "g":
                length, size = data[position], 1
            else:
                (length,), size = struct.unpack_from("<I", data, position), 4
            position += size
            if signature == "u":
                fields[code] = length
            else:
                fields[code] = data[position:position + length].decode()
                position += length + 1
        body_begin = end + -end % 8
        if len(data) != body_begin + body_length:
            raise ValueError("not as long as the header says")
        return Message(kind, fields, data[body_begin:], serial)

    def to_bytes(self):
        fields = b""
        for code, value in self.fields.items():
            kind = FIELD_TYPES.get(code, "s")
            fields += bytes(-len(fields) % 8) + bytes([code, 1]) + kind.encode() + b"\0"
            if kind == "u":
                fields += struct.pack(self.order + "I", value)
            else:
                text = value.encode()
                fields += struct.pack("B" if kind == "g" else self.order + "I", len(text)) + text + b"\0"
        header = struct.pack(self.order + "cBBBIII", b"l" if self.order == "<" else b"B", self.kind, 0, 1,
                             len(self.body), self.serial, len(fields)) + fields
        return header + bytes(-len(header) % 8) + self.body


class Connection:
    """A connection to the bus that consists of a socket and nothing else."""

    def __init__(self, bus):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(wire.LIMIT)
        # The serial of golden/call.hex is 1.
        self._serials = itertools.count(100)
        kind, path = re.match(r"unix:(path|abstract)=([^,]*)", bus.address).groups()
        self._socket.connect(path if kind == "path" else "\0" + path)
        self._socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        answer = b""
        while not answer.endswith(b"\r\n"):
            answer += self._socket.recv(1)
        if not answer.startswith(b"OK "):
            raise RuntimeError(f"the bus refuses: {answer}")
        self._socket.sendall(b"BEGIN\r\n")
        self.name = self.ask_bus("Hello")

    def ask_bus(self, member, signature="", body=b""):
        """Calls a function of the bus itself; returns its text result, or None for another one."""
        fields = {FIELD_PATH: "/org/freedesktop/DBus", FIELD_INTERFACE: "org.freedesktop.DBus", FIELD_MEMBER: member,
                  FIELD_DESTINATION: "org.freedesktop.DBus"}
        if signature:
            fields[FIELD_SIGNATURE] = signature
        serial = next(self._serials)
        self.send(Message(METHOD_CALL, fields, body, serial).to_bytes())
        reply = self.receive(METHOD_RETURN)
        if reply.fields[FIELD_REPLY_SERIAL] != serial:
            raise RuntimeError("an answer to something else")
        return reply.body[4:-1].decode() if reply.fields.get(FIELD_SIGNATURE) == "s" else None

    def request_name(self, name):
        text = name.encode()
        body = struct.pack("<I", len(text)) + text + b"\0"
        self.ask_bus("RequestName", "su", body + bytes(-len(body) % 4) + struct.pack("<I", 0))

    def send(self, data):
        self._socket.sendall(data)

    def _read(self, size):
        data = b""
        while len(data) < size:
            part = self._socket.recv(size - len(data))
            if not part:
                raise RuntimeError("the bus closed the connection")
            data += part
        return data

    def receive(self, kind):
        """The next message of a type; others, the bus's own signals among them, are dropped."""
        while True:
            start = self._read(16)
            body_length, _, fields_length = struct.unpack_from("<III", start, 4)
            message = Message.parse(start + self._read(fields_length + -fields_length % 8 + body_length))
            own_signal = message.kind == SIGNAL and message.fields[FIELD_SENDER] == "org.freedesktop.DBus"
            if message.kind == kind and not own_signal:
                return message

    def close(self):
        self._socket.close()


class OnTheSocket(unittest.TestCase):
    def setUp(self):
        self.bus = wire.PrivateBus()
        self.addCleanup(self.bus.stop)
        self.connection = Connection(self.bus)
        self.addCleanup(self.connection.close)

    def start(self, name, *arguments):
        program = wire.Program(self.bus, name, *arguments)
        self.addCleanup(lambda: self.assertEqual(0, program.stop()))
        return program


class RawClient(OnTheSocket):
    def setUp(self):
        super().setUp()
        self.server = self.start("EchoServerProgram", SERVER)

    def test_the_golden_call_is_answered_with_its_own_argument(self):
        call = golden("call.hex")
        self.connection.send(call)
        reply = self.connection.receive(METHOD_RETURN)

        self.assertEqual(
            f"call 0 {{TYPE_NAME = (CTypedValue<{wire.STRING}> = Thermostat) | ACTOR_ID = (CTypedValue<int> = 1) | "
            f"METHOD_NAME = (CTypedValue<{wire.STRING}> = SetTarget) | 0 = (CBinaryValue[double=21.500000]) | }}",
            self.server.next_line())
        self.assertEqual(1, reply.fields[FIELD_REPLY_SERIAL])
        self.assertEqual(self.connection.name, reply.fields[FIELD_DESTINATION])
        self.assertEqual("iiayi", reply.fields[FIELD_SIGNATURE])
        self.assertNotIn(FIELD_PATH, reply.fields)
        last_entry = 24  # index, tag, length, 8 bytes, kind
        self.assertEqual(call[-last_entry:].hex(), reply.body.hex())

    def test_the_golden_empty_call_is_answered_with_an_empty_body(self):
        self.connection.send(golden("empty_call.hex"))
        reply = self.connection.receive(METHOD_RETURN)

        self.assertEqual("call 0 {}", self.server.next_line())
        self.assertEqual(b"", reply.body)
        self.assertNotIn(FIELD_SIGNATURE, reply.fields)

    def test_golden_bodies_come_back_byte_by_byte(self):
        for name in ("int.hex", "string.hex", "c_string.hex", "empty_string.hex", "binary.hex", "empty_binary.hex",
                     "three_entries.hex", "typed_arguments.hex"):
            with self.subTest(name):
                message = Message.parse(golden(name))
                message.kind = METHOD_CALL
                message.fields = {FIELD_PATH: wire.PATH, FIELD_INTERFACE: wire.INTERFACE, FIELD_MEMBER: wire.MEMBER,
                                  FIELD_DESTINATION: SERVER, FIELD_SIGNATURE: message.fields[FIELD_SIGNATURE]}
                self.connection.send(message.to_bytes())
                reply = self.connection.receive(METHOD_RETURN)

                self.assertEqual(message.fields[FIELD_SIGNATURE], reply.fields[FIELD_SIGNATURE])
                self.assertEqual(message.body.hex(), reply.body.hex())

    def test_a_call_of_a_big_endian_machine_is_understood(self):
        text = "Gr\u00fc\u00df".encode()
        body = struct.pack(">iii", 0, 0, -7) + struct.pack(">iiI", 1, 1, len(text)) + text + b"\0"
        body += bytes(-len(body) % 4) + struct.pack(">iiI", 2, 3, 3) + b"\x00\x01\xff" + b"\0" + struct.pack(">i", 9)
        fields = {FIELD_PATH: wire.PATH, FIELD_INTERFACE: wire.INTERFACE, FIELD_MEMBER: wire.MEMBER,
                  FIELD_DESTINATION: SERVER, FIELD_SIGNATURE: "iiiiisiiayi"}
        self.connection.send(Message(METHOD_CALL, fields, body, order=">").to_bytes())
        self.connection.receive(METHOD_RETURN)

        self.assertEqual(f"call 0 {{0 = (CTypedValue<int> = -7) | 1 = (CTypedValue<{wire.STRING}> = Gr\u00fc\u00df) | "
                         "2 = (CBinaryValue[size=3]) | }", self.server.next_line())

    def test_a_callback_is_a_signal_to_the_one_peer(self):
        self.connection.send(golden("empty_call.hex"))
        self.assertEqual("call 0 {}", self.server.next_line())
        self.server.say("callback 0")
        signal = self.connection.receive(SIGNAL)

        self.assertEqual(wire.PATH, signal.fields[FIELD_PATH])
        self.assertEqual(wire.INTERFACE, signal.fields[FIELD_INTERFACE])
        self.assertEqual(wire.MEMBER, signal.fields[FIELD_MEMBER])
        self.assertEqual(self.connection.name, signal.fields[FIELD_DESTINATION])
        self.assertEqual(wire.EVERY_CLASS_SIGNATURE, signal.fields[FIELD_SIGNATURE])
        self.assertEqual(golden("every_class_body.hex").hex(), signal.body.hex())


class RawServer(OnTheSocket):
    def setUp(self):
        super().setUp()
        self.connection.request_name(SERVER)
        self.client = self.start("CallerProgram", CLIENT, SERVER)

    def answer(self, call, golden_name):
        """Sends the body of a golden result as the answer to a call."""
        message = Message.parse(golden(golden_name))
        message.fields[FIELD_REPLY_SERIAL] = call.serial
        message.fields[FIELD_DESTINATION] = call.fields[FIELD_SENDER]
        self.connection.send(message.to_bytes())

    def test_a_call_is_written_as_the_format_says(self):
        self.client.say("call")
        call = self.connection.receive(METHOD_CALL)

        self.assertEqual({FIELD_PATH: wire.PATH, FIELD_INTERFACE: wire.INTERFACE, FIELD_MEMBER: wire.MEMBER,
                          FIELD_DESTINATION: SERVER, FIELD_SENDER: call.fields[FIELD_SENDER],
                          FIELD_SIGNATURE: wire.EVERY_CLASS_SIGNATURE}, call.fields)
        self.assertEqual(golden("every_class_body.hex").hex(), call.body.hex())
        self.answer(call, "empty_result.hex")
        self.assertEqual("reply {}", self.client.next_line())

    def test_golden_results_are_read_as_they_were_meant(self):
        for name, expected in (
                ("result.hex", "{0 = (CBinaryValue[bool=true]) | }"),
                ("int.hex", "{5 = (CTypedValue<int> = -2) | }"),
                ("string.hex", f"{{0 = (CTypedValue<{wire.STRING}> = Gr\u00fc\u00df) | }}"),
                ("c_string.hex", f"{{0 = (CTypedValue<{wire.C_STRING}> = Gr\u00fc\u00df) | }}"),
                ("unordered.hex", "{METHOD_NAME = (CTypedValue<int> = 1) | 5 = (CTypedValue<int> = 51) | }")):
            with self.subTest(name):
                self.client.say("call empty")
                self.answer(self.connection.receive(METHOD_CALL), name)
                self.assertEqual(f"reply {expected}", self.client.next_line())

    def test_the_golden_callback_is_read_as_it_was_meant(self):
        self.client.say("call empty")
        call = self.connection.receive(METHOD_CALL)
        self.answer(call, "empty_result.hex")
        self.assertEqual("reply {}", self.client.next_line())
        callback = Message.parse(golden("callback.hex"))
        callback.fields[FIELD_DESTINATION] = call.fields[FIELD_SENDER]
        self.connection.send(callback.to_bytes())

        self.assertEqual(
            f"callback {{ACTOR_ID = (CTypedValue<int> = 1) | METHOD_NAME = (CTypedValue<{wire.STRING}> = OnChanged) | "
            f"0 = (CBinaryValue[double=21.500000]) | 1 = (CTypedValue<{wire.STRING}> = too warm) | }}",
            self.client.next_line())


if __name__ == "__main__":
    unittest.main(verbosity=2)
