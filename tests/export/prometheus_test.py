"""Debian's Prometheus watches the service through the exporter while devices and service go."""

import json
import os
import pathlib
import re
import signal
import subprocess
import unittest
import urllib.error
import urllib.parse
import urllib.request

from simulated_service import SimulatedServiceTest, eventually

PACKAGING = pathlib.Path(os.environ["KELM_PACKAGING"])
CTL = os.environ["KELM_CTL"]


class PrometheusTest(SimulatedServiceTest):
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
