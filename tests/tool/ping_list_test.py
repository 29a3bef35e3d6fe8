"""`nelo-rpc ping` and `nelo-rpc list`: who is there."""

import unittest

import tool
from tool import NO_NAME, NO_REPLY, OK, REFUSED, SERVER

OTHER = "org.example.others"


class Ping(tool.ToolTest):
    EXTRA_POLICY = '<policy context="mandatory"><deny send_destination="org.example.forbidden"/></policy>'

    def test_a_server_answers_and_keeps_no_object(self):
        server = self.start()
        done = self.tool("ping", SERVER)
        self.assertEqual((OK, ""), (done.returncode, done.stderr))
        self.assertRegex(done.stdout, rf"^{SERVER} answered in \d+\.\d{{3}} ms\n$")
        self.assertEqual(0, self.objects(server))

    def test_it_can_be_asked_several_times(self):
        self.start()
        answers = self.json_of("ping", SERVER, "--count", "2")
        self.assertEqual([(SERVER, 1), (SERVER, 2)], [(a["name"], a["number"]) for a in answers])
        self.assertTrue(all(a["ms"] >= 0 for a in answers))

    def test_pings_can_be_interrupted(self):
        self.start()
        run = self.watching("ping", SERVER, "--count", "1000")
        self.assertIn("answered in", run.line())
        run.interrupt()
        self.assertEqual(OK, run.end().returncode)

    def test_a_name_that_nobody_owns_is_an_error(self):
        self.expect_failure(NO_NAME, f"nobody owns {SERVER}", "ping", SERVER)

    def test_a_refusal_is_an_error(self):
        self.start(name="org.example.forbidden")
        self.expect_failure(REFUSED, "refused: the policy of the bus lacks <policy user=",
                            "ping", "org.example.forbidden")

    def test_a_server_that_does_not_answer_is_an_error(self):
        server = self.start()
        server.suspend()
        self.addCleanup(server.resume)
        self.expect_failure(NO_REPLY, "no reply within 0.2 s", "ping", SERVER, "--timeout", "0.2")


class List(tool.ToolTest):
    def names(self, *words):
        return [server["name"] for server in self.json_of("list", *words)]

    def test_without_servers_nothing_is_printed(self):
        self.expect("", "list")
        self.expect("", "list", "--ask")

    def test_servers_are_listed_and_nobody_is_sent_anything(self):
        self.start()
        self.start("trusting", name=OTHER)
        done = self.tool("list")
        self.assertEqual((OK, ""), (done.returncode, done.stderr))
        lines = done.stdout.splitlines()
        self.assertEqual(["NAME", "PID", "USER", "PROGRAM"], lines[0].split())
        self.assertEqual([OTHER, SERVER], [line.split()[0] for line in lines[1:]])

    def test_json_tells_who_owns_a_name_and_how_it_showed(self):
        self.start()
        server, = self.json_of("list")
        self.assertEqual(SERVER, server["name"])
        self.assertRegex(server["owner"], r"^:\d+\.\d+$")
        self.assertEqual("library", server["known_by"])
        self.assertGreater(server["pid"], 1)
        self.assertEqual("ToolServerProgra", server["program"] + "a" * (server["program"] == "ToolServerProgr"))

    def test_asked_servers_show_however_they_take_their_peers(self):
        self.start()
        trusting = self.start("trusting", name=OTHER)
        servers = {server["name"]: server["known_by"] for server in self.json_of("list", "--ask")}
        self.assertEqual({SERVER: "description", OTHER: "answer"}, servers)
        self.assertEqual(0, self.objects(trusting), "it lives on")

    def test_those_who_are_no_servers_are_not_listed(self):
        stranger = tool.wire.subprocess.Popen(
            ["/usr/bin/python3", "-c",
             "import dbus, dbus.service, sys\n"
             "from dbus.mainloop.glib import DBusGMainLoop\n"
             "from gi.repository import GLib\n"
             "DBusGMainLoop(set_as_default=True)\n"
             "name = dbus.service.BusName('org.example.stranger', dbus.SystemBus())\n"
             "print('ready', flush=True)\n"
             "GLib.MainLoop().run()\n"],
            env=self.bus.environment, stdout=tool.subprocess.PIPE, preexec_fn=tool.wire.die_with_parent)
        self.addCleanup(stranger.stdout.close)
        self.addCleanup(stranger.wait)
        self.addCleanup(stranger.kill)
        self.assertEqual(b"ready\n", stranger.stdout.readline())
        self.start()
        self.assertEqual([SERVER], self.names())
        self.assertEqual([SERVER], self.names("--ask"))

    def test_a_server_that_does_not_answer_holds_nobody_up_for_longer_than_the_limit(self):
        silent = self.start()
        silent.suspend()
        self.addCleanup(silent.resume)
        self.start(name=OTHER)
        self.assertEqual([OTHER], self.names("--ask", "--timeout", "0.2"))


if __name__ == "__main__":
    unittest.main()
