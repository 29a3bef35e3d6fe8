"""What nelo_rpc_add_service makes and installs, and how a bus with the system's own policy takes it."""

import functools
import os
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
PROGRAM = Path(os.environ["NELO_RPC_SERVICE_DIR"]) / "PeerProgram"
STOCK_POLICY = Path("/usr/share/dbus-1/system.conf")
NAME = "org.example.adder"
SERVER_USER, OTHER_USER = "daemon", "nobody"  # on every Debian
LIMIT_SECONDS = 30


def configure(work, *arguments, options=()):
    return subprocess.run(
        ["cmake", "-S", HERE, "-B", work / "build", f"-DCMAKE_INSTALL_PREFIX={work / 'usr'}",
         f"-DNELO_RPC_MODULE={ROOT / 'cmake/nelo-rpc-service.cmake'}",
         f"-DPROGRAM={PROGRAM}",
         f"-DARGUMENTS={';'.join(arguments)}", *options],
        capture_output=True, text=True, timeout=LIMIT_SECONDS * 2, check=False)


def new_folder():
    folder = Path(tempfile.mkdtemp())
    folder.chmod(0o755)  # other users come by
    return folder


@functools.lru_cache(maxsize=None)
def install(*more):
    """The prefix of an installation, which tests share and do not change."""
    work = new_folder()
    unittest.addModuleCleanup(shutil.rmtree, work)
    done = configure(work, "NAME", NAME, "USER", SERVER_USER, *more)
    assert done.returncode == 0, done.stderr
    subprocess.run(["cmake", "--install", work / "build"], check=True, capture_output=True, timeout=LIMIT_SECONDS)
    return work / "usr"


class Files(unittest.TestCase):
    def callers(self, prefix):
        policy = ElementTree.parse(prefix / f"share/dbus-1/system.d/{NAME}.conf")
        return {str(p.attrib) for p in policy.getroot() if p.find("allow[@send_destination]") is not None}

    def test_are_a_policy_and_a_unit_and_no_more_unless_it_is_activatable(self):
        prefix = install()
        files = sorted(str(f.relative_to(prefix)) for f in prefix.rglob("*") if f.is_file())
        self.assertEqual(
            ["bin/probe", "lib/systemd/system/probe.service", f"share/dbus-1/system.d/{NAME}.conf"], files)

    def test_the_activation_file_starts_the_unit(self):
        prefix = install("ACTIVATABLE")
        text = (prefix / f"share/dbus-1/system-services/{NAME}.service").read_text()
        self.assertIn(f"\nName={NAME}\nExec={prefix}/bin/probe\nUser={SERVER_USER}\nSystemdService=probe.service\n",
                      text)

    def test_the_policy_lets_the_user_alone_own_the_name(self):
        policy = ElementTree.parse(install() / f"share/dbus-1/system.d/{NAME}.conf")
        owners = [p for p in policy.getroot() if p.find("allow[@own]") is not None]
        self.assertEqual([{"user": SERVER_USER}], [p.attrib for p in owners])
        self.assertEqual(NAME, owners[0].find("allow").get("own"))

    def test_without_a_group_the_user_and_root_may_call(self):
        self.assertEqual({str({"user": SERVER_USER}), str({"user": "root"})}, self.callers(install()))

    def test_a_group_may_call_too(self):
        self.assertIn(str({"group": "adm"}), self.callers(install("GROUP", "adm")))

    def test_everybody_may_call_if_told_so(self):
        self.assertEqual({str({"context": "default"})}, self.callers(install("EVERYBODY")))

    @unittest.skipUnless(shutil.which("xmllint"), "no xmllint")
    def test_the_policy_is_well_formed(self):
        policy = install("GROUP", "adm") / f"share/dbus-1/system.d/{NAME}.conf"
        subprocess.run(["xmllint", "--noout", "--nonet", policy], check=True, timeout=LIMIT_SECONDS)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze")
    def test_systemd_finds_no_fault_in_the_unit(self):
        unit = install() / "lib/systemd/system/probe.service"
        # A path of its own, so that the machine's units are not looked at. What the program says of units that every
        # service depends on, and that are not there, is no fault of this one.
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True,
                              timeout=LIMIT_SECONDS, check=False,
                              env=dict(os.environ, SYSTEMD_UNIT_PATH=f"{unit.parent}:"))
        faults = [line for line in done.stderr.splitlines() if "probe.service" in line]
        self.assertEqual([], faults)

    def test_a_description_is_shown_as_it_was_given(self):
        unit = (install("DESCRIPTION", "keeps 50 % free") / "lib/systemd/system/probe.service").read_text()
        self.assertIn("\nDescription=keeps 50 %% free\n", unit)

    def test_nothing_of_a_template_is_left(self):
        prefix = install("ACTIVATABLE")
        for file in prefix.rglob("*"):
            if file.is_file() and file.name != "probe":
                self.assertNotRegex(file.read_text(), r"@\w+@", file)


class Mistakes(unittest.TestCase):
    def expect(self, text, *arguments):
        work = new_folder()
        self.addCleanup(shutil.rmtree, work)
        done = configure(work, *arguments)
        self.assertNotEqual(0, done.returncode)
        self.assertIn(text, re.sub(r"\s+", " ", done.stderr))

    def test_an_argument_that_is_left_out_is_named(self):
        self.expect("nelo_rpc_add_service needs USER", "NAME", NAME)

    def test_a_keyword_without_its_value_is_named_and_not_passed_over(self):
        self.expect("GROUP has no value", "NAME", NAME, "USER", "x", "GROUP")
        self.expect("GROUP has no value", "NAME", NAME, "USER", "x", "GROUP", "EVERYBODY")

    def test_a_word_that_is_not_known_is_named(self):
        self.expect("does not know: ACTIVATED", "NAME", NAME, "USER", "x", "ACTIVATED")

    def test_a_name_without_a_dot_is_refused(self):
        self.expect("adder is no bus name", "NAME", "adder", "USER", "x")

    def test_a_group_and_everybody_exclude_each_other(self):
        self.expect("exclude each other", "NAME", NAME, "USER", "x", "GROUP", "y", "EVERYBODY")


@unittest.skipUnless(os.geteuid() == 0, "other users can be tried by root alone")
@unittest.skipUnless(STOCK_POLICY.exists(), "no system policy")
class OnABusWithTheSystemsPolicy(unittest.TestCase):
    """The policy of the machine's system bus, with what is installed here as its only addition."""

    def setUp(self):
        self.work = new_folder()
        self.addCleanup(shutil.rmtree, self.work)
        self.program = install() / "bin/probe"
        self.policy = shutil.copy(install() / f"share/dbus-1/system.d/{NAME}.conf", self.work)
        text = STOCK_POLICY.read_text()
        for element in ("user", "pidfile", "servicehelper", "listen", "includedir"):
            text = re.sub(rf"<{element}>[^<]*</{element}>", "", text)
        for element in ("fork", "syslog", "standard_system_servicedirs"):
            text = text.replace(f"<{element}/>", "")
        text = re.sub(r"<include [^>]*>[^<]*</include>", "", text)
        text = text.replace("</busconfig>", f"<listen>unix:path={self.work}/socket</listen>"
                            f"<include>{self.policy}</include></busconfig>")
        config = self.work / "bus.conf"
        config.write_text(text)

        bus = self.start(["dbus-daemon", "--nofork", "--nopidfile", "--print-address=1", f"--config-file={config}"])
        self.address = bus.stdout.readline().strip()
        self.assertTrue(self.address, "no bus")

    def start(self, command, **options):
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.terminate()
        try:
            process.communicate(timeout=LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()

    def as_user(self, user, role):
        """The program's command line and options for a user; the program lies where that user can reach it."""
        entry = pwd.getpwnam(user)
        return dict(args=[self.program, role, NAME], user=entry.pw_uid, group=entry.pw_gid,
                    extra_groups=[], env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address))

    def serve(self, user):
        options = self.as_user(user, "server")
        server = self.start(options.pop("args"), **options)
        self.assertEqual("ready\n", server.stdout.readline())
        return server

    def call(self, user):
        return subprocess.run(**self.as_user(user, "client"), capture_output=True, text=True, timeout=LIMIT_SECONDS,
                              check=False)

    def log_of(self, server):
        server.terminate()
        return server.communicate(timeout=LIMIT_SECONDS)[1]

    def test_the_user_owns_the_name_and_those_who_may_call_it(self):
        self.serve(SERVER_USER)
        self.assertEqual(0, self.call(SERVER_USER).returncode)
        self.assertEqual(0, self.call("root").returncode)

    def test_another_user_cannot_call_and_is_told_the_rule(self):
        self.serve(SERVER_USER)
        done = self.call(OTHER_USER)
        self.assertEqual(1, done.returncode)
        self.assertIn("Dbus error: Rejected send message", done.stderr)
        self.assertIn(f'the policy of the bus lacks <policy user="{OTHER_USER}"><allow send_destination="{NAME}"',
                      done.stderr)

    def test_who_may_call_sees_nothing_of_rules(self):
        self.serve(SERVER_USER)
        self.assertNotIn("policy", self.call(SERVER_USER).stderr)

    def reload(self):
        subprocess.run(["dbus-send", f"--bus={self.address}", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                        "org.freedesktop.DBus.ReloadConfig"], check=True, capture_output=True, timeout=LIMIT_SECONDS)

    def test_the_server_may_ping_its_clients(self):
        server = self.serve(SERVER_USER)
        self.assertEqual(0, self.call("root").returncode)
        self.assertNotIn("ping", self.log_of(server))

    def test_a_server_that_may_not_ping_is_told_the_rule(self):
        policy = Path(self.policy)
        text, removed = re.subn(r".*member=.Ping.*\n", "", policy.read_text())
        self.assertEqual(1, removed)
        policy.write_text(text)
        self.reload()
        server = self.serve(SERVER_USER)
        self.assertEqual(0, self.call("root").returncode)
        log = self.log_of(server)
        self.assertIn("CDbusPort::SendMessage cannot limit what peers leave unread", log)

        rule = re.search(r"lacks (<policy.*</policy>)", log).group(1)
        policy.write_text(text.replace("</busconfig>", rule + "</busconfig>"))
        self.reload()
        server = self.serve(SERVER_USER)
        self.assertEqual(0, self.call("root").returncode)
        self.assertNotIn("ping", self.log_of(server))

    def test_another_user_cannot_own_the_name_and_is_told_the_rule(self):
        log = self.log_of(self.serve(OTHER_USER))
        self.assertIn("Dbus request name failed: ", log)
        self.assertIn(f'the policy of the bus lacks <policy user="{OTHER_USER}"><allow own="{NAME}"/></policy>', log)

    def test_the_rule_that_is_told_is_the_one_that_is_missing(self):
        rule = re.search(r"lacks (<policy.*</policy>)", self.log_of(self.serve(OTHER_USER))).group(1)
        policy = Path(self.policy)
        policy.write_text(policy.read_text().replace("</busconfig>", rule + "</busconfig>"))
        self.reload()
        self.serve(OTHER_USER)
        self.assertEqual(0, self.call("root").returncode)

    def test_who_comes_second_is_told_who_has_the_name(self):
        first = self.serve(SERVER_USER)
        log = self.log_of(self.serve(SERVER_USER))
        self.assertRegex(log, rf"name {NAME} has another owner, queued behind it: "
                         rf":\d+\.\d+, process {first.pid} \(probe\) of user {SERVER_USER}\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
