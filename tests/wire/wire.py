"""What the scripts of this folder share: a bus of their own, and the library's side of the wire."""

import ctypes
import os
import queue
import signal
import subprocess
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
BUS_CONF = os.environ.get("NELO_RPC_TEST_BUS_CONF", os.path.join(HERE, "..", "..", "src", "testing", "bus.conf"))
PROGRAMS = os.environ.get("NELO_RPC_WIRE_DIR", "")

PATH = "/org/trelin/nelo_rpc"
INTERFACE = "org.trelin.nelo_rpc.Event"
MEMBER = "Call"

LIMIT = 30  # seconds that anything may take; under a sanitizer much takes long

STRING = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
C_STRING = "nelo_rpc::types::CCString"

# The arguments of the programs' list of every class of value, and how it is shown.
EVERY_CLASS_SIGNATURE = "iis" "iii" "iis" "iii" "iis" "iis" "iiayi" "iiayi" "iiayi"
EVERY_CLASS_ARGUMENTS = [
    -4, 1, "Thermostat",
    -2, 0, 1,
    -1, 1, "SetTarget",
    0, 0, -7,
    1, 1, "Gr\u00fc\u00df",
    2, 2, "c text",
    3, 3, b"\x00\x01\xff", 9,
    4, 3, b"\x00\x28\x6b\xee", 1,
    5, 3, b"", 4,
]
EVERY_CLASS_TEXT_OF_ARGUMENTS = (
    "0 = (CTypedValue<int> = -7) | "
    f"1 = (CTypedValue<{STRING}> = Gr\u00fc\u00df) | "
    f"2 = (CTypedValue<{C_STRING}> = c text) | "
    "3 = (CBinaryValue[size=3]) | "
    "4 = (CBinaryValue[uint=4000000000]) | "
    "5 = (CBinaryValue[bool=false]) | ")
EVERY_CLASS_TEXT = (
    f"{{TYPE_NAME = (CTypedValue<{STRING}> = Thermostat) | "
    "ACTOR_ID = (CTypedValue<int> = 1) | "
    f"METHOD_NAME = (CTypedValue<{STRING}> = SetTarget) | "
    f"{EVERY_CLASS_TEXT_OF_ARGUMENTS}}}")


def die_with_parent():
    pr_set_pdeathsig = 1
    ctypes.CDLL(None).prctl(pr_set_pdeathsig, signal.SIGTERM)


class PrivateBus:
    """A bus daemon in place of the system bus. Programs find it by their environment."""

    def __init__(self, conf=BUS_CONF):
        self._daemon = subprocess.Popen(
            ["dbus-daemon", "--nofork", "--nopidfile", "--print-address=1", "--config-file=" + conf],
            stdout=subprocess.PIPE, text=True, preexec_fn=die_with_parent)
        # The address is printed once the daemon listens.
        self.address = self._daemon.stdout.readline().strip()
        if not self.address:
            raise RuntimeError("dbus-daemon did not start")
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address)

    def stop(self):
        self._daemon.terminate()
        self._daemon.wait(LIMIT)
        self._daemon.stdout.close()

    def run(self, *command):
        """Runs a command that knows nothing of the library and returns what subprocess.run does."""
        return subprocess.run(command, env=self.environment, capture_output=True, encoding="utf-8", timeout=LIMIT)


class Program:
    """One of the programs of this folder, driven by lines of text."""

    def __init__(self, bus, name, *arguments, errors=None):
        """errors: a file for what it writes to standard error, where its error and fatal lines go."""
        if not PROGRAMS:
            raise RuntimeError("NELO_RPC_WIRE_DIR does not say where the programs are")
        self._process = subprocess.Popen(
            [os.path.join(PROGRAMS, name), *arguments], env=bus.environment,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, encoding="utf-8",
            preexec_fn=die_with_parent)
        self._lines = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        line = self.next_line()
        if line != "ready":
            raise RuntimeError(f"{name} said {line!r} instead of being ready")

    def _read(self):
        for line in self._process.stdout:
            self._lines.put(line.rstrip("\n"))

    def say(self, line):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()

    def next_line(self):
        """The next line that it prints. Raises queue.Empty when none comes."""
        return self._lines.get(timeout=LIMIT)

    def has_line(self):
        return not self._lines.empty()

    def suspend(self):
        self._process.send_signal(signal.SIGSTOP)

    def resume(self):
        self._process.send_signal(signal.SIGCONT)

    def wait(self):
        """Waits until it has ended by itself and returns its exit status, negative for a signal."""
        return self._process.wait(LIMIT)

    def stop(self):
        """Lets it end and returns its exit status."""
        self._process.stdin.close()
        try:
            status = self.wait()
        finally:
            self._process.kill()
            self._process.wait()
            self._reader.join(LIMIT)
            self._process.stdout.close()
        return status
