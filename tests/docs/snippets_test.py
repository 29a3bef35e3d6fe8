"""Every C++ snippet of the documents compiles.

A block that begins with a class, a structure or a template is a declaration; any other is the body of a function. Both
see what SnippetContext.h declares. Whole programs are shown from files, which another test compares: the line before
such a block is "<!-- FILE -->".
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md")])
BLOCK = re.compile(r"(?P<marker><!-- [^\n]+ -->\n)?```cpp\n(?P<code>.*?)^```$", re.MULTILINE | re.DOTALL)
DECLARATION = re.compile(r"\s*(class|struct|template|using|enum)\b")


def snippets():
    for document in DOCUMENTS:
        text = document.read_text(encoding="utf-8")
        for match in BLOCK.finditer(text):
            if not match.group("marker"):
                yield document.relative_to(ROOT), text.count("\n", 0, match.start("code")) + 1, match.group("code")


def as_source(number, document, line, code):
    code = f'#line {line} "{document}"\n{code}'
    if "template <>" in code:
        return code  # a specialisation stands outside
    if DECLARATION.match(code.split("\n", 1)[1]):
        return f"namespace snippet_{number}\n{{\n{code}}}\n"
    return f"void snippet_{number}(SNIPPET_PARAMETERS)\n{{{{\n{code}}}}}\n"


class Snippets(unittest.TestCase):
    def test_compile(self):
        found = list(snippets())
        self.assertGreater(len(found), 10)
        source = '#include "SnippetContext.h"\n' + "".join(as_source(n, *s) for n, s in enumerate(found))
        with tempfile.NamedTemporaryFile("w", suffix=".cpp") as file:
            file.write(source)
            file.flush()
            # What a snippet leaves unused, a reader's own code uses.
            done = subprocess.run(
                [os.environ.get("CXX", "c++"), "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                 "-Wno-unused-variable", "-Wno-unused-but-set-variable", "-Wno-unused-parameter",
                 "-I", ROOT / "include", "-I", HERE, file.name],
                capture_output=True, text=True, check=False)
        self.assertEqual(0, done.returncode, done.stderr)

    def test_whole_programs_are_shown_from_files(self):
        for document, line, code in snippets():
            self.assertNotIn("int main(", code, f"{document}:{line}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
