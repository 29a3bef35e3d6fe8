"""Every link in the documents leads somewhere, and every path that they name exists.

Links to the outside are not followed: whether those work is not for this tree to say.
"""

import re
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
DOCUMENTS = sorted(f for f in ROOT.rglob("*.md") if "build" not in f.relative_to(ROOT).parts)
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
PATH = re.compile(r"`((?:cmake|docs|examples|include|packaging|scripts|src|tests|tools|bench)/[\w./-]*)`")


def prose_of(document):
    """The text without its blocks of code."""
    return re.sub(r"^```.*?^```$", "", document.read_text(encoding="utf-8"), flags=re.MULTILINE | re.DOTALL)


def anchors_of(document):
    """The anchors of the headings, as code hosts make them."""
    anchors = []
    for heading in re.findall(r"^#+ +(.*)$", prose_of(document), re.MULTILINE):
        anchor = re.sub(r"[^\w\- ]", "", re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()).replace(" ", "-")
        same = sum(a == anchor or re.fullmatch(re.escape(anchor) + r"-\d+", a) is not None for a in anchors)
        anchors.append(f"{anchor}-{same}" if same else anchor)
    return anchors


def why_broken(document, target):
    """What is wrong with a link, or None."""
    if re.match(r"[a-z]+:", target):
        return None if re.match(r"(https://|mailto:)", target) else "neither https nor a file"
    path, _, anchor = target.partition("#")
    file = (document.parent / path).resolve() if path else document
    if not file.exists():
        return "no such file"
    if anchor and anchor not in anchors_of(file):
        return "no such heading"
    return None


class Documents(unittest.TestCase):
    def test_have_no_broken_link(self):
        broken = [f"{d.relative_to(ROOT)}: {t}: {why_broken(d, t)}"
                  for d in DOCUMENTS for t in LINK.findall(prose_of(d)) if why_broken(d, t)]
        self.assertGreater(sum(len(LINK.findall(prose_of(d))) for d in DOCUMENTS), 10)
        self.assertEqual([], broken)

    def test_name_no_file_that_does_not_exist(self):
        missing = [f"{d.relative_to(ROOT)}: {p}" for d in DOCUMENTS for p in PATH.findall(prose_of(d))
                   if not (ROOT / p).exists()]
        self.assertEqual([], missing)

    def test_in_docs_are_reached_from_the_readme(self):
        reached, waiting = set(), [ROOT / "README.md"]
        while waiting:
            document = waiting.pop()
            if document in reached or document.suffix != ".md" or not document.exists():
                continue
            reached.add(document)
            targets = (t.partition("#")[0] for t in LINK.findall(prose_of(document)))
            waiting += [(document.parent / t).resolve() for t in targets if t and ":" not in t]
        self.assertEqual(set(), {d for d in DOCUMENTS if d.is_relative_to(ROOT / "docs")} - reached)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
