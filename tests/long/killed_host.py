#!/usr/bin/env python3
"""Kills the tool in the middle of real updates, and brings the devices back as the tool says.

A process that is killed says nothing any more. `firmware-updater info` is asked instead, and the
command that it recommends is run, then what the closing state names, until the device is updated
and verified. The tool is killed at each tenth of the time of an update, and right after each
request that changes what state the device is in.
"""

import argparse
import json
import sys
import tempfile
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field, replace
from pathlib import Path

from simulated_device import POLL_SECONDS, BrokenPromise, Device, Ended, Kind, Words, promise, recommended

KINDS = [Kind(family, ftdi) for family in ("plain", "tunnel", "labelled", "gateway")
         for ftdi in (False, True)]
ANSWER_DELAY_MS = 20  # so that writing takes as long as all the rest
NOT_THERE = 3  # exit code of info without a device
MOST_LOOKS = 3
DEVICES_AT_A_TIME = 20
MOST_TRIES = 5  # to kill an update that ends before its time
MOST_COMMANDS = 3  # after info: what it names, and twice what the closing state names

# Requests after which a device is not what it was before: name, how the request begins, which one
# of them. Families differ in the id of the third.
TURNING_POINTS = [
    ("tunnel opened", "0x100 ED 00", 0),
    ("bootloader called", "0x100 FD 00", 0),
    ("bootloader called", "0x180 FD 00", 0),
    ("erased", "0x130", 0),
    ("first block", "0x134", 0),
    ("last block", "0x134", -1),
    ("verified", "0x136", 0),
    ("started", "0x12F", -1),
    ("label set", "0x100 A0", 0),
    ("tunnel closed", "0x100 EC 00", -1),
]


@dataclass(frozen=True)
class Kill:
    """When the tool is killed: after a time, or once the device has had so many requests."""

    kind: Kind
    name: str
    seconds: float | None = None
    requests: int | None = None


@dataclass
class Outcome:
    kill: Kill
    killed: bool = False
    info: str = "-"
    commands: Words = field(default_factory=list)
    broken: str = ""

    def __str__(self) -> str:
        text = (f"{self.kill.kind.name:14}killed at {self.kill.name:18}info says {self.info:13}"
                f"then {', '.join(self.commands)}")
        text += "" if self.killed else "\n  was not killed: it had ended"
        return text + (f"\n  BROKEN: {self.broken}" if self.broken else "")


def prepare(device: Device) -> bytes:
    image = device.make_firmware("firmware", seed=2)
    device.plug_in(["--answer-delay", str(ANSWER_DELAY_MS)])
    return image


def check_updated(device: Device, image: bytes, last: Ended) -> None:
    result = json.loads(last.out.splitlines()[-1])
    promise(result["state"]["device"] == "updated-and-verified", f"not verified: {last}")
    state = device.state()
    promise(device.flash() == image, "the flash does not hold the firmware")
    promise(state["state"] == "application" and state["tunnel"] is None, f"left as {state}")
    promise((state["label"] is not None) == (device.kind.family == "labelled"), "the label")


def kills_for(kind: Kind, build: Path, folder: Path, tenths: list[int], turns: bool) -> list[Kill]:
    """An undisturbed update tells when its tenths and its turning points are."""
    with Device(build, folder / f"{kind.name.replace('/', '-')}-whole", kind) as device:
        image = prepare(device)
        whole = device.run(["update", "firmware.hex", *kind.target, "--json"])
        promise(whole.exit == 0, f"an undisturbed update failed: {whole}")
        check_updated(device, image, whole)
        requests = device.requests()
    kills = [Kill(kind, f"{tenth}/10", seconds=whole.seconds * tenth / 10) for tenth in tenths]
    for name, begin, which in TURNING_POINTS if turns else []:
        numbers = [i for i, request in enumerate(requests, 1) if request.startswith(begin)]
        if numbers:
            kills.append(Kill(kind, name, requests=numbers[which]))
    return kills


def update_and_kill(device: Device, kill: Kill) -> bool:
    """False when the update was faster than the one that was measured, and had ended."""
    begin = time.monotonic()
    tool = device.start(["update", "firmware.hex", *kill.kind.target])
    try:
        while tool.poll() is None:
            if kill.seconds is not None and time.monotonic() - begin >= kill.seconds:
                break
            if kill.requests is not None and len(device.requests()) >= kill.requests:
                break
            time.sleep(POLL_SECONDS)
    finally:
        tool.kill()
        tool.communicate()
    return tool.returncode < 0


def kill_in_mid_update(device: Device, kill: Kill) -> bool:
    """On a machine that was busier when the time was measured, tries again a little earlier."""
    for _ in range(MOST_TRIES):
        if update_and_kill(device, kill):
            return True
        if kill.seconds is None:
            break
        kill = replace(kill, seconds=kill.seconds * 0.9)
    return False


def next_after_info(device: Device, outcome: Outcome) -> Words:
    """The command that info recommends."""
    # On a busy machine a simulator may be too late to be listed.
    for _ in range(MOST_LOOKS):
        told = device.run(["info", *device.kind.target, "--json"])
        if told.exit != NOT_THERE:
            break
        time.sleep(1)
    promise(told.out != "", f"info says nothing: {told}")
    document = json.loads(told.out)
    outcome.info = document["state"]
    promise(document["next"] is not None, f"info recommends nothing: {told}")
    return ["firmware.hex" if word == "FILE" else word for word in recommended(document["next"])]


def revive(device: Device, image: bytes, outcome: Outcome) -> None:
    command = next_after_info(device, outcome)
    while command:
        promise(len(outcome.commands) < MOST_COMMANDS, f"not revived: {outcome.commands}")
        outcome.commands.append(command[0])
        last = device.run([*command, "--json"])
        promise(last.out != "", f"it says nothing: {last}")
        following = json.loads(last.out.splitlines()[-1])["state"]["next"]
        command = recommended(following or "")
    check_updated(device, image, last)


def run(build: Path, folder: Path, kill: Kill) -> Outcome:
    outcome = Outcome(kill)
    name = f"{kill.kind.name}-{kill.name}".replace("/", "-").replace(" ", "-")
    try:
        with Device(build, folder / name, kill.kind) as device:
            image = prepare(device)
            outcome.killed = kill_in_mid_update(device, kill)
            revive(device, image, outcome)
    except BrokenPromise as broken:
        outcome.broken = str(broken)
    return outcome


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path, help="folder of the build")
    parser.add_argument("--kinds", nargs="+", metavar="FAMILY/WAY",
                        choices=[kind.name for kind in KINDS])
    parser.add_argument("--tenths", nargs="+", type=int, default=range(1, 10))
    parser.add_argument("--tenths-only", action="store_true", help="leave the turning points out")
    options = parser.parse_args()
    build = options.build.resolve()
    kinds = [kind for kind in KINDS if not options.kinds or kind.name in options.kinds]

    begin = time.monotonic()
    with (tempfile.TemporaryDirectory(prefix="tavo-killed-") as name,
          ThreadPoolExecutor(DEVICES_AT_A_TIME) as pool):
        folder = Path(name)
        planned = pool.map(lambda kind: kills_for(kind, build, folder, list(options.tenths),
                                                  not options.tenths_only), kinds)
        kills = [kill for some in planned for kill in some]
        outcomes = list(pool.map(lambda kill: run(build, folder, kill), kills))
    print(*outcomes, sep="\n")
    broken = sum(bool(outcome.broken) for outcome in outcomes)
    found = Counter(outcome.info for outcome in outcomes)
    commands = Counter(len(outcome.commands) for outcome in outcomes)
    print(f"{sum(outcome.killed for outcome in outcomes)} kills of {len(outcomes)}; "
          f"found in: {dict(found)}; commands needed: {dict(commands)}; "
          f"wall time {time.monotonic() - begin:.0f} s")
    print(f"{broken} broken promises")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
