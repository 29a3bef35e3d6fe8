"""`nelo-rpc monitor`: what passes between servers and clients."""

import json
import os
import unittest

import tool
from tool import NO_REPLY, OK, REFUSED, SERVER, USAGE

OTHER = "org.example.others"


class Monitor(tool.ToolTest):
    def monitor(self, *words):
        """A monitor that has seen the first message: it cannot say by itself that it listens."""
        run = self.watching("monitor", *words)

        def has_line():
            self.tool("ping", SERVER)
            return run.has_output()

        self.eventually(has_line)
        return run

    def lines_until(self, run, part):
        lines = []
        while not lines or part not in lines[-1]:
            line = run.line()
            self.assertNotEqual("", line, "the monitor ended")
            lines.append(line)
        return lines

    def test_calls_results_and_callbacks_are_shown_with_names_ids_and_times(self):
        self.start()
        run = self.monitor(SERVER)
        self.expect("true", "call", SERVER, "Probe", "Tell", "1")
        lines = self.lines_until(run, 'ctor("Probe")') + self.lines_until(run, ".dtor = ")
        time = r"^\d\d:\d\d:\d\d\.\d{6}  "
        joined = "\n".join(lines)
        self.assertRegex(joined, r"(?m)" + time + rf'call      :1\.\d+ -> {SERVER}  CClientConnection#0\.ctor\("Probe"\)$')
        self.assertRegex(joined, r"(?m)" + time +
                         rf"result    {SERVER} -> :1\.\d+  CClientConnection#0\.ctor = \(\d+\)  \d+\.\d{{3}} ms$")
        self.assertRegex(joined, r"(?m)" + time + rf"call      :1\.\d+ -> {SERVER}  Probe#\d+\.Tell\(1\)$")
        self.assertRegex(joined, r"(?m)" + time +
                         rf'callback  {SERVER} -> :1\.\d+  #\d+\.OnTold\(1, "line\\u000a1"\)$')
        self.assertRegex(joined, r"(?m)" + time +
                         rf"result    {SERVER} -> :1\.\d+  Probe#\d+\.Tell = \(bool:true\)  \d+\.\d{{3}} ms$")
        run.interrupt()
        self.assertEqual(OK, run.end().returncode)

    def test_json_has_everything_in_fields(self):
        self.start()
        run = self.monitor("--json")
        self.expect("5", "call", SERVER, "Probe", "Add", "2", "3")
        messages = [json.loads(line) for line in self.lines_until(run, '"Add"') + [run.line()]]
        call, result = messages[-2:]
        self.assertEqual(("call", SERVER, "Probe", "Add"), (call["kind"], call["to"], call["type"], call["function"]))
        self.assertEqual({"0": {"type": "int", "value": 2}, "1": {"type": "int", "value": 3}}, call["arguments"])
        self.assertEqual(("result", SERVER, call["from"]), (result["kind"], result["from"], result["to"]))
        self.assertGreater(call["actor"], 0)
        for field in ["type", "actor", "function"]:
            self.assertEqual(call[field], result[field])
        self.assertEqual({"0": {"type": "int", "value": 5}}, result["result"])
        self.assertGreater(result["ms"], 0)

    def test_json_of_an_error_says_which_call_it_answers_and_of_a_missing_id_that_there_is_none(self):
        self.start()
        run = self.monitor("--json", SERVER)
        done = self.bus.run("dbus-send", "--system", f"--dest={SERVER}", "--print-reply", tool.wire.PATH,
                            f"{tool.wire.INTERFACE}.Call", "int32:0", "int32:99")
        self.assertNotEqual(0, done.returncode)
        call, error = [json.loads(line) for line in self.lines_until(run, "ill_formed") + [run.line()]][-2:]
        self.assertEqual(("call", "error"), (call["kind"], error["kind"]))
        self.assertIsNone(call["actor"])
        for field in ["type", "actor", "function"]:
            self.assertEqual(call[field], error[field])

    def test_errors_are_shown(self):
        self.start()
        run = self.monitor(SERVER)
        done = self.bus.run("dbus-send", "--system", f"--dest={SERVER}", "--print-reply", tool.wire.PATH,
                            f"{tool.wire.INTERFACE}.Call", "int32:0", "int32:99")
        self.assertNotEqual(0, done.returncode)
        lines = self.lines_until(run, "error ")
        self.assertIn("ill-formed: Unknown type inside DBusMessage: 99", lines[-2])
        self.assertRegex(lines[-1], r"error     .* org\.freedesktop\.DBus\.Error\.InvalidArgs: .*  \d+\.\d{3} ms$")

    def test_with_a_name_only_that_server_s_traffic_is_shown(self):
        self.start()
        self.start(name=OTHER)
        run = self.monitor(SERVER)
        self.expect("5", "call", OTHER, "Probe", "Add", "2", "3")
        self.expect("9", "call", SERVER, "Probe", "Add", "4", "5")
        self.assertNotIn(OTHER, "\n".join(self.lines_until(run, "Add = (9)")))

    def test_a_server_that_comes_later_is_shown_too(self):
        run = self.watching("monitor", SERVER)
        self.start()
        self.eventually(lambda: self.tool("ping", SERVER).returncode == OK and run.has_output())
        self.assertIn(f"-> {SERVER}  CClientConnection#0.dtor(0)", run.line())

    def test_calls_to_a_unique_name_belong_to_its_server(self):
        self.start()
        owner = self.json_of("list")[0]["owner"]
        run = self.monitor(SERVER)
        self.expect("9", "call", owner, "Probe", "Add", "4", "5")
        self.assertIn(SERVER, self.lines_until(run, "Add = (9)")[-1])

    def test_it_ends_after_a_number_of_messages_or_when_none_comes(self):
        self.start()
        run = self.watching("monitor", "--count", "2")
        self.eventually(lambda: self.tool("ping", SERVER).returncode == OK and not run.is_running())
        done = run.end()
        self.assertEqual((OK, 2), (done.returncode, len(done.stdout.splitlines())))
        self.expect_failure(NO_REPLY, "no message came in time, after 0 of them", "monitor", "--timeout", "0.2")

    def test_it_says_how_many_messages_came_before_the_time_was_over(self):
        self.start()
        done = self.monitor("--timeout", "1").end()
        self.assertEqual(NO_REPLY, done.returncode)
        self.assertRegex(done.stderr, "after [1-9][0-9]* of them")

    def test_messages_of_others_do_not_put_the_time_out_off(self):
        self.start()
        ticking = self.watching("watch", SERVER, "Ticker", "OnTick")
        self.assertIn("OnTick", ticking.line())
        self.expect_failure(NO_REPLY, "no message came in time, after 0 of them", "monitor", OTHER, "--timeout", "0.5")

    def test_a_text_that_is_no_name_is_wrong_usage(self):
        self.expect_failure(USAGE, "'x' is no bus name", "monitor", "x")

    @unittest.skipIf(os.getuid() != 0, "only root can run a program as somebody else")
    def test_the_bus_may_refuse_to_be_watched(self):
        done = tool.subprocess.run([tool.TOOL, "monitor", "--timeout", "5"], env=self.bus.environment, user=65534,
                                   capture_output=True, encoding="utf-8", timeout=tool.LIMIT)
        self.assertEqual(REFUSED, done.returncode, done.stderr)
        self.assertIn("the bus does not let this user watch its traffic (root may)", done.stderr)


if __name__ == "__main__":
    unittest.main()
