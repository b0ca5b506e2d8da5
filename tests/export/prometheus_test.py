"""Debian's Prometheus watches the service through the exporter while devices and service go."""

import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

PACKAGING = pathlib.Path(os.environ["KELM_PACKAGING"])
SIMULATOR = os.environ["KELM_SIMULATOR_DIR"]
CTL = os.environ["KELM_CTL"]


def eventually(look, agrees):
    """What the look gives once that agrees, or in the end."""
    end = time.monotonic() + 25.0
    while not agrees(seen := look()) and time.monotonic() < end:
        time.sleep(0.1)
    return seen


class PrometheusTest(unittest.TestCase):
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

    def start_prometheus(self, target: str) -> str:
        """Its URL. The shipped files, but for the times and the target."""
        rules = re.sub(r"\bfor: \w+", "for: 1s", (PACKAGING / "kelm.rules.yml").read_text())
        (self.work / "kelm.rules.yml").write_text(rules)
        config = re.sub(r"_interval: \w+", "_interval: 1s", (PACKAGING / "prometheus.yml").read_text())
        (self.work / "prometheus.yml").write_text(config.replace("127.0.0.1:10753", target))
        flags = (f"--storage.tsdb.path={self.work}/data", "--web.listen-address=127.0.0.1:0")
        log = self.work / "prometheus.log"
        with open(log, "w") as file:
            self.start("prometheus", "--config.file=prometheus.yml", *flags, stderr=file)
        listening = r'"Listening on" address=(\S+)'
        return "http://" + eventually(lambda: re.findall(listening, log.read_text()), bool)[0]

    def query(self, expression: str) -> dict[str, float]:
        """The values by what tells the series apart."""
        words = urllib.parse.urlencode({"query": expression})
        try:
            with urllib.request.urlopen(f"{self.prometheus}/api/v1/query?{words}") as answer:
                rows = json.load(answer)["data"]["result"]
        except OSError:  # not ready yet
            return {}
        key = lambda metric: metric.get("alertname") or metric.get("device") or ""
        return {key(row["metric"]): float(row["value"][1]) for row in rows}

    def wait_for(self, expression: str, values: dict[str, float]) -> None:
        seen = eventually(lambda: self.query(expression), lambda seen: seen == values)
        self.assertEqual(seen, values, expression)

    def wait_for_alerts(self, *names: str) -> None:
        self.wait_for('ALERTS{alertstate="firing"}', dict.fromkeys(names, 1.0))

    def test_alerts_fire_for_a_lost_device_and_a_service_that_ends(self) -> None:
        (self.work / "graph").write_text("KELMSIM micros=500\n")
        service = self.start_service()
        probe = ("--probe", "graph", "--probe-interval", "1")
        listen = ("--listen", "127.0.0.1:0")
        exporter = self.start(CTL, "export", *listen, *probe, stdout=subprocess.PIPE)
        target = "127.0.0.1:" + exporter.stdout.readline().split()[-1]
        self.prometheus = self.start_prometheus(target)
        self.wait_for("kelm_devices and on() kelm_probe_success == 1", {"": 2.0})
        self.wait_for("up", {"": 1.0})
        self.wait_for_alerts()
        text = urllib.request.urlopen(f"http://{target}/metrics").read()
        subprocess.run(("promtool", "check", "metrics"), input=text, check=True)

        name = sorted(self.query("kelm_device_up"))[1]
        print("unplug 1.2", file=service.stdin, flush=True)
        self.wait_for_alerts("KelmDeviceLost")
        self.wait_for("kelm_devices", {"": 1.0})
        print("plug 1.2", file=service.stdin, flush=True)
        self.wait_for("kelm_device_replugs_total > 0", {name: 1.0})
        self.wait_for_alerts()

        service.send_signal(signal.SIGUSR1)
        self.assertEqual(service.wait(), 0)
        self.wait_for_alerts("KelmServiceDown", "KelmProbeFailing")
        self.assertEqual(urllib.request.urlopen(f"http://{target}/livez").status, 200)
        with self.assertRaisesRegex(urllib.error.HTTPError, "503"):
            urllib.request.urlopen(f"http://{target}/readyz")
        self.wait_for("up", {"": 1.0})
        self.start_service()
        self.wait_for_alerts()
        self.wait_for("kelm_devices and on() kelm_probe_success == 1", {"": 2.0})
        # What went and came with the service was not replugged.
        self.wait_for("sum(kelm_device_replugs_total)", {"": 1.0})
        exporter.send_signal(signal.SIGTERM)
        self.assertEqual(exporter.wait(), 0)


if __name__ == "__main__":
    unittest.main()
