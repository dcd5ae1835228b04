#!/usr/bin/env python3
"""A day of production: many updates, one tool process each, on several devices with random faults.

Every simulated device, and every run of the tool, is a process of its own; the tool finds the device
through the build's substitute libusb. Every update brings other firmware than the device holds. After
a failure the command that the record recommends is run, until the device is updated; a lasting fault
is removed first, as a person would. After a kill `firmware-updater info` names that command.

Every record is compared with exit code, device, flash and SHA-256.
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
from pathlib import Path
from threading import Timer

PROMPT_SECONDS = 20.0  # for anything but an update
LONGEST_SECONDS = 300.0  # two engine runs that wait wherever they can, on a busy machine
REPLUG_SECONDS = 3.0  # longer than any cable is out
MOST_RECOVERIES = 3  # an update has two faults at most, and each spoils one run
MOST_LOOKS = 3

KINDS = [("plain", "--usb"), ("labelled", "--ftdi"), ("tunnel", "--usb"), ("gateway", "--ftdi"),
         ("plain", "--ftdi"), ("labelled", "--usb"), ("variant", "--usb"), ("tunnel", "--ftdi")]
ADDRESSES = {"--usb": "1", "--ftdi": "TAVO0001"}

# Faults by name; how often each is drawn.
FAULTS = {"none": 3, "lose": 3, "cut": 2, "delay": 2, "repeat": 2, "damage": 1, "powercut": 4,
          "unplug": 3, "silence": 1, "gone": 2, "ctrl-c": 2, "kill": 3}
LASTING = {"silence", "gone"}
SIGNALS = {"ctrl-c": signal.SIGINT, "kill": signal.SIGKILL}

# Half of the faults meet one of the few requests that matter most, the others any request.
KEY_REQUESTS = ["0x100:1", "0x100:2", "0x100:3", "0x100:4", "0x100:5", "0x120:1", "0x121:1",
                "0x122:1", "0x130:1", "0x132:1", "0x133:1", "0x134:1", "0x134:60", "0x134:120",
                "0x136:1", "0x12F:1", "0x12F:2", "0x180:1", "0x180:2"]
REQUESTS_OF_AN_UPDATE = 260

EXITS = {"succeeded": {0}, "failed": {1, 3, 4, 5, 7}, "stopped": {6}}


class BrokenPromise(Exception):
    """The tool, or its output, is wrong."""


def promise(kept: object, text: str) -> None:
    if not kept:
        raise BrokenPromise(text)


def draw_faults(dice: random.Random) -> tuple[list[str], list[str]]:
    """The names of faults, and those of the simulated device as its options."""
    names = sorted(set(dice.choices(list(FAULTS), list(FAULTS.values()), k=dice.choice([1, 1, 2]))))
    options = []
    for name in names:
        where = (f"id={dice.choice(KEY_REQUESTS)}" if dice.random() < 0.5
                 else str(dice.randint(1, REQUESTS_OF_AN_UPDATE)))
        how = {"delay": f"delay:{where}:{dice.choice([500, 2000, 4200, 6000])}ms",
               "repeat": f"repeat:{where}:{dice.choice([0, 20, 300])}ms",
               "unplug": f"unplug:{where}:{dice.choice([300, 1000, 2000])}ms",
               "silence": f"lose:{where}+", "gone": f"unplug:{where}"}
        if name not in SIGNALS and name != "none":
            options += ["--fault", how.get(name, f"{name}:{where}")]
    return names, options


def recommended(text: str | None) -> list[str]:
    """The command that ends a text, as words without the tool itself; or none."""
    return shlex.split((text or "").rpartition("firmware-updater ")[2])


def result_of(code: int, out: str) -> dict:
    """The one result of a run, which agrees with its exit code."""
    lines = [json.loads(line) for line in out.splitlines()]
    result = lines[-1]
    promise([line["event"] for line in lines].count("result") == 1, "not one result")
    promise(result["exit"] == code and code in EXITS[result["ending"]], f"exit code {code}")
    promise((result["failure"] is not None) == (result["ending"] == "failed"), "the failure")
    return result


class Lane:
    """One simulated device, the tool beside it, and the updates it gets one after the other.

    The device's state lives in files, so that it outlives its simulator: it can be plugged in again
    with other faults.
    """

    def __init__(self, build: Path, folder: Path, number: int, seed: int) -> None:
        self.tool = str(build / "bin/firmware-updater")
        self.folder = folder
        self.number = number
        self.dice = random.Random(f"{seed}/{number}")
        self.family, self.front = KINDS[number % len(KINDS)]
        self.target = [self.front, ADDRESSES[self.front]]
        self.simulator: subprocess.Popen[bytes] | None = None
        self.environment = os.environ | {"LD_LIBRARY_PATH": str(build / "substitute"),
                                         "XDG_STATE_HOME": str(folder / "log")}
        self.journal = folder.parent / "journal.ndjson"
        self.counts: Counter[str] = Counter()
        self.journalled: Counter[str] = Counter()
        self.broken: list[str] = []
        folder.mkdir()
        for content in ("2", "3"):
            self.call(["pack", "--family", self.family, "--seed", content,
                       "--raw", f"firmware{content}.bin", "-o", f"firmware{content}.hex"])

    def switch_off(self) -> None:
        if self.simulator is None:
            return
        self.simulator.terminate()
        promise(self.simulator.wait(PROMPT_SECONDS) == 0, "the simulator did not end well")
        self.simulator = None

    def plug_in(self, options: list[str]) -> None:
        self.switch_off()
        port_file = self.folder / "port"
        port_file.unlink(missing_ok=True)
        with (self.folder / "simulator.txt").open("ab") as console:
            self.simulator = subprocess.Popen(
                [self.tool, "simulate", "--family", self.family, self.front, "--state", "device",
                 "--port-file", "port", *options], cwd=self.folder, env=self.environment,
                stdin=subprocess.DEVNULL, stdout=console, stderr=console)
        deadline = time.monotonic() + PROMPT_SECONDS
        while not port_file.exists():
            promise(time.monotonic() < deadline, f"no simulator with {options}")
            time.sleep(0.002)
        self.environment["TAVO_SIMULATORS"] = "127.0.0.1:" + port_file.read_text().strip()

    def call(self, words: list[str], name: str = "") -> tuple[int, str]:
        """Runs the tool to its end, or until the named signal; its exit code and its output."""
        with subprocess.Popen([self.tool, *words], cwd=self.folder, env=self.environment, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as tool:
            timers = [Timer(LONGEST_SECONDS, tool.kill)]
            if name:
                timers.append(Timer(self.dice.uniform(0.5, 9.0), tool.send_signal, [SIGNALS[name]]))
            for timer in timers:
                timer.start()
            out, err = tool.communicate()
            for timer in timers:
                timer.cancel()
        promise(tool.returncode != -signal.SIGKILL or name == "kill", f"no end of {words}\n{out}{err}")
        return tool.returncode, out

    def check_claim(self, result: dict, firmware: bytes, before: bytes) -> None:
        """What the record says of the device, against the device itself."""
        state = json.loads((self.folder / "device/state.json").read_text(encoding="utf-8"))
        flash = (self.folder / "device/flash.bin").read_bytes()
        runs, claim = state["state"] == "application", result["state"]["device"]
        runs_new = runs and flash == firmware
        promise({"updated-and-verified": runs_new, "updated-not-verified": runs_new,
                 "runs-incomplete": runs_new, "old-application-runs": runs and flash == before,
                 "untouched": flash == before, "bootloader-as-found": not runs and flash == before,
                 "bootloader-flash-intact": not runs and state["intact"],
                 "bootloader-flash-erased": not runs and not state["intact"],
                 "unknown": True}[claim], f"{claim} of a device that is {state}")
        if result["ending"] == "succeeded":
            promise(claim == "updated-and-verified", f"succeeded, but {claim}")
            promise(result["bytes"]["written"] >= result["bytes"]["due"] > 0, "not all is written")
            promise((state["label"] is not None) == (self.family == "labelled"), "the label")

    def run(self, words: list[str], name: str, stop: str = "") -> tuple[bool, list[str]]:
        """Whether the device was updated, and the command to run next."""
        before = (self.folder / "device/flash.bin").read_bytes()
        firmware = (self.folder / f"{name}.bin").read_bytes()
        code, out = self.call([*words, "--json", "--journal", str(self.journal),
                               "--tag", f"lane={self.number}"], stop)
        if code == -signal.SIGKILL:
            self.counts["killed"] += 1
            return False, []
        try:
            result = result_of(code, out)
            self.check_claim(result, firmware, before)
            sha256 = hashlib.sha256((self.folder / f"{name}.hex").read_bytes()).hexdigest()
            promise(result["sha256"] == sha256, "the SHA-256")
        except (BrokenPromise, ValueError, LookupError) as broken:
            raise BrokenPromise(f"{words}: {broken!r}\n{out}") from broken
        self.counts[f"{words[0]} {result['ending']}, {result['state']['device']}"] += 1
        self.journalled[result["ending"]] += result["journal"] is not None
        return code == 0, recommended(result["state"]["next"]) or words

    def command_of_info(self, name: str) -> list[str]:
        """The command that info recommends, for a device behind a tunnel after a second look."""
        words = ["info", *self.target]
        for _ in range(MOST_LOOKS):
            _, out = self.call([*words, "--json"])
            following = recommended(json.loads(out or "{}").get("next"))
            words = [f"{name}.hex" if word == "FILE" else word for word in following]
            promise(words, f"info recommends nothing: {out}")
            if words[0] != "info":
                return words
        raise BrokenPromise(f"info recommends itself: {words}")

    def update(self, name: str) -> None:
        """Updates the device, with the recommended commands after a failure."""
        faults, options = draw_faults(self.dice)
        try:
            self.plug_in(options)
            stop = next((fault for fault in faults if fault in SIGNALS), "")
            updated, words = self.run(["update", f"{name}.hex", *self.target], name, stop)
            if not updated and LASTING.isdisjoint(faults):
                time.sleep(REPLUG_SECONDS)
            elif not updated:
                self.plug_in([])
            for _ in range(MOST_RECOVERIES):
                if not updated:
                    updated, words = self.run(words or self.command_of_info(name), name)
            promise(updated, f"not recovered by {MOST_RECOVERIES} recommended commands")
        except BrokenPromise as broken:
            self.broken.append(f"device {self.number} ({self.family}, {self.front}), {faults} "
                               f"{options}: {broken}")


def check_history(lanes: list[Lane]) -> None:
    """The sums of the journal, which all lanes share, against what each lane has seen of its updates."""
    seen = sum((lane.journalled for lane in lanes), Counter())
    killed = sum(lane.counts["killed"] for lane in lanes)  # it may have left a line, or a part of one
    _, out = lanes[0].call(["history", str(lanes[0].journal), "--device-tag", "lane", "--json"])
    sums = json.loads(out)
    for ending in EXITS:
        promise(0 <= sums[ending] - seen[ending] <= killed, f"{seen} in the journal: {out}")
    promise(sums["devices"] == sums["succeeded"] and not sums["unfinished"], f"devices: {out}")
    promise(len(sums["torn"]) <= killed and not sums["foreign"], f"lines: {out}")
    print(lanes[0].call(["history", str(lanes[0].journal), "--device-tag", "lane"])[1])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path, help="folder of the build")
    parser.add_argument("--updates", type=int, default=200)
    parser.add_argument("--simulators", type=int, default=4, help="all at work at a time")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    begin = time.monotonic()

    def work(number: int) -> Lane:
        lane = Lane(options.build.resolve(), folder / str(number), number, options.seed)
        for update in range(number, options.updates, options.simulators):
            lane.update(f"firmware{2 + update // options.simulators % 2}")
        lane.switch_off()
        return lane

    with (tempfile.TemporaryDirectory(prefix="tavo-day-") as name,
          ThreadPoolExecutor(options.simulators) as pool):
        folder = Path(name)
        lanes = list(pool.map(work, range(options.simulators)))
        try:
            check_history(lanes)
        except BrokenPromise as broken:
            lanes[0].broken.append(str(broken))
    for ending, count in sorted(sum((lane.counts for lane in lanes), Counter()).items()):
        print(f"{count:4} {ending}")
    broken = [text for lane in lanes for text in lane.broken]
    for text in broken:
        print("BROKEN:", text)
    print(f"{options.updates} updates on {options.simulators} simulators with seed {options.seed}, "
          f"wall time {time.monotonic() - begin:.0f} s; {len(broken)} broken promises")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
