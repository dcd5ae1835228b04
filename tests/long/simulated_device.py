"""A simulated device and runs of the tool on it, for the production tests.

Every simulator and every run of the tool is a process of its own; the tool finds the device through
the build's substitute libusb. Nothing outside the device's folder is written.
"""

import json
import os
import shlex
import signal
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

PROMPT_SECONDS = 20.0  # for anything but an update
LONGEST_SECONDS = 300.0  # two engine runs that wait wherever they can, on a busy machine
POLL_SECONDS = 0.002

REQUEST_COLUMN = 19  # of a line in a device's journal: time and number stand before it

Words = list[str]


class BrokenPromise(Exception):
    """The tool, or its output, is wrong."""


def promise(kept: bool, text: str) -> None:
    if not kept:
        raise BrokenPromise(text)


@dataclass(frozen=True)
class Ended:
    """How a run of the tool has ended."""

    words: Words
    exit: int
    out: str
    err: str
    seconds: float

    def __str__(self) -> str:
        return f"{shlex.join(self.words)}: exit {self.exit}\n{self.out}{self.err}"


@dataclass(frozen=True)
class Kind:
    """A family of devices and the way it is connected."""

    family: str
    ftdi: bool = False

    @property
    def name(self) -> str:
        return f"{self.family}/{'ftdi' if self.ftdi else 'usb'}"

    @property
    def target(self) -> Words:
        """The options that name the device."""
        return ["--ftdi", "TAVO0001"] if self.ftdi else ["--usb", "1"]


class Device:
    """One simulated device, its folder and the tool beside it.

    The state lives in files, so that the device outlives its simulator: it can be plugged in again
    with other faults.
    """

    def __init__(self, build: Path, folder: Path, kind: Kind) -> None:
        self.build = build
        self.folder = folder
        self.kind = kind
        self._simulator: subprocess.Popen[bytes] | None = None
        self._environment = dict(os.environ)
        self._environment["LD_LIBRARY_PATH"] = str(build / "substitute")
        self._environment["XDG_STATE_HOME"] = str(folder / "log")
        folder.mkdir(parents=True)

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *_: object) -> None:
        self.switch_off()

    def make_firmware(self, name: str, seed: int) -> bytes:
        """Writes NAME.hex, and returns what the flash holds after an update with it."""
        done = self.run(["pack", "--family", self.kind.family, "--seed", str(seed),
                         "--raw", f"{name}.bin", "-o", f"{name}.hex"])
        promise(done.exit == 0, f"no firmware: {done}")
        return (self.folder / f"{name}.bin").read_bytes()

    def plug_in(self, options: Words) -> None:
        self.switch_off()
        port_file = self.folder / "port"
        port_file.unlink(missing_ok=True)
        words = [str(self.build / "bin/firmware-updater"), "simulate", "--family", self.kind.family,
                 "--state", "device", "--port-file", "port", *options]
        if self.kind.ftdi:
            words.append("--ftdi")
        with (self.folder / "simulator.txt").open("ab") as console:
            self._simulator = subprocess.Popen(
                words, cwd=self.folder, env=self._environment, stdin=subprocess.DEVNULL,
                stdout=console, stderr=console)
        deadline = time.monotonic() + PROMPT_SECONDS
        while not port_file.exists():
            promise(time.monotonic() < deadline, f"no simulator: {shlex.join(words)}")
            time.sleep(POLL_SECONDS)
        self._environment["TAVO_SIMULATORS"] = "127.0.0.1:" + port_file.read_text().strip()

    def switch_off(self) -> None:
        if self._simulator is None:
            return
        self._simulator.terminate()
        simulator, self._simulator = self._simulator, None
        promise(simulator.wait(PROMPT_SECONDS) == 0, "the simulator did not end well")

    def start(self, words: Words) -> "subprocess.Popen[str]":
        return subprocess.Popen([str(self.build / "bin/firmware-updater"), *words],
                                cwd=self.folder, env=self._environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def run(self, words: Words, interrupt_after: float | None = None) -> Ended:
        """Runs the tool to its end; after `interrupt_after` seconds as if Ctrl-C was pressed."""
        begin = time.monotonic()
        tool = self.start(words)
        if interrupt_after is not None:
            try:
                tool.wait(interrupt_after)
            except subprocess.TimeoutExpired:
                tool.send_signal(signal.SIGINT)
        try:
            out, err = tool.communicate(timeout=LONGEST_SECONDS)
        except subprocess.TimeoutExpired:
            tool.kill()
            out, err = tool.communicate()
            raise BrokenPromise(f"no end within {LONGEST_SECONDS:.0f} s: {words}\n{out}") from None
        return Ended(words, tool.returncode, out, err, time.monotonic() - begin)

    def requests(self) -> Words:
        """All requests so far, without the escape bytes between them."""
        journal = self.folder / "device/journal.txt"
        lines = journal.read_text(encoding="utf-8").splitlines() if journal.exists() else []
        return [line[REQUEST_COLUMN:].split("  (")[0] for line in lines[1:]
                if line[REQUEST_COLUMN:].startswith("0x")]

    def flash(self) -> bytes:
        return (self.folder / "device/flash.bin").read_bytes()

    def state(self) -> dict:
        return json.loads((self.folder / "device/state.json").read_text(encoding="utf-8"))


def recommended(text: str) -> Words:
    """The command that ends a text, as words without the tool itself; or none."""
    _, _, command = text.rpartition("firmware-updater ")
    return shlex.split(command)
