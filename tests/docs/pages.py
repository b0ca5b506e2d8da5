"""The pages of the repository and the blocks of code in them, with what their comments say.

A block is fenced or indented by four spaces. One without a language, or of `sh`, holds commands,
which run_page.py runs. A comment before a block, which no reader sees, says otherwise:

    <!-- test: text -->               no commands; the words of programs in it are checked still
    <!-- test: page text -->          the same for each block of the page
    <!-- test: skip REASON -->        commands that no test can run; what they name must be there
    <!-- test: bound S WORD... -->    lines with one of the words get Ctrl-C after S seconds
    <!-- test: append WORDS -->       ends the last line of the block
    <!-- test: file NAME -->          the block is written into this file
    <!-- test                         commands that are run in this place and not shown;
    COMMANDS                          install_kelm and start_service of world.sh are among them
    -->
"""

import dataclasses
import pathlib
import re
import subprocess

KINDS = {"text": 0, "page": 1, "skip": 1, "bound": 2, "append": 1, "file": 1}  # least words
COMMANDS = ("", "sh")


@dataclasses.dataclass
class Block:
    line: int  # of its first line in the page
    language: str
    lines: list[str]
    marker: list[str]
    hidden: bool = False

    def has_commands(self) -> bool:
        return self.language in COMMANDS and self.marker[:1] not in (["text"], ["file"])

    def is_marked(self, kind: str) -> bool:
        return self.marker[:1] == [kind]

    def is_run(self) -> bool:
        if self.language == "python" or self.is_marked("file"):
            return True
        return self.has_commands() and not self.is_marked("skip")

    def commands(self) -> list[tuple[int, str]]:
        """The commands with their lines: what the shell takes for one, here-documents whole."""
        found, first, text = [], self.line, ""
        for number, line in enumerate(self.lines, self.line):
            first = first if text else number
            text += line + "\n"
            if not text.strip():
                text = ""
            elif not line.endswith("\\") and is_whole(text):
                found.append((first, text))
                text = ""
        if text.strip():
            raise ValueError(f"{first}: the shell cannot read this:\n{text}")
        return found


def is_whole(text: str) -> bool:
    told = subprocess.run(["bash", "-n"], input=text, capture_output=True, text=True, check=False)
    return told.returncode == 0 and not told.stderr


class Page:
    def __init__(self, root: pathlib.Path, name: str) -> None:
        self.name = name
        self.lines = (root / name).read_text().split("\n")
        self.blocks: list[Block] = []
        self._marker: list[str] = []
        self._for_page: list[str] = []
        at = 0
        while at < len(self.lines):
            at = self._read(at)
        if self._marker:
            raise ValueError(f"{name}: no block follows the last comment")

    def _read(self, at: int) -> int:
        """The first line behind the block, comment or line of text that begins in this one."""
        line = self.lines[at]
        if line.startswith("<!-- test"):
            return self._read_comment(at)
        if line.startswith("```"):
            end = self.lines.index("```", at + 1)
            self._add(at + 1, line[3:].strip(), self.lines[at + 1 : end])
            return end + 1
        if line.startswith("    ") and (at == 0 or not self.lines[at - 1].strip()):
            end = at
            while end < len(self.lines) and self.lines[end][:4] in ("    ", ""):
                end += 1
            self._add(at, "", [text[4:] for text in self.lines[at:end]])
            return end
        if line.strip() and self._marker:
            raise ValueError(f"{self.name}:{at + 1}: a block must follow the comment above")
        return at + 1

    def _read_comment(self, at: int) -> int:
        whole = re.fullmatch(r"<!-- test: (\w+)(.*?) *-->", self.lines[at])
        if whole:
            marker = [whole[1], *whole[2].split()]
            if len(marker) <= KINDS.get(marker[0], len(marker)):
                raise ValueError(f"{self.name}:{at + 1}: what does this comment mean?")
            if marker[0] == "page":
                self._for_page = marker[1:]
            else:
                self._marker = marker
            return at + 1
        if self.lines[at] != "<!-- test":
            raise ValueError(f"{self.name}:{at + 1}: what does this comment mean?")
        end = self.lines.index("-->", at)
        self.blocks.append(Block(at + 2, "sh", self.lines[at + 1 : end], [], hidden=True))
        return end + 1

    def _add(self, at: int, language: str, lines: list[str]) -> None:
        self.blocks.append(Block(at + 1, language, lines, self._marker or self._for_page))
        self._marker = []


def list_pages(root: pathlib.Path) -> list[str]:
    patterns = ("README.md", "docs/**/*.md", "*/README.md", "tools/*/README.md")
    return sorted(str(path.relative_to(root)) for p in patterns for path in root.glob(p))
