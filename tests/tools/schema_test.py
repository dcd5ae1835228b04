#!/usr/bin/env python3
"""Holds what `update --json` and `recover --json` write against the schema in the documentation.

usage: schema_test.py TOOL SCHEMA
"""

import json
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import jsonschema

# (options of the simulator, command, exit code)
RUNS = [
    ([], ["update", "firmware.hex"], 0),
    ([], ["update", "firmware.hex", "--dry-run"], 0),
    (["--ftdi"], ["update", "firmware.hex", "--ftdi", "TAVO0001"], 0),
    (["--fault", "lose:id=0x134:3"], ["update", "firmware.hex"], 0),
    (["--fault", "powercut:id=0x134:20"], ["update", "firmware.hex"], 5),
    (["--modules", "ABC,XYZ"], ["update", "firmware.hex"], 0),
    (["--start", "erased"], ["recover", "firmware.hex"], 0),
    ([], ["update", "firmware.hex", "--usb", "7-7"], 3),
    ([], ["update", "none.hex"], 4),
]


def run(tool: str, folder: Path, simulator: list[str], command: list[str]) -> tuple[int, list]:
    """The exit code of a command on a simulated device, and the objects that it wrote."""
    words = [tool, "simulate", *simulator, "--", tool, *command, "--json", "--log", "tool.log"]
    done = subprocess.run(words, cwd=folder, capture_output=True, text=True, timeout=150, check=False)
    return done.returncode, [json.loads(line) for line in done.stdout.splitlines()]


def main(tool: str, schema_file: str) -> int:
    schema = json.loads(Path(schema_file).read_text(encoding="utf-8"))
    jsonschema.Draft7Validator.check_schema(schema)
    validator = jsonschema.Draft7Validator(schema)
    failures = 0
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        subprocess.run([tool, "pack", "--family", "plain", "-o", "firmware.hex"], cwd=folder,
                       check=True, stdout=subprocess.DEVNULL)
        with ThreadPoolExecutor(len(RUNS)) as threads:  # they mostly wait
            results = list(threads.map(lambda row: run(tool, folder, *row[:2]), RUNS))
        for (simulator, command, expected), (code, lines) in zip(RUNS, results):
            problems = [error.message for line in lines for error in validator.iter_errors(line)]
            if code != expected or not lines or lines[-1]["event"] != "result":
                problems.append(f"exit code {code}, {len(lines)} lines")
            elif lines[-1]["exit"] != code:
                problems.append("the result names another exit code")
            failures += bool(problems)
            print("FAILED" if problems else "ok", *simulator, *command, *problems[:3])
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
