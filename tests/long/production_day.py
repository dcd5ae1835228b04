#!/usr/bin/env python3
"""A day of production: many updates, one tool process each, on several devices with random faults.

Every simulated device, and every run of the tool, is a process of its own; the tool finds the device
through the build's substitute libusb. Every update brings other firmware than the device holds. After
a failure the command that the record recommends is run, until the device is updated; a lasting fault
is removed first, as a person would. After a kill `firmware-updater info` names that command.

Every record is compared with exit code, device, flash, bytes, times and SHA-256.
"""

import argparse
import hashlib
import json
import os
import random
import shlex
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

PROMPT_SECONDS = 20.0  # for anything but an update
LONGEST_SECONDS = 300.0  # two engine runs that wait wherever they can, on a busy machine
POLL_SECONDS = 0.002

Words = list[str]


class BrokenPromise(Exception):
    """The tool, or its output, is wrong."""


def promise(kept: bool, text: str) -> None:
    if not kept:
        raise BrokenPromise(text)


@dataclass(frozen=True)
class Stop:
    """A signal that a run of the tool gets: SIGINT, as from Ctrl-C, or SIGKILL."""

    after: float
    signal: signal.Signals


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

    def run(self, words: Words, stop: "Stop | None" = None) -> Ended:
        """Runs the tool to its end, or until it is interrupted or killed."""
        begin = time.monotonic()
        tool = subprocess.Popen([str(self.build / "bin/firmware-updater"), *words],
                                cwd=self.folder, env=self._environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        if stop is not None:
            try:
                tool.wait(stop.after)
            except subprocess.TimeoutExpired:
                tool.send_signal(stop.signal)
        try:
            out, err = tool.communicate(timeout=LONGEST_SECONDS)
        except subprocess.TimeoutExpired:
            tool.kill()
            out, err = tool.communicate()
            raise BrokenPromise(f"no end within {LONGEST_SECONDS:.0f} s: {words}\n{out}") from None
        return Ended(words, tool.returncode, out, err, time.monotonic() - begin)

    def flash(self) -> bytes:
        return (self.folder / "device/flash.bin").read_bytes()

    def state(self) -> dict:
        return json.loads((self.folder / "device/state.json").read_text(encoding="utf-8"))


def recommended(text: str) -> Words:
    """The command that ends a text, as words without the tool itself; or none."""
    _, _, command = text.rpartition("firmware-updater ")
    return shlex.split(command)


KINDS = [Kind("plain"), Kind("labelled", ftdi=True), Kind("tunnel"), Kind("gateway", ftdi=True),
         Kind("plain", ftdi=True), Kind("labelled"), Kind("variant"), Kind("tunnel", ftdi=True)]
MOST_RECOVERIES = 3  # an update has two faults at most, and each spoils one run
MOST_LOOKS = 3
CLOCK_SLACK = 3.0  # seconds; starting a process takes its time on a busy machine
REPLUG_SECONDS = 3.0  # longer than any cable is out

# Names that a fault can have in the tables; how often each is drawn.
FAULTS = {"none": 3, "lose": 3, "cut": 2, "delay": 2, "repeat": 2, "damage": 1, "powercut": 4,
          "unplug": 3, "silence": 1, "gone": 2, "ctrl-c": 2, "kill": 3}
LASTING = {"silence", "gone"}
SIGNALS = {"ctrl-c": signal.SIGINT, "kill": signal.SIGKILL}

# Half of the faults meet one of the few requests that matter most, the others any request.
KEY_REQUESTS = ["0x100:1", "0x100:2", "0x100:3", "0x100:4", "0x100:5", "0x120:1", "0x121:1",
                "0x122:1", "0x130:1", "0x132:1", "0x133:1", "0x134:1", "0x134:60", "0x134:120",
                "0x136:1", "0x12F:1", "0x12F:2", "0x180:1", "0x180:2"]
REQUESTS_OF_AN_UPDATE = 260

# Endings that agree with exit codes; 3 and 4 are those of a run that has opened nothing.
EXITS = {"succeeded": {0}, "failed": {1, 3, 4, 5, 7}, "stopped": {6}}
NOT_OPENED = 3


@dataclass
class Plan:
    """What goes wrong during one update."""

    names: Words
    options: Words
    stop: Stop | None

    @property
    def lasts(self) -> bool:
        return not LASTING.isdisjoint(self.names)


@dataclass
class Firmware:
    name: str
    image: bytes
    sha256: str


def draw_plan(dice: random.Random) -> Plan:
    drawn = dice.choices(list(FAULTS), list(FAULTS.values()), k=dice.choice([1, 1, 2]))
    names = [name for name in dict.fromkeys(drawn) if name != "none"] or ["none"]
    plan = Plan(names, [], None)
    for name in names:
        where = (f"id={dice.choice(KEY_REQUESTS)}" if dice.random() < 0.5
                 else str(dice.randint(1, REQUESTS_OF_AN_UPDATE)))
        how = {"delay": f"delay:{where}:{dice.choice([500, 2000, 4200, 6000])}ms",
               "repeat": f"repeat:{where}:{dice.choice([0, 20, 300])}ms",
               "unplug": f"unplug:{where}:{dice.choice([300, 1000, 2000])}ms",
               "silence": f"lose:{where}+", "gone": f"unplug:{where}"}
        if name in SIGNALS:
            plan.stop = Stop(dice.uniform(0.5, 9.0), SIGNALS[name])
        elif name != "none":
            plan.options += ["--fault", how.get(name, f"{name}:{where}")]
    return plan


def result_of(run: Ended) -> dict:
    """The one result of a run, after a look at all of its lines."""
    lines = [json.loads(line) for line in run.out.splitlines()]
    results = [line for line in lines if line["event"] == "result"]
    promise(all(line["version"] == 1 for line in lines), "a line has no version")
    promise(len(results) == 1 and lines[-1] is results[0], f"{len(results)} results")
    result = results[0]
    retries = sum(line["event"] == "retry" for line in lines)
    promise(result["retries"] == retries, f"{retries} lines of retries, not {result['retries']}")
    phases = Counter(line["phase"] for line in lines
                     if line["event"] == "phase" and line["state"] == "begins")
    ends = Counter(line["phase"] for line in lines
                   if line["event"] == "phase" and line["state"] != "begins")
    promise(phases == ends, f"phases begin {phases} and end {ends}")
    told = sum(line.get("seconds", 0) for line in lines if line["event"] == "phase")
    promise(abs(told - sum(result["durations"].values())) < 0.01, f"phases of {told} s")
    return result


def check_record(run: Ended, result: dict, firmware: Firmware) -> None:
    """What must be so whatever has happened."""
    ending, failure = result["ending"], result["failure"]
    promise(result["exit"] == run.exit, f"the record says exit {result['exit']}")
    promise(run.exit in EXITS[ending], f"{ending} with exit {run.exit}")
    promise((failure is not None) == (ending == "failed"), f"{ending} with failure {failure}")
    promise(result["command"] == run.words[0], "the command")
    promise(result["sha256"] == firmware.sha256, "the SHA-256")
    written, due = result["bytes"]["written"], result["bytes"]["due"]
    # Recovering a device that has a label writes it twice: without an application it takes none.
    most = len(firmware.image) * (2 if run.words[0] == "recover" else 1)
    promise(0 <= written <= most, f"{written} bytes of {most}")
    promise(0 <= due <= most, f"{due} bytes due")
    seconds, phases = result["seconds"], sum(result["durations"].values())
    if run.exit != NOT_OPENED:
        promise(run.seconds - CLOCK_SLACK <= seconds <= run.seconds + 0.01,
                f"{seconds} s told, {run.seconds:.1f} s passed")
    promise(phases <= seconds + 0.05, f"phases of {phases} s in {seconds} s")
    # Where nothing was opened, the same command is to be run again.
    settled = ending == "succeeded" or run.exit == NOT_OPENED
    promise((result["state"]["next"] is None) == settled or result["state"]["device"]
            == "updated-and-verified", f"next: {result['state']['next']}")


def check_claim(device: Device, result: dict, firmware: Firmware, before: bytes) -> None:
    """What the record says of the device, against the device itself."""
    claim = result["state"]["device"]
    state, flash = device.state(), device.flash()
    fits = {
        "updated-and-verified": state["state"] == "application" and flash == firmware.image,
        "updated-not-verified": state["state"] == "application" and flash == firmware.image,
        "runs-incomplete": state["state"] == "application" and flash == firmware.image,
        "old-application-runs": state["state"] == "application" and flash == before,
        "untouched": flash == before,
        "bootloader-as-found": state["state"] == "bootloader" and flash == before,
        "bootloader-flash-intact": state["state"] == "bootloader" and state["intact"],
        "bootloader-flash-erased": state["state"] == "bootloader" and not state["intact"],
    }
    promise(fits.get(claim, claim == "unknown"), f"{claim} is told of a device that is {state}"
            f" and holds {'the new' if flash == firmware.image else 'no new'} firmware")
    if result["ending"] == "succeeded":
        due = result["bytes"]["due"]
        promise(claim == "updated-and-verified", f"succeeded, but {claim}")
        promise(0 < due <= result["bytes"]["written"], f"{result['bytes']} of a whole update")


class Lane:
    """One simulated device, and the updates it gets one after the other."""

    def __init__(self, number: int, device: Device, seed: int) -> None:
        self.number = number
        self.device = device
        self.dice = random.Random(f"{seed}/{number}")
        self.firmware = [self.make_firmware(seed) for seed in (2, 3)]
        self.processes: Counter[str] = Counter()  # by command and ending
        self.left: Counter[str] = Counter()  # states in which failures have left the device
        self.recoveries: Counter[int] = Counter()  # how many commands an update took besides
        self.broken: Words = []

    def make_firmware(self, seed: int) -> Firmware:
        name = f"firmware{seed}"
        image = self.device.make_firmware(name, seed)
        content = (self.device.folder / f"{name}.hex").read_bytes()
        return Firmware(name, image, hashlib.sha256(content).hexdigest())

    def run(self, words: Words, firmware: Firmware, stop: Stop | None = None) -> tuple[bool, Words]:
        """Whether the device was updated, and the command to run next."""
        before = self.device.flash()
        run = self.device.run([*words, "--json"], stop)
        if run.exit == -signal.SIGKILL:
            self.processes[f"{words[0]} killed"] += 1
            return False, []
        try:
            result = result_of(run)
            check_record(run, result, firmware)
            check_claim(self.device, result, firmware, before)
        except (BrokenPromise, ValueError, KeyError, IndexError) as broken:
            raise BrokenPromise(f"{type(broken).__name__}: {broken}\n{run}") from broken
        self.processes[f"{result['command']} {result['ending']}"] += 1
        if result["ending"] == "succeeded":
            return True, []
        self.left[result["state"]["device"]] += 1
        return False, recommended(result["state"]["next"] or "") or words

    def command_of_info(self, firmware: Firmware) -> Words:
        """The command that info recommends, for a device behind a tunnel after a second look."""
        words = ["info", *self.device.kind.target]
        for _ in range(MOST_LOOKS):
            told = self.device.run([*words, "--json"])
            following = recommended(json.loads(told.out or "{}").get("next") or "")
            promise(following != [], f"info recommends nothing: {told}")
            words = [f"{firmware.name}.hex" if word == "FILE" else word for word in following]
            if words[0] != "info":
                return words
        raise BrokenPromise(f"info recommends itself: {told}")

    def recover(self, words: Words, firmware: Firmware, plan: Plan) -> int:
        """Runs the recommended commands; returns how many it took."""
        if plan.lasts:
            self.device.plug_in([])
        else:
            time.sleep(REPLUG_SECONDS)
        words = words or self.command_of_info(firmware)
        for number in range(1, MOST_RECOVERIES + 1):
            updated, words = self.run(words, firmware)
            if updated:
                return number
        raise BrokenPromise(f"not recovered by {MOST_RECOVERIES} recommended commands")

    def update(self, firmware: Firmware) -> None:
        plan = draw_plan(self.dice)
        self.device.plug_in(plan.options)
        recoveries = 0
        try:
            updated, words = self.run(["update", f"{firmware.name}.hex", *self.device.kind.target],
                                      firmware, plan.stop)
            if not updated:
                recoveries = self.recover(words, firmware, plan)
            promise(self.device.flash() == firmware.image, "the flash does not hold the firmware")
            label = self.device.state()["label"]
            promise((label is not None) == (self.device.kind.family == "labelled"), "the label")
            self.recoveries[recoveries] += 1
        except BrokenPromise as broken:
            self.broken.append(f"device {self.number} ({self.device.kind.name}), {plan.options} "
                               f"{plan.stop}: {broken}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path, help="folder of the build")
    parser.add_argument("--updates", type=int, default=200)
    parser.add_argument("--simulators", type=int, default=4, help="all at work at a time")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    begin = time.monotonic()

    def work(number: int) -> Lane:
        kind = KINDS[number % len(KINDS)]
        with Device(options.build.resolve(), folder / f"lane{number}", kind) as device:
            lane = Lane(number, device, options.seed)
            for update in range(len(range(number, options.updates, options.simulators))):
                lane.update(lane.firmware[update % 2])
        return lane

    with (tempfile.TemporaryDirectory(prefix="tavo-day-") as name,
          ThreadPoolExecutor(options.simulators) as pool):
        folder = Path(name)
        lanes = list(pool.map(work, range(options.simulators)))
    broken = [text for lane in lanes for text in lane.broken]
    for title, counts in (("processes", [lane.processes for lane in lanes]),
                          ("failures left in", [lane.left for lane in lanes]),
                          ("further commands until updated", [lane.recoveries for lane in lanes])):
        counted = sum(counts, Counter())
        print(f"{title}:", ", ".join(f"{key}: {counted[key]}" for key in sorted(counted)))
    for text in broken:
        print("BROKEN:", text)
    print(f"{options.updates} updates on {options.simulators} simulators with seed {options.seed}, "
          f"wall time {time.monotonic() - begin:.0f} s; {len(broken)} broken promises")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
