#!/usr/bin/python3
"""Uses the thermostat server, which is written in C++, from Python."""

import sys

from nelo_client import Actor, Client, NoResult


def main():
    client = Client("org.example.climate")
    if not client.is_connected():
        sys.exit("nobody owns org.example.climate on the bus")

    changes = []
    with Actor(client, "Thermostat") as thermostat:
        thermostat.on("OnChanged", lambda celsius, why: changes.append((celsius, why)))

        assert thermostat.call("Sum", 2, 3) == 5
        assert thermostat.call("SetTarget", 40.0) is False
        assert thermostat.call("SetTarget", 21.5) is True
        assert client.wait(lambda: changes), "no callback"
        assert changes == [(21.5, "a client asked for it")], changes
        assert thermostat.call("Describe", 1) == "21.5 degrees, may be set from 5 to 30"

        try:
            thermostat.call("NoSuchFunction")
        except NoResult as reason:
            print(f"no result: {reason}")
        else:
            sys.exit("a function that does not exist gave a result")

    client.close()
    print("the thermostat works from Python")


main()
