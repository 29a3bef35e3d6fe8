"""`nelo-rpc watch`: callbacks as they come."""

import signal
import unittest

import tool
from tool import NO_NAME, NO_REPLY, NO_RESULT, OK, SERVER


class Watch(tool.ToolTest):
    def test_callbacks_are_printed_until_there_are_enough(self):
        server = self.start()
        done = self.tool("watch", SERVER, "Probe", "OnTold", "Tell", "3", "--count", "2")
        self.assertEqual((OK, ""), (done.returncode, done.stderr))
        lines = done.stdout.splitlines()
        self.assertEqual(2, len(lines))
        self.assertRegex(lines[0], r'^\d\d:\d\d:\d\d\.\d{6}  OnTold\(1, "line\\u000a1"\)$')
        self.assertRegex(lines[1], r'  OnTold\(2, "line\\u000a2"\)$')
        self.assertEqual(0, self.objects(server))

    def test_json_has_time_actor_and_payload(self):
        self.start()
        told, = self.json_of("watch", SERVER, "Probe", "OnTold", "Tell", "1", "--count", "1")
        self.assertEqual({"0": {"type": "int", "value": 1}, "1": {"type": "string", "value": "line\n1"}},
                         told["payload"])
        self.assertEqual("OnTold", told["callback"])
        self.assertGreater(told["actor"], 0)
        self.assertRegex(told["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}$")

    def test_an_object_that_sends_by_itself_needs_no_call(self):
        self.start()
        told = self.json_of("watch", SERVER, "Ticker", "OnTick", "--count", "3")
        self.assertEqual(["OnTick"] * 3, [t["callback"] for t in told])

    def test_it_ends_in_good_order_when_interrupted(self):
        for how in [signal.SIGINT, signal.SIGTERM]:
            with self.subTest(how=how):
                server = self.start()
                run = self.watching("watch", SERVER, "Probe", "OnTold", "Tell", "1")
                self.assertIn("OnTold", run.line())
                self.assertEqual(1, self.objects(server))
                run.interrupt(how)
                self.assertEqual(OK, run.end().returncode)
                self.assertEqual(0, self.objects(server))
                server.stop()

    def test_it_ends_when_nobody_reads_any_more(self):
        self.start()
        done = tool.subprocess.run(["/bin/sh", "-c", f'"{tool.TOOL}" watch {SERVER} Ticker OnTick | head -n 1; exit 0'],
                                   env=self.bus.environment, capture_output=True, encoding="utf-8", timeout=tool.LIMIT)
        self.assertIn("OnTick(", done.stdout)
        self.assertIn("standard output takes no more", done.stderr)

    def test_other_callbacks_do_not_count(self):
        self.start()
        self.expect_failure(NO_REPLY, "no callback 'OnTld' came in time, after 0 of them",
                            "watch", SERVER, "Probe", "OnTld", "Tell", "3", "--timeout", "0.5")

    def test_other_callbacks_do_not_put_the_time_out_off(self):
        self.start()
        self.expect_failure(NO_REPLY, "no callback 'OnTock' came in time, after 0 of them",
                            "watch", SERVER, "Ticker", "OnTock", "--timeout", "0.5")

    def test_too_few_callbacks_in_time_are_an_error(self):
        server = self.start()
        done = self.tool("watch", SERVER, "Probe", "OnTold", "Tell", "2", "--timeout", "1", "--count", "3")
        self.assertEqual(NO_REPLY, done.returncode)
        self.assertEqual(2, done.stdout.count("OnTold"))
        self.assertIn("after 2 of them", done.stderr)
        self.assertEqual(0, self.objects(server))

    def test_a_function_that_fails_ends_it(self):
        server = self.start()
        self.expect_failure(NO_RESULT, "has no function 'Tel'", "watch", SERVER, "Probe", "OnTold", "Tel", "1")
        self.assertEqual(0, self.objects(server))

    def test_a_server_that_leaves_ends_it(self):
        server = self.start()
        run = self.watching("watch", SERVER, "Probe", "OnTold", "Tell", "1")
        self.assertIn("OnTold", run.line())
        server.stop()
        done = run.end()
        self.assertEqual(NO_REPLY, done.returncode)
        self.assertIn(f"{SERVER} has left the bus", done.stderr)

    def test_a_name_that_nobody_owns_is_an_error(self):
        self.expect_failure(NO_NAME, f"nobody owns {SERVER}", "watch", SERVER, "Probe", "OnTold")


class WatchOnABusThatEnds(tool.ToolTest):
    def test_a_bus_that_ends_ends_it(self):
        self.start()
        run = self.watching("watch", SERVER, "Probe", "OnTold", "Tell", "1")
        self.assertIn("OnTold", run.line())
        self.bus.stop()
        done = run.end()
        self.assertEqual(tool.NO_BUS, done.returncode)
        self.assertIn("the connection to the bus was lost", done.stderr)


if __name__ == "__main__":
    unittest.main()
