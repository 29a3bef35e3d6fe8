"""A client of nelo-rpc servers in Python, made of D-Bus messages alone: docs/wire-protocol.md in code.

    client = Client("org.example.climate")
    with Actor(client, "Thermostat") as thermostat:
        thermostat.on("OnChanged", lambda celsius, why: print(celsius, why))
        thermostat.call("SetTarget", 21.5)
        client.wait(seconds=1)

What travels, and as what: int, str, float (a double), bool, bytes; Unsigned, Float32, CString and Enum for the types
that Python does not tell apart. The system bus, or the one that DBUS_SYSTEM_BUS_ADDRESS names.
"""

import struct
from typing import NamedTuple

import dbus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

PATH = "/org/trelin/nelo_rpc"
INTERFACE = "org.trelin.nelo_rpc.Event"
MEMBER = "Call"

# Reserved indices.
METHOD_NAME, ACTOR_ID, TYPE_NAME = -1, -2, -4

# Tags of entries, and kinds of binary values.
INT, STRING, C_STRING, BINARY = range(4)
OPAQUE, UNSIGNED, FLOAT, DOUBLE, BOOL, ENUM = range(6)

# The actor that stands for the connection itself.
CONNECTION, CONNECTION_TYPE = 0, "CClientConnection"


class Unsigned(int):
    """An unsigned of C++."""


class Enum(int):
    """An enumerator of C++, as its number."""


class Float32(float):
    """A float of C++."""


class CString(str):
    """A char const* of C++."""


class Binary(NamedTuple):
    """A binary value of an application's own kind."""

    data: bytes
    kind: int


class NoResult(Exception):
    """A call ended without a result: there is no such function, it was killed, or the bus or the server refused it."""


# Type -> (kind, format). bool and the classes above come before the types that they derive from.
PACKED = [(bool, BOOL, "=?"), (Unsigned, UNSIGNED, "=I"), (Enum, ENUM, "=i"), (Float32, FLOAT, "=f"),
          (float, DOUBLE, "=d")]


def encode_value(value):
    """The tag, the signature of what follows it, and that as arguments."""
    for type_, kind, format_ in PACKED:
        if isinstance(value, type_):
            return BINARY, "ayi", [dbus.ByteArray(struct.pack(format_, value)), kind]
    if isinstance(value, bytes):
        return BINARY, "ayi", [dbus.ByteArray(value), OPAQUE]
    if isinstance(value, Binary):
        return BINARY, "ayi", [dbus.ByteArray(value.data), value.kind]
    if isinstance(value, int):
        return INT, "i", [value]
    if isinstance(value, str):
        return C_STRING if isinstance(value, CString) else STRING, "s", [str(value)]
    raise TypeError(f"{type(value).__name__} cannot travel")


def encode(entries):
    """The signature and the arguments of a body: for each entry its index, its tag and its value."""
    signature, arguments = "", []
    for index in sorted(entries):
        tag, rest, values = encode_value(entries[index])
        signature += "ii" + rest
        arguments += [index, tag, *values]
    return signature, arguments


def decode_binary(data, kind):
    for type_, its_kind, format_ in PACKED:
        if kind == its_kind:
            return type_(struct.unpack_from(format_, data)[0])
    return data if kind == OPAQUE else Binary(data, kind)


def decode(message):
    """The entries of a message's body."""
    arguments = iter(message.get_args_list(byte_arrays=True))
    entries = {}
    for index in arguments:
        tag = int(next(arguments))
        value = next(arguments)
        if tag == INT:
            entries[int(index)] = int(value)
        elif tag == STRING:
            entries[int(index)] = str(value)
        elif tag == C_STRING:
            entries[int(index)] = CString(value)
        elif tag == BINARY:
            entries[int(index)] = decode_binary(bytes(value), int(next(arguments)))
        else:
            raise ValueError(f"tag {tag} of entry {int(index)}")
    return entries


def payload(entries):
    """What stands at 0, 1, ..."""
    return [entries[index] for index in sorted(entries) if index >= 0]


class Client:
    """A connection to one server. Callbacks are delivered inside wait(), on its thread."""

    def __init__(self, server, timeout_seconds=25.0):
        self.server = server
        self.timeout_seconds = timeout_seconds
        self._handlers = {}  # (actor id, callback's name) -> function
        # A connection of its own: to a server, each connection is a client.
        self._bus = dbus.SystemBus(private=True, mainloop=DBusGMainLoop())
        self._bus.add_message_filter(self._on_message)

    def is_connected(self):
        """Whether somebody owns the server's name."""
        return self._bus.name_has_owner(self.server)

    def call(self, actor_id, type_name, function, *arguments):
        """The result list of a call, from 0 on. Raises NoResult if there is none."""
        signature, values = encode(
            {TYPE_NAME: type_name, ACTOR_ID: actor_id, METHOD_NAME: function, **dict(enumerate(arguments))})
        message = dbus.lowlevel.MethodCallMessage(self.server, PATH, INTERFACE, MEMBER)
        message.append(*values, signature=signature)
        try:
            reply = self._bus.send_message_with_reply_and_block(message, self.timeout_seconds)
        except dbus.DBusException as error:
            raise NoResult(f"{error.get_dbus_name()}: {error.get_dbus_message()}") from error
        result = payload(decode(reply))
        if not result:
            raise NoResult(f"an empty list from {function}")
        return result

    def on(self, actor_id, callback, handler):
        """Calls handler(*payload) for each such callback. "OnKill" of actor 0 says that all actors are lost."""
        self._handlers[actor_id, callback] = handler

    def forget(self, actor_id):
        self._handlers = {key: value for key, value in self._handlers.items() if key[0] != actor_id}

    def wait(self, until=lambda: False, seconds=10.0):
        """Delivers callbacks until until() is true; gives whether it is."""
        context, expired = GLib.MainContext.default(), []
        timer = GLib.timeout_add(int(seconds * 1000), lambda: expired.append(True) or True)
        try:
            while not until() and not expired:
                context.iteration(True)
        finally:
            GLib.source_remove(timer)
        return until()

    def close(self):
        self._bus.close()

    def _on_message(self, _bus, message):
        if not isinstance(message, dbus.lowlevel.SignalMessage) or message.get_path() != PATH:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        entries = decode(message)
        handler = self._handlers.get((entries.get(ACTOR_ID), entries.get(METHOD_NAME)))
        if handler:
            handler(*payload(entries))
        return dbus.lowlevel.HANDLER_RESULT_HANDLED


class Actor:
    """An object in the server, for as long as the with statement lasts."""

    def __init__(self, client, type_name):
        self.client, self.type_name = client, type_name
        self.id = client.call(CONNECTION, CONNECTION_TYPE, "ctor", type_name)[0]

    def call(self, function, *arguments):
        """The first value of the result."""
        return self.client.call(self.id, self.type_name, function, *arguments)[0]

    def on(self, callback, handler):
        """Every actor has "OnRecreate": it was made anew, and its state is lost."""
        self.client.on(self.id, callback, handler)

    def __enter__(self):
        return self

    def __exit__(self, *_error):
        self.client.forget(self.id)
        self.client.call(CONNECTION, CONNECTION_TYPE, "dtor", self.id)
