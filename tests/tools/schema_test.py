#!/usr/bin/env python3
"""Holds the JSON of every command against its schema in the documentation, and every name that a schema
lists against the tool's document.

usage: schema_test.py TOOL DOCUMENTS
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
    ([], ["update", "two.zip", "--dry-run", "--record", "r.ndjson"], 0),
    (["--ftdi"], ["update", "firmware.hex", "--ftdi", "TAVO0001"], 0),
    ([], ["update", "firmware.hex", "--all"], 0),
    (["--fault", "lose:id=0x134:3"], ["update", "firmware.hex"], 0),
    (["--fault", "powercut:id=0x134:20"], ["update", "firmware.hex"], 5),
    (["--modules", "ABC,XYZ"], ["update", "firmware.hex"], 0),
    (["--start", "erased"], ["recover", "firmware.hex"], 0),
    ([], ["update", "firmware.hex", "--usb", "7-7"], 3),
    ([], ["update", "none.hex"], 4),
    ([], ["list"], 0),
    (["--ftdi"], ["list"], 0),
    (["--ftdi", "--serial", ""], ["list"], 3),
    ([], ["info"], 0),
    (["--start", "bootloader"], ["info", "--verify"], 0),
    (["--family", "gateway"], ["info", "gateway.hex"], 0),
    (["--fault", "lose:*"], ["info"], 7),
    ([], ["check-device", "--write", "firmware.hex"], 0),
    (["--block-size", "100"], ["check-device"], 1),
    (["--family", "gateway", "--start", "bootloader"], ["check-device", "--through", "4.0"], 0),
    (["--fault", "lose:*"], ["check-device"], 7),
    (["--ftdi", "--baud", "9600"], ["doctor", "--ftdi", "TAVO0001", "--probe"], 3),
    ([], ["history", "journal.ndjson"], 0),
    ([], ["inspect", "two.zip"], 0),
    ([], ["inspect", "gateway.hex", "--usb", "1"], 1),
    ([], ["inspect", "labelled.hex", "--block-size", "64"], 0),
    ([], ["inspect", "typo.hex"], 4),
]
UPDATES = ("update", "recover")


def run(tool: str, folder: Path, simulator: list[str], command: list[str]) -> tuple[int, list]:
    """The exit code of a command on a simulated device, and the objects that it wrote."""
    log = ["--log", "tool.log"] if command[0] in UPDATES else []
    words = [tool, "simulate", *simulator, "--", tool, *command, "--json", *log]
    done = subprocess.run(words, cwd=folder, capture_output=True, text=True, timeout=150, check=False)
    parts = done.stdout.splitlines() if command[0] in UPDATES else [done.stdout]
    return done.returncode, [json.loads(part) for part in parts]


def make_files(tool: str, folder: Path) -> None:
    """The update files of the runs."""
    def pack(*words: str) -> None:
        subprocess.run([tool, "pack", *words], cwd=folder, check=True, stdout=subprocess.DEVNULL)

    for family in ("gateway", "labelled"):
        pack("--family", family, "-o", family + ".hex")
    pack("--family", "plain", "-o", "firmware.hex")
    pack("--add", "firmware.hex", "--add", "gateway.hex", "-o", "two.zip")
    run(tool, folder, [], ["update", "firmware.hex", "--journal", "journal.ndjson"])
    text = (folder / "firmware.hex").read_text(encoding="ascii")
    (folder / "typo.hex").write_text(text.replace("0", "1", 1), encoding="ascii")


def names(schema: object) -> set[str]:
    """Every word that the schema, or a part of it, lists as a choice."""
    if isinstance(schema, list):
        return set().union(*map(names, schema))
    if not isinstance(schema, dict):
        return set()
    return set(schema.get("enum", [])).union(*map(names, schema.values()))


def main(tool: str, documents: str) -> int:
    failures = 0
    validators = {}
    manual = (Path(documents) / "tool.md").read_text(encoding="utf-8")
    for command in ("list", "info", "check-device", "doctor", "history", "inspect", "update"):
        text = (Path(documents) / "schema" / (command + ".schema.json")).read_text(encoding="utf-8")
        schema = json.loads(text)
        jsonschema.Draft7Validator.check_schema(schema)
        validators[command] = jsonschema.Draft7Validator(schema)
        undocumented = sorted(name for name in names(schema) if f"`{name}`" not in manual)
        failures += bool(undocumented)
        print("FAILED: not in tool.md:" if undocumented else "ok", command, *undocumented)
    validators["recover"] = validators["update"]
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        make_files(tool, folder)
        with ThreadPoolExecutor(len(RUNS)) as threads:  # they mostly wait
            results = list(threads.map(lambda row: run(tool, folder, *row[:2]), RUNS))
        for (simulator, command, expected), (code, objects) in zip(RUNS, results):
            errors = validators[command[0]].iter_errors
            problems = [error.message for line in objects for error in errors(line)]
            if code != expected or not objects:
                problems.append(f"exit code {code}, {len(objects)} objects")
            elif command[0] in UPDATES and objects[-1].get("exit") != code:
                problems.append("the last line is no result, or names another exit code")
            failures += bool(problems)
            print("FAILED" if problems else "ok", *simulator, *command, *problems[:3])
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
