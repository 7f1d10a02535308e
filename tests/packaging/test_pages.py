"""The pages say what the programs do: every log line can be looked up, and nothing else stands there;
settings and their example agree; manual pages are well formed."""

import json
from pathlib import Path
import re
import subprocess
import tempfile
import unittest

REPOSITORY = Path(__file__).resolve().parents[2]
OPERATIONS = REPOSITORY / "doc" / "operations.md"
LITERAL = r'"((?:[^"\\]|\\.)*)"'
LOG_CALL = re.compile(r"(?<![\w.>])(?:log::)?(?:debug|info|warning|error|exception)\(\s*"
                      rf"(?:fmt::format\(\s*)?{LITERAL}")
# Logged by the stop() of a server, which the daemon does not call when it ends.
NEVER_WRITTEN = {"Closed local socket", "Skein socket closed"}


def sources():
    """Text of the daemon's sources, with literals that the compiler joins in one piece."""
    files = [file for folder in ("pelorus", "skein") for file in (REPOSITORY / folder).rglob("*.*")
             if file.suffix in (".cc", ".h") and "ctl" not in file.relative_to(REPOSITORY).parts]
    return re.sub(r'(?<!\\)"\s*\n\s*"', "", "\n".join(file.read_text() for file in files))


def spelled(literal):
    return literal.replace('\\"', '"')


def documented_lines():
    """The log lines that doc/operations.md explains, without a full stop at the end."""
    section = OPERATIONS.read_text().partition("## Log lines")[2].partition("\n## ")[0]
    rows = [line.split(" | ") for line in section.splitlines() if line.startswith("|")]
    titles = [cell.strip("| ") for cell in rows[0]]
    cells = [row[titles.index("line")] for row in rows[2:] if "line" in titles and len(row) > 2]
    return [span.rstrip(".") for cell in cells for span in re.findall(r"`([^`]+)`", cell)]


def pieces(text, placeholder):
    return [piece for piece in re.split(placeholder, text) if piece.strip(" .:;()[]\"'")]


class Pages(unittest.TestCase):
    def test_every_log_line_can_be_looked_up(self):
        lines = documented_lines()
        logged = {spelled(text).rstrip(".") for text in LOG_CALL.findall(sources())}
        logged -= NEVER_WRITTEN
        self.assertGreater(len(logged), 20)
        for text in sorted(logged):
            if pieces(text, r"\{[^}]*\}"):  # else the text comes from elsewhere
                shape = ".+".join(map(re.escape, re.split(r"\{[^}]*\}", text)))
                with self.subTest(text):
                    self.assertTrue(any(re.fullmatch(shape, line) for line in lines),
                                    f"{text!r} stands in no row of {OPERATIONS.name}")

    def test_no_row_tells_of_a_line_that_is_not_logged(self):
        literals = [re.sub(r"\{[^}]*\}", "…", spelled(text))
                    for text in re.findall(LITERAL, sources())]
        for line in documented_lines():
            longest = max(pieces(re.sub(r"b'.*'|\b\d+\b", "…", line), "…"), key=len).strip()
            with self.subTest(line):
                self.assertTrue(any(longest in text for text in literals), longest)

    def test_example_has_every_setting_that_the_page_lists_and_no_other(self):
        page = (REPOSITORY / "doc" / "settings.md").read_text()
        listed = set(re.findall(r"(?m)^\| `([A-Z_]+)` \|(?!.*may be left out)",
                                page.partition("## Environment")[0]))
        example = json.loads((REPOSITORY / "packaging" / "settings.example.json").read_text())
        self.assertEqual({key for key in example if not key.startswith("_")}, listed)
        explained = {key.removeprefix("_") for key in example if key.startswith("_")} - {""}
        self.assertLessEqual(explained, listed)
        [shown] = re.findall(r"(?s)```json\n(.*?)```", page)
        self.assertEqual({key: value for key, value in example.items() if key in listed},
                         json.loads(shown))

    def test_manual_pages_are_well_formed_and_lose_nothing(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run([REPOSITORY / "scripts" / "manual", folder], check=True, timeout=60)
            pages = sorted(path.name for path in Path(folder).rglob("*.[0-9]"))
            self.assertEqual(pages, ["pelorus-settings.5", "pelorus.8", "pelorusctl.1",
                                     "write_skein.5"])
            for path in Path(folder).rglob("*.[0-9]"):
                done = subprocess.run(
                    ["groff", "-k", "-man", "-t", "-ww", "-rLL=1000n", "-Tutf8", "-P-cbou", path], check=True,
                    timeout=60, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                self.assertEqual(done.stderr, "")
                for markup in ("**", "`", "]("):
                    self.assertNotIn(markup, done.stdout, path.name)
                page = {"pelorus": "operations",
                        "pelorus-settings": "settings"}.get(path.stem, path.stem)
                source = (REPOSITORY / "doc" / f"{page}.md").read_text()
                name = re.compile(r"\w+_\w+")  # an underscore may be taken for emphasis
                self.assertLessEqual(set(name.findall(re.sub(r"\]\([^)]*\)", "]", source))),
                                     set(name.findall(done.stdout)), path.name)
