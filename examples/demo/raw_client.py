#!/usr/bin/python3
"""A client written without the library: it makes an actor of the demo's server, calls it, receives its
callback and destroys it, with nothing but D-Bus messages.

usage: raw_client.py BUS_NAME DIRECTORY
"""

import os
import sys
import time

import dbus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

PATH = "/org/trelin/nelo_rpc"
INTERFACE = "org.trelin.nelo_rpc.Event"
MEMBER = "Call"

METHOD_NAME, ACTOR_ID, TYPE_NAME = -1, -2, -4
INT, STRING, C_STRING, BINARY = 0, 1, 2, 3  # the tags of the wire format
DOUBLE, BOOL = 3, 4  # kinds of a binary value
LIMIT_SECONDS = 10


def encode(entries):
    """The signature and the arguments of a body: for each entry its index, its tag and its value."""
    signature, arguments = "", []
    for index in sorted(entries):
        value = entries[index]
        tag = INT if isinstance(value, int) else STRING
        signature += "iii" if tag == INT else "iis"
        arguments += [index, tag, value]
    return signature, arguments


def decode(arguments):
    entries, at = {}, 0
    while at < len(arguments):
        index, tag = int(arguments[at]), int(arguments[at + 1])
        if tag == BINARY:
            entries[index] = (bytes(arguments[at + 2]), int(arguments[at + 3]))
            at += 4
        else:
            entries[index] = int(arguments[at + 2]) if tag == INT else str(arguments[at + 2])
            at += 3
    return entries


class Client:
    def __init__(self, server):
        self.server = server
        self.callbacks = []
        self.loop = GLib.MainLoop()
        self.bus = dbus.SystemBus(mainloop=DBusGMainLoop())
        self.bus.add_message_filter(self.on_message)

    def on_message(self, _bus, message):
        if not isinstance(message, dbus.lowlevel.SignalMessage) or message.get_path() != PATH:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        self.callbacks.append(decode(message.get_args_list(byte_arrays=True)))
        self.loop.quit()
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def call(self, type_name, actor, function, *arguments):
        entries = {TYPE_NAME: type_name, ACTOR_ID: actor, METHOD_NAME: function, **dict(enumerate(arguments))}
        signature, values = encode(entries)
        message = dbus.lowlevel.MethodCallMessage(self.server, PATH, INTERFACE, MEMBER)
        message.append(*values, signature=signature)
        reply = self.bus.send_message_with_reply_and_block(message, LIMIT_SECONDS)
        return decode(reply.get_args_list(byte_arrays=True))

    def wait_for_callback(self, actor, name):
        def seen():
            return [c for c in self.callbacks if c[ACTOR_ID] == actor and c[METHOD_NAME] == name]

        end = time.monotonic() + LIMIT_SECONDS
        while not seen() and time.monotonic() < end:
            timer = GLib.timeout_add_seconds(LIMIT_SECONDS, self.loop.quit)
            self.loop.run()
            GLib.source_remove(timer)
        expect(seen(), f"{name} of actor {actor} within {LIMIT_SECONDS} seconds")
        return seen()[0]


def say(text):
    print(f"[python] {text}", flush=True)


def expect(seen, what):
    if not seen:
        print(f"  MISSING in step raw-client: {what}", flush=True)
        sys.exit(1)


def main():
    server, directory = sys.argv[1:]
    client = Client(server)

    # ctor of actor 0 makes an actor and answers its id.
    reply = client.call("CClientConnection", 0, "ctor", "DirectoryWatcher")
    actor = reply.get(0)
    expect(isinstance(actor, int) and actor > 0, f"an actor id in {reply}")
    say(f"ctor answers actor {actor}")

    reply = client.call("DirectoryWatcher", actor, "Watch", directory)
    expect(reply == {0: (b"\x01", BOOL)}, f"true from Watch in {reply}")
    say("Watch answers true")

    with open(os.path.join(directory, "from-python.txt"), "w", encoding="ascii") as file:
        file.write("no library")
    callback = client.wait_for_callback(actor, "OnCreated")
    expect(callback.get(0) == "from-python.txt", f"the name in {callback}")
    say(f"callback OnCreated with {callback[0]}")
    callback = client.wait_for_callback(actor, "OnChanged")
    expect(callback.get(1, (b"", 0))[1] == DOUBLE, f"a size in {callback}")

    reply = client.call("CClientConnection", 0, "dtor", actor)
    expect(reply == {0: (b"\x01", BOOL)}, f"true from dtor in {reply}")
    print("  ok: raw-client: an actor made, called, heard and destroyed by plain D-Bus messages", flush=True)


main()
