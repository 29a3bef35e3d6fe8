#!/usr/bin/python3
"""Every kind of value comes out of a message as it went in, and with its type."""

import dbus.lowlevel

from nelo_client import (INTERFACE, MEMBER, PATH, Binary, CString, Enum, Float32, Unsigned, decode, encode)

VALUES = [7, -2147483648, "text", "", "grüße", CString("c"), b"\x00\xff", b"", True, False, 21.5, Float32(0.25),
          Unsigned(4294967295), Enum(-3), Binary(b"own", 100)]


def main():
    message = dbus.lowlevel.MethodCallMessage("org.example.nobody", PATH, INTERFACE, MEMBER)
    signature, arguments = encode(dict(enumerate(VALUES)))
    message.append(*arguments, signature=signature)
    entries = decode(message)
    for index, value in enumerate(VALUES):
        assert entries[index] == value and type(entries[index]) is type(value), (entries[index], value)

    # The worked example of docs/wire-protocol.md.
    signature, _ = encode({-4: "Thermostat", -2: 7, -1: "SetTarget", 0: 21.5})
    assert signature == "iisiiiiisiiayi", signature
    print(f"{len(VALUES)} values")


main()
