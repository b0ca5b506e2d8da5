"""The page of `kelmctl export` in a browser: an idle, a busy and a dead service. With KELM_PICTURES,
a directory, the pictures stay there."""

import os
import pathlib
import subprocess
import tempfile
import threading
import unittest

import kelm
from browser import Browser, Tab
from service import Service

# As long as the service lets a name be. Were it markup, or a text that a script gets to see as one,
# it would call what the page does not have, which is a complaint.
HOSTILE = "<img src=x onerror=boom()>\n\u202e"
HOSTILE_SHOWN = "<img src=x onerror=boom()>\ufffd\ufffd"

ROWS = "[...document.querySelectorAll('tr')].map((row) => row.cells[0].innerText)"


class PageTest(unittest.TestCase):
    def setUp(self) -> None:
        pictures = tempfile.TemporaryDirectory()
        self.addCleanup(pictures.cleanup)
        self.pictures = pathlib.Path(os.environ.get("KELM_PICTURES", pictures.name))
        self.service = Service(latency_ms=5, devices=3)
        self.addCleanup(self.service.remove)
        self.start_exporter(0)
        self.addCleanup(self.end_exporter)
        self.browser = Browser(os.environ["KELM_CHROMIUM"])
        self.addCleanup(self.browser.close)

    def start_exporter(self, port: int) -> None:
        self.exporter = subprocess.Popen(
            [os.environ["KELM_CTL"], "export", "--listen", f"127.0.0.1:{port}"],
            cwd=self.service.dir, env=self.service.environment, stdout=subprocess.PIPE, text=True,
        )
        self.port = int(self.exporter.stdout.readline().split()[-1])

    def end_exporter(self) -> None:
        self.exporter.terminate()
        with self.exporter:
            self.exporter.wait()

    def tab(self, *args, **options) -> Tab:
        return Tab(self.browser, *args, **options).open(f"http://127.0.0.1:{self.port}/")

    def load(self) -> None:
        """Tasks of a client with a bad name on a graph with another one, until the test's end."""
        client = kelm.Client(self.service.socket, name=HOSTILE)
        graph = client.load_graph(b"graph", name=HOSTILE)
        ended = threading.Event()

        def run() -> None:
            while not ended.is_set():
                try:
                    graph.infer(bytes(36000))
                except kelm.KelmError:
                    return

        thread = threading.Thread(target=run)
        thread.start()
        for cleanup in (client.close, thread.join, ended.set):
            self.addCleanup(cleanup)

    def test_idle_busy_and_dead(self) -> None:
        wide = self.tab(1200)
        wide.wait("document.body.className === 'live'")
        wide.wait("document.querySelector('.service').innerText.includes('Serving on 3 devices')")
        self.assertIn("No client has a graph loaded.", wide.eval("document.body.innerText"))
        wide.shoot(self.pictures / "idle.png")

        wide.eval("main.focus()")
        self.load()
        wide.wait("document.querySelectorAll('.resident').length > 0")
        wide.wait("parseFloat(document.querySelector('.tiles strong').innerText) > 0")
        rows = wide.eval(ROWS)
        self.assertEqual(rows.count(HOSTILE_SHOWN), 2, rows)
        self.assertEqual(wide.eval("document.querySelectorAll('main img, main script').length"), 0)
        self.assertGreater(wide.eval("document.querySelectorAll('.plot .line').length"), 1)
        self.assertEqual(wide.eval("document.activeElement.id"), "main")
        wide.shoot(self.pictures / "busy.png")

        plain = self.tab(1200, script=False)
        self.assertEqual(plain.eval(ROWS), rows)
        self.assertIn("reload", plain.eval("document.getElementById('stream').innerText"))
        self.tab(1200, dark=True).shoot(self.pictures / "dark.png")
        narrow = self.tab(360)
        narrow.wait("document.body.className === 'live'")
        self.assertEqual(narrow.eval("document.scrollingElement.scrollWidth"), 360)
        self.assertIn(HOSTILE_SHOWN, narrow.eval(ROWS))
        narrow.shoot(self.pictures / "narrow.png")

        wide.show()
        self.service.kill()
        wide.wait("document.querySelector('.service').innerText.includes('No service')")
        self.assertEqual(wide.eval("document.title"), "No service \u00b7 kelm")
        wide.shoot(self.pictures / "dead.png")
        for tab in (wide, narrow, plain):
            self.assertEqual(tab.complaints(), [])

        self.end_exporter()
        wide.wait("document.getElementById('stream').innerText.startsWith('Not live since')")
        self.service.start()
        self.start_exporter(self.port)
        wide.wait("document.querySelector('.service').innerText.includes('Serving on 3 devices')")
        self.assertEqual(wide.eval("document.body.className"), "live")
        # That a style or script of a name would be complained of.
        wide.eval("main.setAttribute('style', 'color: red')")
        self.assertIn("style-src-attr", wide.complaints())


if __name__ == "__main__":
    unittest.main()
