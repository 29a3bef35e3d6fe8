"""The manual page and the completion know what the program knows."""

import os
import re
import shutil
import subprocess
import unittest

import tool

PAGE = os.path.join(tool.SOURCE, "nelo-rpc.1")
COMPLETION = os.path.join(tool.SOURCE, "nelo-rpc.bash")


class ManualPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(PAGE, encoding="utf-8") as file:
            cls.page = file.read().replace("\\-", "-")
        cls.help = subprocess.run([tool.TOOL, "--help"], capture_output=True, encoding="utf-8",
                                  timeout=tool.LIMIT, check=True).stdout

    def test_every_option_of_the_help_is_described(self):
        options = set(re.findall(r"--[a-z]+", self.help))
        self.assertGreater(len(options), 5)
        for option in options:
            self.assertRegex(self.page, rf"\.(B|BI|BR)( -h \", \")? ?.*{option}")

    def test_every_command_of_the_help_is_described(self):
        commands = re.findall(r"(?m)^  ([a-z]+) ", self.help.split("options:")[0])
        self.assertEqual(["list", "call", "watch", "monitor", "ping"], commands)
        for command in commands:
            self.assertIn(f"\n.TP\n.B {command}\n", self.page)

    def test_every_exit_status_of_the_help_is_described(self):
        statuses = re.findall(r"\b([0-7]) [a-z]", self.help.split("ends with ")[1])
        self.assertEqual(list("01234567"), statuses)
        for status in statuses:
            self.assertIn(f"\n.TP\n.B {status}\n", self.page)

    def test_every_type_of_arguments_is_described(self):
        types = re.findall(r"\b([a-z]+):\S", self.help.split("arguments: ")[1].splitlines()[0])
        self.assertEqual(9, len(types))
        for name in types:
            self.assertIn(f"{name}:", self.page)

    def test_it_has_the_version_of_the_program(self):
        version = subprocess.run([tool.TOOL, "--version"], capture_output=True, encoding="utf-8",
                                 timeout=tool.LIMIT, check=True).stdout.strip()
        self.assertIn(f'"{version}"', self.page)

    @unittest.skipUnless(shutil.which("groff"), "groff is not there")
    def test_it_is_rendered_without_a_warning(self):
        done = subprocess.run(["groff", "-t", "-man", "-Tutf8", "-ww", PAGE], capture_output=True, encoding="utf-8",
                              timeout=tool.LIMIT)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertIn("nelo-rpc", done.stdout)


class Completion(tool.ToolTest):
    def complete(self, *words):
        """What bash offers for the last word."""
        line = " ".join(f"'{word}'" for word in (tool.TOOL,) + words)
        script = (f". '{COMPLETION}'; COMP_WORDS=({line}); COMP_CWORD={len(words)}; _nelo_rpc; "
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(["bash", "-uc", script], env=self.bus.environment, capture_output=True,
                              encoding="utf-8", timeout=tool.LIMIT)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return done.stdout.split()

    def test_commands_are_offered_first(self):
        self.assertEqual(["list", "call", "watch", "monitor", "ping"], self.complete(""))
        self.assertEqual(["monitor"], self.complete("m"))

    def test_options_are_those_of_the_command(self):
        self.assertEqual(["--json", "--ask", "--timeout"], self.complete("list", "--"))
        self.assertEqual(["--count"], self.complete("watch", "--c"))
        self.assertEqual(["--help", "--version"], self.complete("--"))

    def test_names_are_those_of_servers(self):
        self.start()
        for command in ["call", "watch", "monitor", "ping"]:
            self.assertEqual([tool.SERVER], self.complete(command, "org."))
        self.assertEqual([tool.SERVER], self.complete("--timeout", "3", "ping", "--json", ""))

    def test_types_are_offered_for_arguments(self):
        self.assertIn("double:", self.complete("call", "org.example.a", "Type", "Function", ""))
        self.assertEqual([], self.complete("call", "org.example.a", ""))
        self.assertEqual([], self.complete("ping", "org.example.a", "--timeout", ""))


if __name__ == "__main__":
    unittest.main()
