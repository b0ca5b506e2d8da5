"""The service on two simulated accelerators, for tests in Python."""

import json
import os
import pathlib
import subprocess
import tempfile
import time
import unittest

SIMULATOR = os.environ["KELM_SIMULATOR_DIR"]


def eventually(look, agrees=bool):
    """What the look gives once that agrees, or in the end."""
    end = time.monotonic() + 60.0
    while not agrees(seen := look()) and time.monotonic() < end:
        time.sleep(0.1)
    return seen


class SimulatedServiceTest(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.work = pathlib.Path(directory.name)
        for name in ("bin", "config", "path"):
            (self.work / name).mkdir()
        (self.work / "bin/autoboot").symlink_to(f"{SIMULATOR}/autoboot")
        settings = {"security_settings": {"user_group": ""}}
        (self.work / "config/kelm_service.config").write_text(json.dumps(settings))
        pkill = self.work / "path/pkill"  # the real one would end boot tools of others
        pkill.write_text(f"""#!/bin/sh
for process in /proc/[0-9]*; do
    case $(readlink $process/exe) in */autoboot) ;; *) continue ;; esac
    ! grep -q {self.work}/bus $process/environ || kill "${{process#/proc/}}"
done
""")
        pkill.chmod(0o755)
        self.environment = dict(os.environ, PATH=f"{self.work}/path:{os.environ['PATH']}")
        for name in ("KELM_INSTALL_DIR", "KELM_RUN_DIR", "HOME"):
            self.environment[name] = str(self.work)

    def start(self, *command: str, **options) -> subprocess.Popen:
        options |= {"cwd": self.work, "env": self.environment, "text": True}
        process = subprocess.Popen(command, **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def start_service(self) -> subprocess.Popen:
        with open(self.work / "log", "a") as log:
            bus = [f"{SIMULATOR}/kelm-usb-bus", "--dir", f"{self.work}/bus"]
            devices = ["--device", "1.1", "--device", "1.2", "--", os.environ["KELM_DAEMON"]]
            return self.start(*bus, *devices, stdin=subprocess.PIPE, stdout=log, stderr=log)
