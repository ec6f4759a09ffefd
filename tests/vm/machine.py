"""The virtual machine and the simulated UPS that feeds it, as story.py uses them: both as processes, what they say as
lines with the time at which they were said, and every wait with a limit.

The guest's first serial port is a 16550 behind which the simulator's terminal lies. Its kernel's console and the
shell that runs the test's commands (guest/vm-shell) go through virtio, so that no other serial port exists."""

import base64
import collections
import contextlib
import json
import os
import re
import select
import socket
import subprocess
import threading
import time

Line = collections.namedtuple("Line", "time text")


# Colours and the like, and the animation in which systemd shows what it waits for.
TERMINAL_CONTROL = re.compile(r"\x1b(\[[0-9;?]*[A-Za-z]|M)|.*\r")


class Failed(Exception):
    """Something that the story must see did not happen. The text says what."""


class Clock:
    """Seconds since the test began; and how much longer than on a real machine everything may take."""

    def __init__(self):
        self.start = time.monotonic()
        self.patience = 1

    def now(self):
        return time.monotonic() - self.start

    def wait(self, what, limit, predicate, alive=None):
        """The first true value of predicate(). `alive` raises when waiting has become pointless."""
        end = self.now() + limit * self.patience
        while not (value := predicate()):
            if alive:
                alive()
            if self.now() > end:
                raise Failed(f"{what}: not within {limit * self.patience:.0f} s")
            time.sleep(0.05)
        return value


class Lines:
    """What a stream says, line by line. It is read by a thread of its own until its end."""

    def __init__(self, clock, stream, keep):
        self.clock = clock
        self.lines = []
        self.thread = threading.Thread(target=self._read, args=(stream, keep), daemon=True)
        self.thread.start()

    def _read(self, stream, keep):
        with stream, open(keep, "w", encoding="utf-8", errors="replace") as copy:
            for raw in iter(stream.readline, b""):
                text = TERMINAL_CONTROL.sub("", raw.decode("utf-8", "replace").rstrip())
                line = Line(self.clock.now(), text)
                self.lines.append(line)
                print(f"{line.time:8.1f} {line.text}", file=copy, flush=True)

    def find(self, pattern, begin=0):
        return next((line for line in self.lines[begin:] if re.search(pattern, line.text)), None)


def stop_process(process):
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Ups:
    """The simulator. Its log is what arrived over the line and what became of it."""

    def __init__(self, clock, upssim, directory, logs):
        self.clock = clock
        self.upssim = upssim
        self.port = f"{directory}/port"
        self.control = f"{directory}/ups"
        self.log = f"{logs}/ups.log"
        open(self.log, "w", encoding="utf-8").close()
        with open(f"{logs}/upssim.txt", "w", encoding="utf-8") as out:
            self.process = subprocess.Popen(
                [upssim, "--link", self.port, "--control", self.control, "--log", self.log], stdout=out, stderr=out)
        self.started = clock.now()
        try:
            clock.wait("the simulated UPS on its terminal", 10,
                       lambda: os.path.exists(self.port) and os.path.exists(self.control), self.alive)
        except BaseException:
            self.stop()
            raise

    def alive(self):
        if self.process.poll() is not None:
            raise Failed("the simulated UPS has ended")

    def ask(self, command):
        done = subprocess.run([self.upssim, "--control", self.control, "--ask", command],
                              capture_output=True, text=True, timeout=30)
        if done.returncode != 0:
            raise Failed(f"the simulated UPS on '{command}': {(done.stdout + done.stderr).strip()}")
        return done.stdout

    def state(self):
        return json.loads(self.ask("status").splitlines()[0])

    def entries(self):
        with open(self.log, encoding="utf-8") as log:
            return log.read().splitlines()

    def length(self):
        return len(self.entries())

    def find(self, pattern, begin=0):
        """The first entry of the log from line `begin` on; its time is counted from the simulator's start."""
        for entry in self.entries()[begin:]:
            if re.search(pattern, entry):
                seconds, text = entry.split(" ", 1)
                return Line(self.started + float(seconds), text)
        return None

    def count(self, pattern, begin=0):
        return sum(1 for entry in self.entries()[begin:] if re.search(pattern, entry))

    def stop(self):
        stop_process(self.process)


class Machine:
    """One boot of the guest, from power on to power off."""

    def __init__(self, clock, paths, boot, accelerated, ups):
        self.clock = clock
        self.shell_path = f"{paths.run}/shell-{boot}"
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.ids = 0
        self.received = b""
        self.shell = None
        self.process = subprocess.Popen(
            self._command(paths, accelerated, ups), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=open(f"{paths.logs}/qemu-{boot}.txt", "wb"))
        self.on = clock.now()
        self.console = Lines(clock, self.process.stdout, f"{paths.logs}/console-{boot}.log")
        try:
            self._connect()
        except BaseException:
            self.stop()
            raise

    def _command(self, paths, accelerated, ups):
        speed = ["-accel", "kvm", "-cpu", "host"] if accelerated else ["-accel", "tcg,thread=multi", "-cpu", "max"]
        return ["qemu-system-x86_64", *speed, "-smp", "2", "-m", "512", "-nodefaults", "-no-user-config",
                "-display", "none", "-kernel", f"{paths.image}/vmlinuz", "-initrd", f"{paths.image}/initrd.img",
                "-append", "root=/dev/vda rw console=tty0 console=hvc0 panic=-1 systemd.show_status=1", "-no-reboot",
                "-drive", f"file={paths.disk},format=raw,if=virtio",
                "-device", "virtio-rng-pci",
                "-netdev", f"user,id=lan,hostfwd=tcp:127.0.0.1:{self.port}-:4112",
                "-device", "virtio-net-pci,netdev=lan",
                "-chardev", f"serial,id=ups,path={os.path.realpath(ups.port)}",
                "-device", "isa-serial,chardev=ups,index=0",
                "-device", "virtio-serial-pci",
                "-chardev", "stdio,id=console,signal=off", "-device", "virtconsole,chardev=console",
                "-chardev", f"socket,id=shell,path={self.shell_path},server=on,wait=off",
                "-device", "virtserialport,chardev=shell,name=test"]

    def alive(self):
        if self.process.poll() is not None:
            raise Failed(f"the machine has ended, its emulator with status {self.process.returncode}")

    def _connect(self):
        self.clock.wait("the emulator", 20, lambda: os.path.exists(self.shell_path), self.alive)
        self.shell = socket.socket(socket.AF_UNIX)
        self.shell.connect(self.shell_path)

    def _answer(self, number):
        """The answer to a command as (status, output), or None while it has not come."""
        if select.select([self.shell], [], [], 0)[0]:
            with contextlib.suppress(ConnectionError):
                self.received += self.shell.recv(65536)
        while b"\n" in self.received:
            line, self.received = self.received.split(b"\n", 1)
            words = line.decode("ascii", "replace").split()
            if len(words) >= 2 and words[0] == str(number):
                output = base64.b64decode(words[2]).decode("utf-8", "replace") if len(words) > 2 else ""
                return int(words[1]), output
        return None

    def run(self, command, limit=30):
        """Runs a command as root in the guest; its exit status, and what it printed."""
        self.ids += 1
        self.shell.sendall(f"{self.ids} {base64.b64encode(command.encode()).decode()}\n".encode())
        return self.clock.wait(f"'{command}' in the guest", limit, lambda: self._answer(self.ids), self.alive)

    def get(self, command, limit=30):
        """What a command that must succeed prints."""
        status, output = self.run(command, limit)
        if status != 0:
            raise Failed(f"'{command}' in the guest ended with status {status}: {output.strip()}")
        return output.strip()

    def stop(self):
        stop_process(self.process)
        if self.shell:
            self.shell.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.shell_path)


def hardware_virtualisation(paths):
    """Whether a guest really runs with KVM here: a kernel without a root ends by a panic, and that is awaited. A device
    that can be opened proves nothing: on some machines a guest started with it stands still for ever."""
    if not os.access("/dev/kvm", os.R_OK | os.W_OK):
        return False
    command = ["qemu-system-x86_64", "-accel", "kvm", "-cpu", "host", "-m", "256", "-nodefaults", "-no-user-config",
               "-display", "none", "-no-reboot", "-kernel", f"{paths.image}/vmlinuz", "-append", "panic=-1"]
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=20).returncode == 0
    except subprocess.TimeoutExpired:
        return False


class Monitor:
    """`voltaria` on this side of the emulated network."""

    def __init__(self, voltaria, machine):
        self.voltaria = voltaria
        self.machine = machine

    def command(self, *words):
        return [self.voltaria, *words, "--host", "127.0.0.1", "--port", str(self.machine.port)]

    def run(self, *words, stdin="", timeout=20):
        return subprocess.run(self.command(*words, "--timeout", str(timeout)), input=stdin, capture_output=True, text=True,
                              env={**os.environ, "LC_ALL": "C.UTF-8"}, timeout=120)

    def get(self, *words, stdin=""):
        done = self.run(*words, stdin=stdin)
        if done.returncode != 0:
            raise Failed(f"voltaria {' '.join(words)}: status {done.returncode}, {(done.stdout + done.stderr).strip()}")
        return done.stdout

    def status(self):
        """The state as the agent tells it; None while none answers."""
        done = self.run("status", "--json", timeout=3)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def good_status(self):
        """The state, once the agent knows a UPS and what it measures."""
        status = self.status()
        return status if status and status["link"]["code"] == 2 and status["measurements"] else None
