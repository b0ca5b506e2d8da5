#!/usr/bin/python3
"""Clients in namespaces of their own, with no more of the machine than docs/containers.md tells to
mount, on a service outside, which runs as another user on simulated accelerators.

    container_test.py SOURCE_DIR BUILD_DIR        ends with 77 where it may not make namespaces
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

SERVICE, CLIENT = 22010, 22002
SPACES = ["unshare", "--mount", "--ipc", "--pid", "--fork", "--kill-child"]
# A root of its own, in a mount namespace that ends with it. Orders come on the standard input.
ENTER = r"""set -e
mount -t tmpfs tmpfs "$FILES/root"
cd "$FILES/root"
mkdir -p usr tmp proc dev/shm run/kelm opt/kelm opt/python work
for name in bin lib lib64; do ln -s "usr/$name" "$name"; done
mount --rbind -o ro /usr usr
mount --bind "$BUILD" opt/kelm
mount --bind "$SOURCE/python" opt/python
if [ "$PROC" = own ]; then mount -t proc proc proc; else mount --rbind /proc proc; fi
for name in null urandom; do touch "dev/$name"; mount --bind "/dev/$name" "dev/$name"; done
mount --bind "$FILES/run" run/kelm
mount -o remount,bind,ro run/kelm
if [ "$SHM" = host ]; then mount --bind /dev/shm dev/shm; else mount -t tmpfs tmpfs dev/shm; fi
cp "$FILES"/{net.graph,in.bin,pooled.py} work/
if [ "$(cat /proc/self/setgroups)" = allow ]; then
    chown -R "$CLIENT" work
    as_client="setpriv --reuid $CLIENT --regid $CLIENT --groups $MEMBER_OF --inh-caps=-all"
fi
exec chroot . /usr/bin/env -i PATH=/opt/kelm:/usr/bin KELM_RUN_DIR=/run/kelm HOME=/work \
    PYTHONPATH=/opt/python KELM_LIBRARY=/opt/kelm/libkelm.so.1 PYTHONDONTWRITEBYTECODE=1 \
    $as_client bash -c 'cd /work; while read -r order; do eval "$order" </dev/null 2>&1; echo "@ $?"; done'
"""
# Tensors in a pool of the library: results, and again when the service has been started anew.
POOLED = """import kelm, time
with kelm.Client(reconnect=True) as client, client.load_graph("net.graph") as graph:
    right = open("out.bin", "rb").read()
    data = open("in.bin", "rb").read()
    def infer(pool):
        with pool.acquire() as slot:
            slot.input[:] = data
            graph.infer(slot)
            return bytes(slot.output) == right
    pool = graph.pool()
    assert all(infer(pool) for _ in range(100))
    print("@ 0", flush=True)
    number, deadline = client.id, time.monotonic() + 20
    while client.id == number or not client.connected:
        time.sleep(0.01)
        assert time.monotonic() < deadline, "it has not come back"
    assert infer(pool)
"""
INFER = "kelmctl infer --graph net.graph --input in.bin --output out.bin"
DOCTOR = "kelmctl doctor --graph net.graph"
# The number of those names of a pool that tell no start of their process.
COUNT = (
    "python3 -c 'import kelm, os; client = kelm.Client(); graph = client.load_graph(\"net.graph\");"
    " slot = graph.pool().acquire(); mine = f\"kelm-{os.getpid()}-\";"
    " print(sum(mine in name and \"-0-\" in name for name in os.listdir(\"/dev/shm\")))'")
# A container, an order, its exit status, and words of what it says.
ROWS = (
    ({}, INFER, 0, "1024 bytes written"),
    ({}, DOCTOR, 0, "held by a process of another pid namespace"),
    ({}, DOCTOR, 0, "1024 back in"),
    ({}, "kelmctl stop", 1, "stop it there, or stop its container"),
    ({}, COUNT, 0, "0\n"),
    # A process of the machine's /proc with the same number is not the one that made a segment.
    ({"proc": "host"}, COUNT, 0, "2\n"),
    ({"shm": "own"}, INFER, 1, "lie in the /dev/shm that the service sees"),
    ({"member_of": CLIENT}, INFER, 1, "may not enter its directory"),
    ({"rootless": True, "proc": "host"}, INFER, 1, "map the service's account into this user"),
)


class Machine:
    """The service, and what lies on the machine around it."""

    starts = 0

    def __init__(self, source: pathlib.Path, build: pathlib.Path, files: pathlib.Path) -> None:
        self.source, self.build, self.files = source, build, files
        for name in ("run", "home", "path", "root", "install/bin", "install/config"):
            (files / name).mkdir(parents=True)
        files.chmod(0o755)
        (files / "path/pkill").write_text("#!/bin/sh\n")  # only this world's boot tool is to end
        (files / "path/pkill").chmod(0o755)
        (files / "install/bin/autoboot").symlink_to(build / "tools/simulator/autoboot")
        (files / "install/config/kelm_service.config").write_text(
            '{ "security_settings": { "user_group": "" } }'
        )
        (files / "net.graph").write_bytes(b"KELMSIM input=4096 output=1024 memory=9\ngraph")
        (files / "in.bin").write_bytes(os.urandom(4096))
        (files / "pooled.py").write_text(POOLED)
        for name in ("run", "home"):
            os.chown(files / name, SERVICE, SERVICE)
        (files / "run").chmod(0o750)
        self.environment = {"PATH": f"{files}/path:{os.environ['PATH']}", "HOME": f"{files}/home",
                            "KELM_RUN_DIR": f"{files}/run", "KELM_INSTALL_DIR": f"{files}/install"}

    def start(self) -> None:
        self.starts += 1  # each has a directory of its own, with which its boot tool ends
        self.simulator = self.files / f"home/simulator-{self.starts}"
        bus = [self.build / "tools/simulator/kelm-usb-bus", "--dir", self.simulator, "--device",
               "1.1", "--device", "1.2", "--", self.build / "kelmdaemon"]
        user = ["setpriv", "--reuid", str(SERVICE), "--regid", str(SERVICE), "--clear-groups"]
        with open(self.files / "log", "ab") as log:
            self.service = subprocess.Popen(
                [*user, *bus],
                stdin=subprocess.PIPE, stdout=log, stderr=log, cwd=self.files / "home", umask=0o007,
                env=self.environment)
        self.control("wait-ready", "--timeout", "20")

    def control(self, *words: str) -> None:
        subprocess.run([self.build / "kelmctl", *words], env=self.environment, check=True,
                       stdout=subprocess.DEVNULL)

    def stop(self) -> None:
        self.control("stop")
        assert self.service.wait(20) == 0, self.service.returncode
        shutil.rmtree(self.simulator)


class Container:
    def __init__(self, machine: Machine, shm: str = "host", proc: str = "own",
                 rootless: bool = False, member_of: int = SERVICE) -> None:
        environment = {**os.environ, "SOURCE": str(machine.source), "BUILD": str(machine.build),
                       "FILES": str(machine.files), "CLIENT": str(CLIENT),
                       "MEMBER_OF": str(member_of), "SHM": shm, "PROC": proc}
        # Made by the user himself, with his groups and no user but him.
        user = ["setpriv", "--reuid", str(CLIENT), "--regid", str(CLIENT), "--groups",
                str(member_of), "unshare", "--user", "--map-root-user"] if rootless else []
        self.process = subprocess.Popen([*user, *SPACES, "bash", "-c", ENTER], env=environment,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)

    def run(self, order: str, status: int = 0, words: str = "") -> str:
        self.process.stdin.write(order + "\n")
        self.process.stdin.flush()
        said = ""
        for line in self.process.stdout:
            if line.startswith("@ "):
                assert int(line[2:]) == status and words in said, f"{order}: {line}{said}"
                return said
            said += line
        raise AssertionError(f"the container has ended: {said}")

    def wait(self) -> None:
        """For the end of an order that has told of a step."""
        assert self.process.stdout.readline() == "@ 0\n"

    def end(self) -> None:
        self.process.stdin.close()
        assert self.process.wait(20) == 0


def main() -> int:
    probe = [*SPACES, "mount", "-t", "tmpfs", "tmpfs", "/mnt"]
    if os.geteuid() != 0 or subprocess.run(probe, capture_output=True, check=False).returncode:
        print("containers: not tested, this user may not make namespaces with mounts in them")
        return 77
    source, build = (pathlib.Path(word).resolve() for word in sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="kelm-container-") as files:
        machine = Machine(source, build, pathlib.Path(files))
        try:
            machine.start()
            for kind, order, status, words in ROWS:
                container = Container(machine, **kind)
                container.run(order, status, words)
                container.end()
            container = Container(machine)
            container.run(INFER)
            container.run("python3 pooled.py")
            machine.stop()
            machine.start()
            container.wait()
            container.end()
            machine.stop()
        except BaseException:
            print((machine.files / "log").read_text()[-3000:])
            raise
        finally:
            machine.service.kill()
    return 0


if __name__ == "__main__":
    sys.exit(main())
