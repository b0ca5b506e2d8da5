"""The real service as a child process, on simulated devices and with all its paths in a directory
of its own."""

import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time
from typing import Callable


def eventually(holds: Callable[[], object], limit: float = 20.0) -> bool:
    end = time.monotonic() + limit
    while not holds():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


class Service:
    def __init__(self, latency_ms: int = 0, devices: int = 2) -> None:
        self._files = tempfile.TemporaryDirectory()
        self.dir = pathlib.Path(self._files.name)
        for name in ("run", "home", "install/config"):
            (self.dir / name).mkdir(parents=True)
        fake = {"enable_fake_device": True, "fake_device_number": devices}
        fake.update(dict.fromkeys(("load_tensor_latency", "get_result_latency"), latency_ms))
        fake.update(alloc_graph_latency=0, latency_distribution_stddev=0.0)
        config = {"fake_device_settings": fake, "security_settings": {"user_group": ""}}
        (self.dir / "install/config/kelm_service.config").write_text(json.dumps(config))
        self.socket = str(self.dir / "run/kelm_service.sock")
        self.environment = {
            **os.environ,
            "KELM_RUN_DIR": str(self.dir / "run"),
            "KELM_INSTALL_DIR": str(self.dir / "install"),
            "HOME": str(self.dir / "home"),
        }
        self.start()

    def start(self) -> None:
        with open(self.dir / "log", "ab") as log:
            self.process = subprocess.Popen(
                [os.environ["KELM_DAEMON"]], cwd=self.dir, env=self.environment, stdout=log,
                stderr=log,
            )
        wait = [os.environ["KELM_CTL"], "wait-ready", "--timeout", "30"]
        subprocess.run(wait, env=self.environment, check=True)

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def stop(self) -> str:
        """What it has logged, which is complete only now."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGUSR1)
            self.process.wait(30)
        return (self.dir / "log").read_text(errors="replace")

    def remove(self) -> None:
        self.stop()
        self._files.cleanup()
