#!/usr/bin/env python3
"""Runs the commands of a page as its reader would, one after the other in one shell.

    run_page.py SOURCE_DIR BUILD_DIR PAGE
    run_page.py SOURCE_DIR --list            the pages that have commands to run

In the world of a page the repository is a directory of links, so that files that commands write
stay out of it; what would build or install something is looked at and not done (STUBS). The first
command that fails ends the test with its page, line and output.
"""

import os
import pathlib
import pty
import re
import select
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from pages import Block, Page, list_pages

LIMIT_SECONDS = 100
MARK = "KELM_DOC_WORLD"  # in the environment of each process of a world
# Directories of the machine, of which each world has its own.
PLACES = re.compile(
    r"(?<![\w.$}/-])(?=/(opt/kelm|etc/kelm|run/kelm|var/lib/kelm|usr/lib/kelm|tmp/k)\b)"
)
STUBS = {
    # The build is there: its preset or target must be. Everything else is done.
    "cmake": """case "$1 $2" in
        "--preset "*) preset=$2 ;; "--build --preset") preset=$3 ;; *) exec {real} "$@" ;;
    esac
    grep -q "\\"configurePreset\\": \\"$preset\\"" CMakePresets.json ||
        {{ echo "no preset $preset"; exit 1; }}""",
    "ninja": """[ "$1" = -C ] || exit 1; shift; exec {real} -C "$1" -t query "${{@:2}}" """,
    "pip": """[ "$1" = install ] && [ -e "$2/pyproject.toml" ]""",
    # No boot tool but the world's own is to be ended.
    "pkill": "true",
    # Debian's, which has Debian's numpy.
    "python3": """exec /usr/bin/python3 "$@" """,
}


class World:
    def __init__(self, source: pathlib.Path, build: pathlib.Path, directory: str) -> None:
        self.path = pathlib.Path(directory)
        for name in ("home", "run", "bin", "tmp", "repository/build"):
            (self.path / name).mkdir(parents=True)
        for entry in source.iterdir():
            if entry.name != "build" and not entry.name.startswith("."):
                (self.path / "repository" / entry.name).symlink_to(entry)
        (self.path / "repository/build/release").symlink_to(build)
        for name, body in STUBS.items():
            stub = self.path / "bin" / name
            stub.write_text("#!/bin/bash\n" + body.format(real=shutil.which(name)) + "\n")
            stub.chmod(0o755)

    def place(self, text: str) -> str:
        return PLACES.sub(str(self.path), text)

    def run(self, script: str) -> tuple[str, bool]:
        """What it has printed, on a terminal, and whether all of it has succeeded."""
        (self.path / "page.sh").write_text(script)
        own = {"TMPDIR": str(self.path / "tmp"), "LC_ALL": "C.UTF-8", MARK: str(self.path)}
        pid, terminal = pty.fork()
        if pid == 0:
            os.execvpe("bash", ["bash", str(self.path / "page.sh")], {**os.environ, **own})
        output, deadline = b"", time.monotonic() + LIMIT_SECONDS
        os.set_blocking(terminal, False)
        ended, status = 0, 0
        while not ended and time.monotonic() < deadline:
            time.sleep(0.02)
            output += drain(terminal)
            ended, status = os.waitpid(pid, os.WNOHANG)
        self.remove_processes()
        if not ended:
            status = os.waitpid(pid, 0)[1]
            output += f"\n@@failed still running after {LIMIT_SECONDS} s\n".encode()
        output += read_rest(terminal)
        return output.decode(errors="replace").replace("\r\n", "\n"), status == 0

    def remove_processes(self) -> None:
        """Those that carry the name of this world in their environment."""
        mark = f"{MARK}={self.path}".encode()
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if mark in (entry / "environ").read_bytes().split(b"\0"):
                    os.kill(int(entry.name), signal.SIGKILL)
            except OSError:
                pass  # ended, or another user's


def drain(terminal: int) -> bytes:
    data = b""
    try:
        while piece := os.read(terminal, 65536):
            data += piece
    except OSError:
        pass  # nothing more yet, or nobody writes any more
    return data


def read_rest(terminal: int) -> bytes:
    """Until nobody holds the other end; who outlives the page does not hold this up for ever."""
    data = b""
    while select.select([terminal], [], [], 2.0)[0]:
        try:
            data += os.read(terminal, 65536)
        except OSError:
            break
    return data


def script_of(block: Block, world: World) -> str:
    """The block as commands of which each tells its line and its end."""
    if block.is_marked("file") or block.language == "python":
        body = world.place("\n".join(block.lines)) + "\n"
        name = block.marker[1] if block.is_marked("file") else ""
        text = f"cat >{name} <<'END_OF_BLOCK'\n" if name else "python3 - <<'END_OF_BLOCK'\n"
        return f"at {block.line}\n{text}{body}END_OF_BLOCK\nended $?\n"
    script = ""
    commands = block.commands()
    for index, (line, text) in enumerate(commands):
        text = world.place(text).rstrip("\n")
        if block.is_marked("append") and index == len(commands) - 1:
            text += " " + " ".join(block.marker[1:])
        words = shlex.split(text, comments=True) if block.is_marked("bound") else []
        if set(words) & set(block.marker[2:]):
            text = f"bounded {block.marker[1]} {'env ' if '=' in words[0] else ''}{text}"
        script += f"at {line}\n{text}\nended $?\n"
    return script


def main() -> int:
    source = pathlib.Path(sys.argv[1]).resolve()
    if sys.argv[2] == "--list":
        pages = [Page(source, name) for name in list_pages(source)]
        print(";".join(page.name for page in pages if any(b.is_run() for b in page.blocks)), end="")
        return 0
    page = Page(source, sys.argv[3])
    with tempfile.TemporaryDirectory(prefix="kelm-doc-", ignore_cleanup_errors=True) as directory:
        world = World(source, pathlib.Path(sys.argv[2]).resolve(), directory)
        script = f"set -o pipefail\nworld={directory}\n. {source}/tests/docs/world.sh\n"
        script += "".join(script_of(block, world) for block in page.blocks if block.is_run())
        output, done = world.run(script + "exit 0\n")
        if "-v" in sys.argv:
            print(output)
        if done:
            return 0
        last = output.rsplit("\n@@at ", 1)[-1]
        line, _, said = last.partition("\n")
        log = pathlib.Path(directory, "home/service.log")
        print(f"{page.name}:{line}: {page.lines[int(line) - 1].strip()}\n{said}")
        if log.exists():
            print("the service:", *log.read_text(errors="replace").splitlines()[-5:], sep="\n")
        return 1


if __name__ == "__main__":
    sys.exit(main())
