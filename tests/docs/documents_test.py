#!/usr/bin/env python3
"""Holds what README.md and docs/ show against the built tool, the sources and each other.

usage: documents_test.py BUILD_FOLDER [NAME...]     names of documents, without their folder

Every block of commands says in a comment on the line above it what is to be done with it:

  <!-- run -->                            it is run, and must succeed
  <!-- run: simulate --ftdi; exit 3 -->   seeing a simulated device (or several); it ends with 3
  <!-- not run: needs a real device -->   it is not, and why

Commands in `console` blocks begin with "$ "; what they print is compared, except for times and rates,
and "..." stands for any lines. The blocks of a document are run one after the other in one folder,
which holds firmware.hex, firmware.zip (of the family plain), page.hex and examples/. Other blocks:

  <!-- file: NAME -->         is put into that folder
  <!-- copy of: FILE -->      is the same as this file of the sources
  <!-- part of: FILE -->      stands in this file of the sources
  <!-- bytes of: NAME... -->  its lines are addresses and bytes of these HEX files
  <!-- wire: NAME -->         its lines are frames, and the record of an update has them in this order
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
DOCUMENTS = [*sorted(ROOT.glob("*.md")), *sorted((ROOT / "docs").glob("*.md"))]
COMMANDS = ("sh", "console", "python")
HEX_BYTES = r"((?:[0-9A-F]{2} )*[0-9A-F]{2})"


class Wrong(Exception):
    """What a document says is not so."""


@dataclass
class Block:
    language: str
    directive: str
    text: str
    line: int


def blocks(document: Path) -> list[Block]:
    found = []
    for match in re.finditer(r"(?:^<!-- (.*?) -->\n)?^```(\w*)\n(.*?)^```$",
                             document.read_text(encoding="utf-8"), re.M | re.S):
        line = match.string.count("\n", 0, match.start(2)) + 1
        found.append(Block(match[2], match[1] or "", match[3], line))
    return found


def expect(condition: object, what: str) -> None:
    if not condition:
        raise Wrong(what)


def expect_lines(actual: list[str], expected: list[str]) -> None:
    """The lines of `expected`, between which "..." stands for any number of lines."""
    pattern = "".join(r"(?:.*\n)*?" if line == "..." else re.escape(line) + r"\n" for line in expected)
    expect(re.fullmatch(pattern, "".join(line + "\n" for line in actual)),
           "it is now:\n" + "\n".join(actual))


# --- blocks that are run ---

def in_simulators(setup: list[str], words: list[str]) -> list[str]:
    for item in setup:
        options = subprocess.run(["sh", "-c", f"printf '%s\\n' {item}"], capture_output=True, text=True,
                                 check=True).stdout.splitlines()
        words = ["firmware-updater", *options, "--", *words]
    return words


def comparable(output: str) -> list[str]:
    """Without times and rates, and without the lines that a terminal does not keep."""
    output = re.sub(r"^(no answer to: |Waiting up to ).*\n", "", output, flags=re.M)
    output = re.sub(r"\d+\.\d s\b", "N s", re.sub(r"[\d.]+ KiB/s", "N KiB/s", output))
    return re.sub(r" +", " ", output).splitlines()


def run_block(block: Block, folder: Path, environment: dict[str, str]) -> None:
    items = block.directive.removeprefix("run").lstrip(":;").split(";")
    setup = [item.strip() for item in items if item.strip()]
    codes = [int(item.split()[1]) for item in setup if item.startswith("exit ")]
    simulators = [item for item in setup if item.startswith("simulate")]
    expect(len(codes) + len(simulators) == len(setup), f"not understood: {block.directive}")
    words = ["python3", "-c", block.text]
    if block.language == "sh":
        words = in_simulators(simulators, ["bash", "-e", "-c", block.text])
    if block.language == "console":
        commands = [line[2:] for line in block.text.splitlines() if line.startswith("$ ")]
        script = "".join(f"cat <<'@'\n$ {command}\n@\n{command}\n" for command in commands)
        words = in_simulators(simulators, ["bash", "-c", script])
    done = subprocess.run(words, cwd=folder, env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=120, check=False)
    expect(done.returncode == (codes or [0])[0], f"ends with {done.returncode}:\n{done.stdout}")
    if block.language == "console":
        expect_lines(comparable(done.stdout), comparable(block.text))


# --- bytes ---

def check_bytes(block: Block, folder: Path) -> None:
    shown = [(int(address, 16), bytes.fromhex(text)) for address, text in
             re.findall(rf"^0x([0-9A-F]+)  {HEX_BYTES}(?:  |$)", block.text, re.M)]
    for name in block.directive.split()[2:]:
        records = re.findall(r"^:..(....)00(.*)..$", (folder / name).read_text(encoding="ascii"), re.M)
        start, image = int(records[0][0], 16), bytes.fromhex("".join(data for _, data in records))
        expect(image.endswith(b"".join(row for _, row in shown)), f"{name} has other bytes")
        for address, row in shown:
            expect(image[address - start:].startswith(row), f"{name} at 0x{address:X} has other bytes")


def check_wire(block: Block, folder: Path) -> None:
    shown = []
    for line in block.text.splitlines():
        match = re.fullmatch(rf"([<>]) {HEX_BYTES}  +(raw|0x[0-9A-F]{{3}})\b.*", line)
        expect(match or line == "...", f"not understood: {line}")
        if not match:
            shown.append("...")
            continue
        shown.append(f"{match[1]} {match[2]}")
        header, low, high = bytes.fromhex(match[2] + " 00 00")[:3]
        message_id = f"0x{(low | high << 8) >> 2:03X}" if header >> 4 == 0xA else "raw"
        expect(match[3] == message_id, f"not {message_id}: {line}")
    events = [json.loads(line) for line in
              (folder / block.directive.split()[1]).read_text(encoding="ascii").splitlines()]
    expect_lines([f"{'<' if event['event'] == 'in' else '>'} "
                  f"{bytes.fromhex(event.get('bytes', '')).hex(' ').upper()}"
                  for event in events if event["event"] in ("in", "out")], shown)


# --- documents against each other and the sources ---

def check_links(document: Path) -> None:
    text = re.sub(r"^```.*?^```$", "", document.read_text(encoding="utf-8"), flags=re.M | re.S)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        name, _, anchor = target.partition("#")
        if "://" in name:
            continue
        file = (document.parent / name).resolve() if name else document
        expect(file.exists(), f"there is no {target}")
        if anchor:
            headings = re.findall(r"^#+ (.*)$", file.read_text(encoding="utf-8"), re.M)
            anchors = [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]
            expect(anchor in anchors, f"there is no heading for {target}")
    folders = "|".join(folder.name for folder in ROOT.iterdir() if folder.is_dir() and folder.name != "build")
    for name in re.findall(rf"`((?:{folders})/[\w./-]*)`", text):
        expect((ROOT / name).exists(), f"there is no {name}")


def check_error_codes(_: Path) -> None:
    source = (ROOT / "src/engine/error_code.h").read_text(encoding="utf-8")
    numbers = dict(re.findall(r"^  (\w+) = (\d+),", source, re.M))
    names = {numbers[code]: name for code, name in re.findall(r'\{ErrorCode::(\w+), "(.+?)"', source)}
    expect(len(names) > 10, "the table of error codes is not understood")
    for name, pattern in (("include/firmware_updater.h", r"^ \* \| +(\d+) +\|"),
                          ("examples/update_host.cs", r"^ +\{(\d+), \""),
                          ("docs/troubleshooting.md", r"^\| (\d+) \|")):
        found = re.findall(pattern, (ROOT / name).read_text(encoding="utf-8"), re.M)
        expect(found == sorted(names, key=int), f"{name} has the codes {found}")
    tool = (ROOT / "docs/tool.md").read_text(encoding="utf-8")
    told = {number: name for name, number in re.findall(r"^\| `([a-z-]+)` \| (\d+) \|", tool, re.M)}
    expect(told | {"0": "none"} == names, f"tool.md has {told}")


def check_commands(document: Path) -> None:
    """Every request of the command table stands in protocol.md, with its id and how it begins."""
    source = (ROOT / "src/protocol/commands.h").read_text(encoding="utf-8")
    text = document.read_text(encoding="utf-8")
    table = re.findall(r"Command k(\w+)\{.*\n\s+(\w+), Bearing::\w+, \{(?:\{(.*?)\}, \d)?\},", source)
    expect(len(table) == len(re.findall(r"inline constexpr Command k", source)) > 15,
           "the command table is not understood")
    for name, message_id, head in table:
        message_id = message_id.replace("kApplicationRequest", "(0x100|A)")
        begins = "`" + head.replace("0x", "").replace(",", "") if head else ""
        expect(re.search(rf"^\|[^|]*\| *{message_id} *\| *{begins}", text, re.M),
               f"{name} is not in protocol.md")


# --- all of it ---

def check_block(block: Block, folder: Path, environment: dict[str, str]) -> None:
    if block.directive.startswith("run"):
        run_block(block, folder, environment)
    elif block.directive.startswith("file: "):
        (folder / block.directive.split()[1]).write_text(block.text, encoding="utf-8")
    elif block.directive.startswith("copy of: "):
        name = block.directive.removeprefix("copy of: ")
        expect(block.text == (ROOT / name).read_text(encoding="utf-8"), f"it differs from {name}")
    elif block.directive.startswith("part of: "):
        name = block.directive.removeprefix("part of: ")
        expect(block.text in (ROOT / name).read_text(encoding="utf-8"), f"it is not in {name}")
    elif block.directive.startswith("bytes of: "):
        check_bytes(block, folder)
    elif block.directive.startswith("wire: "):
        check_wire(block, folder)
    elif not re.match(r"not run: .", block.directive):
        expect(block.language not in (*COMMANDS, "c") and not block.text.startswith("$ "),
               "commands or a program without a comment that says how they are checked")


def check_document(document: Path, environment: dict[str, str]) -> list[str]:
    """What is wrong with the document."""
    problems = []

    def attempt(where: str, check, *arguments) -> None:
        try:
            check(*arguments)
        except (Wrong, OSError, subprocess.TimeoutExpired) as wrong:
            problems.append(f"{document.relative_to(ROOT)}{where}: {wrong}")

    attempt("", check_links, document)
    for name, check in (("troubleshooting.md", check_error_codes), ("protocol.md", check_commands)):
        if document.name == name:
            attempt("", check, document)
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        for file in ("firmware.hex", "firmware.zip"):
            subprocess.run(["firmware-updater", "pack", "--family", "plain", "-o", file], cwd=folder,
                           env=environment, stdout=subprocess.DEVNULL, check=True)
        (folder / "page.hex").write_text("<!doctype html>\n", encoding="ascii")
        (folder / "examples").symlink_to(ROOT / "examples")
        environment = environment | {"XDG_STATE_HOME": name}
        for block in blocks(document):
            attempt(f":{block.line}", check_block, block, folder, environment)
    return problems


def main(build: str, *names: str) -> int:
    chosen = [document for document in DOCUMENTS if not names or document.name in names]
    if not chosen:
        sys.exit(f"none of the documents has such a name: {' '.join(names)}")
    folder = Path(build).resolve()
    # The substitute libusb stands in everywhere, so that devices of this machine are left alone.
    environment = os.environ | {"PATH": f"{folder}/bin:{os.environ['PATH']}",
                                "LD_LIBRARY_PATH": f"{folder}/substitute"}
    with ThreadPoolExecutor(len(chosen)) as pool:
        problems = sum(pool.map(lambda document: check_document(document, environment), chosen), [])
    print("\n".join(problems) or f"{len(chosen)} documents are right")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
