"""What `nelo-rpc` says to words that make no sense, without a server, and without a bus."""

import os
import unittest

import tool
from tool import NO_BUS, NO_NAME, OK, USAGE


class Usage(tool.ToolTest):
    def test_help_names_every_command_and_option(self):
        done = self.tool("--help")
        self.assertEqual((OK, ""), (done.returncode, done.stderr))
        for word in ["list", "call", "watch", "monitor", "ping", "--json", "--timeout", "--count", "--ask"]:
            self.assertIn(word, done.stdout)
        self.assertEqual(done.stdout, self.tool("call", "-h").stdout)

    def test_version_is_told(self):
        self.assertRegex(self.tool("--version").stdout, r"^nelo-rpc \d+\.\d+\.\d+\n$")

    def test_wrong_words_are_named(self):
        for text, words in [
                ("no command given", []),
                ("unknown command 'cal'; did you mean 'call'?", ["cal"]),
                ("unknown command 'frobnicate'; nelo-rpc --help names them", ["frobnicate"]),
                ("unknown option '--jsn'; did you mean '--json'?", ["list", "--jsn"]),
                ("unknown option '-x'", ["list", "-x"]),
                ("unknown option '--json=1'", ["list", "--json=1"]),
                ("list has no option --count", ["list", "--count", "1"]),
                ("call has no option --ask", ["call", "--ask", "a.b", "T", "f"]),
                ("too few words; usage: nelo-rpc call NAME TYPE FUNCTION", ["call", "a.b", "T"]),
                ("too few words; usage: nelo-rpc watch NAME TYPE CALLBACK", ["watch", "a.b", "T"]),
                ("too few words; usage: nelo-rpc ping NAME", ["ping"]),
                ("too many words; usage: nelo-rpc ping NAME", ["ping", "a.b", "c.d"]),
                ("too many words; usage: nelo-rpc list\n", ["list", "x"]),
                ("too many words; usage: nelo-rpc monitor [NAME]", ["monitor", "a.b", "c.d"]),
                ("the option --timeout wants a value", ["ping", "a.b", "--timeout"]),
                ("'soon' is no time-out", ["ping", "a.b", "--timeout", "soon"]),
                ("'0' is no time-out", ["ping", "a.b", "--timeout=0"]),
                ("'-1' is no time-out", ["ping", "a.b", "--timeout", "-1"]),
                ("'nan' is no time-out", ["ping", "a.b", "--timeout", "nan"]),
                ("'0' is no count", ["ping", "a.b", "--count", "0"]),
                ("'many' is no count", ["ping", "a.b", "--count=many"]),
        ]:
            with self.subTest(words=words):
                self.expect_failure(USAGE, text, *words)

    def test_options_may_stand_anywhere(self):
        for words in [["--timeout", "1", "ping", "a.b"], ["ping", "--timeout=1", "a.b"], ["ping", "a.b", "--json"]]:
            with self.subTest(words=words):
                self.expect_failure(NO_NAME, "nobody owns a.b on the bus", *words)

    def test_every_command_says_that_there_is_no_bus(self):
        nowhere = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nonexistent/bus")
        for words in [["list"], ["call", "a.b", "T", "f"], ["watch", "a.b", "T", "f"], ["monitor"], ["ping", "a.b"]]:
            with self.subTest(words=words):
                done = self.tool(*words, environment=nowhere)
                self.assertEqual((NO_BUS, ""), (done.returncode, done.stdout))
                self.assertIn("the system bus cannot be reached: ", done.stderr)

    def test_output_that_nobody_takes_is_an_error(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            done = tool.subprocess.run([tool.TOOL, "--help"], stdout=full, stderr=tool.subprocess.PIPE,
                                       encoding="utf-8", timeout=tool.LIMIT, check=False)
        self.assertEqual(tool.BROKEN, done.returncode)
        self.assertIn("standard output takes no more", done.stderr)


if __name__ == "__main__":
    unittest.main()
