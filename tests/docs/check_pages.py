#!/usr/bin/env python3
"""Holds the pages to the sources: what they name and quote must be there.

    check_pages.py SOURCE_DIR BUILD_DIR

- programs and options in commands, also in those that no test can run, and in `code` of the text
- links, with their anchors
- in docs/troubleshooting.md and docs/containers.md the error texts: a block of `text` quotes them,
  "..." for what differs
- in docs/troubleshooting.md the name of each error that the service or the library has
- in docs/limits.md the constants: a row `kName` of a file has the number that stands in that file
"""

import functools
import pathlib
import re
import shlex
import subprocess
import sys

from pages import Block, Page, list_pages

SOURCES = ("client", "kelm", "libkelm", "protocol", "python/kelm", "service", "tools", "utils")
# Of the machine, and not there on each that runs the tests.
OTHER_PROGRAMS = {"adduser", "apt", "journalctl", "ninja", "podman", "prometheus", "sudo", "systemctl", "udevadm"}
ADJACENT = re.compile(r'"\s*(?:f|R)?"')
UNITS = {"KB": 1 << 10, "MB": 1 << 20, "GB": 1 << 30}

source = pathlib.Path(sys.argv[1])
build = pathlib.Path(sys.argv[2])
findings: list[str] = []


@functools.cache
def help_of(program: str) -> str:
    """Of a program of ours with its commands; "" if there is none."""
    words = program.split()
    path = next((p for p in (build / words[0], build / "bench" / words[0],
                             build / "tools/simulator" / words[0]) if p.exists()), None)
    if not path:
        return ""
    told = subprocess.run([path, *words[1:], "--help"], capture_output=True, text=True, check=False)
    return told.stdout if told.returncode == 0 else ""


def check_words(place: str, words: list[str]) -> None:
    """One command with its words."""
    while words and (re.match(r"\w+=", words[0]) or words[0] in ("sudo", "exec")):
        words = words[1:]
    name = words[0].rsplit("/", 1)[-1] if words else ""
    if name not in ("kelmctl", "kelmdaemon", "kelm-gateway", "service_bench", "library_rate", "kelm-usb-bus"):
        return
    program = name
    for word in words[1:]:
        if name != "kelmctl" or not re.fullmatch(r"[a-z][a-z-]*", word):
            break
        if program == "kelmctl" or program == "kelmctl config":
            program += " " + word
    text = help_of(program)
    if not text and name in ("kelmctl", "kelmdaemon"):
        findings.append(f"{place}: there is no {program}")
    known = set(re.findall(r"(?<![\w-])--?[a-z][\w-]*", text))
    for word in words[1:]:
        option = re.match(r"\[?(--?[a-z][\w-]*)", word)
        if word == "--":
            break
        if text and option and option[1] not in known | {"--help", "--version"}:
            findings.append(f"{place}: {program} has no {option[1]}")


def split_commands(text: str) -> list[list[str]]:
    lexer = shlex.shlex(text, posix=True, punctuation_chars="|&;<>")
    lexer.whitespace_split = True
    found: list[list[str]] = [[]]
    for word in lexer:
        if set(word) <= set("|&;"):
            found.append([])
        else:
            found[-1].append(word)
    return found


def check_program(place: str, words: list[str]) -> None:
    """A command that is not run: its program, units and files of the repository are there."""
    program = words[0]
    if "/" in program and not program.startswith(("/", "build/")):
        if not (source / program).exists():
            findings.append(f"{place}: there is no {program}")
    elif "/" not in program and program not in OTHER_PROGRAMS and not help_of(program):
        if subprocess.run(["bash", "-c", f"type {shlex.quote(program)}"], capture_output=True,
                          check=False).returncode:
            findings.append(f"{place}: what is {program}?")
    for word in words[1:]:
        unit = re.fullmatch(r"(kelm[a-z-]*)(@?)\w*(\.service)?", word)
        if program in ("systemctl", "journalctl") and unit:
            if not (source / f"packaging/systemd/{unit[1]}{unit[2]}.service").exists():
                findings.append(f"{place}: there is no unit {word}")
        top = word.split("/", 1)[0]
        is_ours = "/" in word and "*" not in word and top not in ("", "..", "build")
        if is_ours and (source / top).is_dir() and not (source / word).exists():
            findings.append(f"{place}: there is no {word}")


def check_block(page: Page, block: Block) -> None:
    if not block.has_commands():
        for number, line in enumerate(block.lines, block.line):
            if line.startswith("kelmctl "):
                check_words(f"{page.name}:{number}", line.split("  ")[0].split())
        return
    for line, text in block.commands():
        for words in split_commands(text.split("<<")[0]):
            place = f"{page.name}:{line}"
            check_words(place, words)
            if block.is_marked("skip") and words:
                check_program(place, words)


def check_text(page: Page) -> None:
    text = "\n".join(page.lines)
    line_of = lambda at: f"{page.name}:{text.count(chr(10), 0, at) + 1}"
    prose = re.sub(r"(?ms)^```.*?^```$", lambda m: "\n" * m[0].count("\n"), text)
    for span in re.finditer(r"`(kelmctl [a-z][^`]*)`", prose):
        check_words(line_of(span.start()), span[1].split())
    for link in re.finditer(r"\]\(([^)#:]*)(#[\w-]+)?\)", prose):
        target = (source / page.name).parent / link[1] if link[1] else source / page.name
        if not target.exists():
            findings.append(f"{line_of(link.start())}: there is no {link[1]}")
        elif link[2]:
            headings = re.findall(r"(?m)^#+ (.*)$", target.read_text())
            anchors = {re.sub(r"[^\w -]", "", h.lower()).replace(" ", "-") for h in headings}
            if link[2][1:] not in anchors:
                findings.append(f"{line_of(link.start())}: {link[1]} has no {link[2]}")


def read_sources() -> str:
    """All sources as one text, in which the pieces of a literal are one."""
    text = "\n".join(path.read_text() for folder in SOURCES for path in (source / folder).rglob("*")
                     if path.suffix in (".cpp", ".h", ".hpp", ".py"))
    return ADJACENT.sub("", text)


def check_troubleshooting() -> None:
    sources = read_sources()
    for page in (Page(source, "docs/containers.md"), Page(source, "docs/troubleshooting.md")):
        quotes = [(block.line + at, line) for block in page.blocks if block.language == "text"
                  for at, line in enumerate(block.lines)]
        for number, line in quotes:
            pieces = [piece.strip(" '\":") for piece in line.split("...")]
            for piece in [piece for piece in pieces if len(piece) > 3] or [line]:
                if piece not in sources:
                    findings.append(f"{page.name}:{number}: nothing in the sources says '{piece}'")
        if not quotes:
            findings.append(f"{page.name}: it quotes no error text")
    text = "\n".join(page.lines)
    for header in ("protocol/src/KelmError.h", "kelm/kelm.h"):
        declared = (source / header).read_text()
        body = re.findall(r"(?ms)^enum [^\n]*[eE]rror[^\n]*\{(.*?)\}", declared)
        for name, code in re.findall(r"(KELM_\w+) = (-?\d+)", "".join(body)):
            if code != "0" and not re.search(rf"`{name}`[^\n]*{code}\b", text):
                findings.append(f"{page.name}: it has not {name}, {code}")


def value_in(file: str, name: str) -> float | None:
    """What the sources give the constant, the array or the key of the configuration."""
    text = (source / file).read_text()
    found = (re.search(rf'\.{name}", ConfigKind::\w+, "(.*?)"', text)
             or re.search(rf"\bchar {name}\[(\d+)\]", text)
             or re.search(rf"\b{name}(?: = |\{{)(.*?)\}}?[;,]", text))
    if not found:
        return None
    words = re.sub(r"(?<=\d)U?L*\b|'", "", found[1]).replace("UINT32_MAX", "(1 << 32) - 1")
    return float(eval(words)) if re.fullmatch(r"[\d\s*()<-]+", words) else None


def check_limits() -> None:
    """Rows: what | number, unit | ... | `kName`, file |."""
    name = "docs/limits.md"
    rows = re.findall(r"(?m)^\|[^|]*\| ([\d,.]+):? ?(\w*)[^|]*\|.*\| `(\w+)`, `([\w./]+)` \|$",
                      (source / name).read_text())
    named = len(re.findall(r"`, `[\w./]+` \|\n", (source / name).read_text()))
    if len(rows) != named or not rows:
        findings.append(f"{name}: {len(rows)} of {named} rows with a constant can be read")
    for number, unit, constant, file in rows:
        told = float(number.replace(",", "")) * UNITS.get(unit, 1)
        there = value_in(file, constant) if (source / file).exists() else None
        # A size of 4 GB may be the largest number of 32 bits, and seconds are told of milliseconds.
        near = [told - (unit == "GB"), told, told * 1000 if unit == "s" else told]
        if there not in near:
            findings.append(f"{name}: {constant} in {file} is {there}, not {number} {unit}")


for page_name in list_pages(source):
    one = Page(source, page_name)
    for a_block in one.blocks:
        check_block(one, a_block)
    check_text(one)
check_troubleshooting()
check_limits()
print("\n".join(findings))
sys.exit(1 if findings else 0)
