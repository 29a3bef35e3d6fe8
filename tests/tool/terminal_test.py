"""What `nelo-rpc` writes to a terminal, and not into a pipe."""

import unittest

import tool
from tool import SERVER

RED = "\033[31m"
GREEN = "\033[32m"
PLAIN = "\033[0m"


class Terminal(tool.ToolTest):
    def test_errors_and_names_have_colours_on_a_terminal(self):
        self.start()
        self.assertIn(f"{RED}error:{PLAIN} unknown command", self.on_terminal("lst"))
        self.assertIn(f"{GREEN}{SERVER}{PLAIN}", self.on_terminal("list"))

    def test_colours_can_be_switched_off(self):
        self.start()
        for variables in [{"NO_COLOR": "1"}, {"TERM": "dumb"}]:
            with self.subTest(variables=variables):
                self.assertNotIn("\033", self.on_terminal("lst", **variables))
                self.assertNotIn("\033", self.on_terminal("list", **variables))

    def test_an_empty_variable_switches_nothing_off(self):
        self.assertIn(RED, self.on_terminal("lst", NO_COLOR=""))

    def test_pipes_get_no_colours(self):
        self.start()
        done = self.tool("list", environment=dict(self.bus.environment, TERM="xterm"))
        self.assertIn(SERVER, done.stdout)
        self.assertNotIn("\033", done.stdout + done.stderr)

    def test_a_text_cannot_change_what_a_terminal_shows_but_arrives_whole_in_a_pipe(self):
        self.start()
        text = "\033[2Jgone\u009b31m\x7f"
        words = ["call", SERVER, "Probe", "EchoText", f"string:{text}"]
        self.assertEqual("\\u001b[2Jgone\\u009b31m\\u007f\r\n", self.on_terminal(*words))
        self.expect(text, *words)


if __name__ == "__main__":
    unittest.main()
