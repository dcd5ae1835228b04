#!/usr/bin/env python3
"""The page of `firmware-updater serve` in a real browser, and its server before hostile clients.

usage: page_test.py BUILD_FOLDER [SCREENSHOT_FOLDER]

If TAVO_WINDOWS_BUILD names the folder of a Windows build, the server is the one of that build, under Wine.

Exit code: 0 when all is well, 77 when there is no browser to drive.
"""

import http.client
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.keys import Keys
except ImportError:
    sys.exit(77)
if not Path("/usr/bin/chromedriver").exists():
    sys.exit(77)

BUILD = Path(sys.argv[1]).resolve()
SHOTS = Path(sys.argv[2]) if len(sys.argv) > 2 else None
TOOL = str(BUILD / "bin" / "firmware-updater")
WINDOWS = os.environ.get("TAVO_WINDOWS_BUILD")
WINE = Path(__file__).parents[2] / "scripts" / "wine"
SERVER = [str(WINE), "64", f"{WINDOWS}/bin/simulator/firmware-updater.exe"] if WINDOWS else [TOOL]
AXE = BUILD.parent / "axe" / "node_modules" / "axe-core" / "axe.min.js"
RAW = "application/octet-stream"
VERIFIED = "The device runs the new firmware, verified."


def expect(condition: object, what: str) -> None:
    if not condition:
        raise AssertionError(what)


def wait_for(condition, what: str, limit: float = 90):
    end = time.monotonic() + limit
    while not condition():
        expect(time.monotonic() < end, f"not within {limit} s: {what}")
        time.sleep(0.1)


def free_port() -> int:
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


class Bench:
    """A server of the page that sees the simulators on these ports, and those simulators."""

    def __init__(self, folder: Path, simulators: int):
        self.folder = folder
        self.ports = [free_port() for _ in range(simulators)]
        self.simulators: dict[int, subprocess.Popen] = {}
        environment = dict(os.environ, LD_LIBRARY_PATH=str(BUILD / "substitute"), TMPDIR=str(folder), XDG_STATE_HOME=str(folder),
                           TAVO_SIMULATORS=",".join(f"127.0.0.1:{port}" for port in self.ports))
        self.process = subprocess.Popen([*SERVER, "serve", "--journal", str(folder / "journal.ndjson")],
                                        stdout=subprocess.PIPE, text=True, env=environment)
        self.process.stdout.readline()
        self.address = self.process.stdout.readline().strip()
        places = Path(os.environ["TAVO_WINE_HOME"]).glob("prefix64/drive_c/users/*/Temp/*") if WINDOWS else folder.iterdir()
        self.files = max((place for place in places if place.name.startswith("firmware-updater-")), key=os.path.getctime)
        place, self.token = self.address.split("/#")
        self.host = place.removeprefix("http://")
        self.port = int(self.host.split(":")[1])
        self.first_lines = f"HTTP/1.1\r\nHost: {self.host}\r\nX-Token: {self.token}\r\nContent-Type: {RAW}\r\n"

    def plug(self, number: int, *options: str) -> None:
        self.simulators[number] = subprocess.Popen(
            [TOOL, "simulate", "--port-path", f"1-{number}", "--serial", f"A00{number}", "--listen", str(self.ports[number - 1]),
             *options], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def unplug(self, number: int) -> None:
        self.simulators[number].terminate()
        self.simulators[number].wait()

    def request(self, path: str, body: bytes | None = None, **headers: str) -> int | str:
        """The status of the answer; of 200, its text."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        headers = {"X-Token": self.token, "Content-Type": RAW, **{n.replace("_", "-"): h for n, h in headers.items()}}
        connection.request("GET" if body is None else "POST", path, body, headers)
        answer = connection.getresponse()
        return answer.read().decode() if answer.status == 200 else answer.status

    def start(self, **request: str) -> int | str:
        return self.request("/api/start", json.dumps(request).encode())

    def raw(self, data: str, body: bytes = b"") -> int:
        """The status of the answer; 0 when the connection ends without one."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=20) as connection:
            try:
                connection.sendall(data.encode() + b"\r\n" + body)
                return int((connection.recv(100).split() or [0, 0])[1])
            except OSError:
                return 0

    def end(self) -> tuple[int, str]:
        self.process.send_signal(signal.SIGINT if WINDOWS else signal.SIGTERM)
        said = self.process.communicate(timeout=60)[0]
        for simulator in self.simulators.values():
            simulator.kill()
            simulator.wait()
        return self.process.returncode, said


class Page:
    def __init__(self, address: str):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--hide-scrollbars"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.open(address)

    def open(self, address: str) -> None:
        self.look(1440, 1000)
        self.driver.get(address)

    def look(self, width: int, height: int, colours: str = "light") -> None:
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": colours}]})

    def run(self, script: str, *arguments):
        return self.driver.execute_script(script, *arguments)

    def text(self, selector: str) -> str:
        return self.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def sees(self, place: int | str, *texts: str) -> None:
        """In the card of this device, or in this element."""
        selector = card(place) if isinstance(place, int) else place
        try:
            wait_for(lambda: all(text in self.text(selector) for text in texts), "")
        except AssertionError:
            raise AssertionError(f"{place} does not show {texts}:\n{self.text(selector)}")

    def click(self, selector: str) -> None:
        wait_for(lambda: self.run("const button = document.querySelector(arguments[0]);"
                                  "if (!button || button.disabled) return false; button.click(); return true",
                                  selector), f"a button {selector}")

    def choose(self, file: Path) -> None:
        self.driver.find_element("css selector", "#choose").send_keys(str(file))

    def drop(self, name: str, content: str) -> None:
        self.run("const data = new DataTransfer(); data.items.add(new File([arguments[1]], arguments[0]));"
                 "document.body.dispatchEvent(new DragEvent('drop', {dataTransfer: data, bubbles: true, cancelable: true}))",
                 name, content)

    def shot(self, name: str) -> None:
        if SHOTS:
            time.sleep(0.5)
            self.driver.save_screenshot(str(SHOTS / f"{name}.png"))


def card(number: int, rest: str = "") -> str:
    return f"#device-usb_32{number} {rest}"


# --- what the user does ---

def walk_through(bench: Bench, page: Page) -> None:
    page.sees("#devices", "no device found")
    page.driver.switch_to.new_window("tab")
    page.open(bench.address)
    page.driver.switch_to.window(page.driver.window_handles[0])
    bench.plug(1, "--block-time", "80")
    page.sees(1, "Ready", "A001")
    bench.plug(2, "--block-time", "80", "--state", str(bench.folder / "device"))
    bench.plug(3, "--family", "gateway")
    page.sees(2, "Ready")
    page.drop('../<b>"notes".txt', "no firmware")
    page.sees("#file", "No device can accept")
    page.drop("firmware.hex", (bench.folder / "new.hex").read_text(encoding="ascii"))
    page.sees("#file", "Usable, fits 2")
    page.sees(3, "does not fit")
    expect(page.run("return document.querySelectorAll('.map path').length") >= 2, "there is a block map")
    page.shot("file")

    # By keyboard alone.
    page.run("document.querySelector(arguments[0]).focus()", card(1, "button"))
    page.driver.switch_to.active_element.send_keys(Keys.ENTER)
    page.click(card(2, "[data-action=update]"))
    page.sees(1, "› write")
    page.sees(2, "› write")
    page.shot("update")
    bench.unplug(2)
    tabs = page.driver.window_handles
    page.driver.refresh()
    for text in ("› write", VERIFIED):
        for tab in reversed(tabs):
            page.driver.switch_to.window(tab)
            page.sees(1, text)


def recover_after_unplugging(bench: Bench, page: Page) -> None:
    page.sees(2, "ended at", "Unplugged")
    bench.plug(2, "--state", str(bench.folder / "device"))
    page.sees(2, "Recover with")
    page.shot("recover")
    page.click(card(2, ".note [data-action=recover]"))
    page.sees(2, VERIFIED)


def stop_by_button(page: Page) -> None:
    page.click(card(1, "[data-action=update]"))
    page.sees(1, "› write")
    page.click(card(1, "[data-action=stop]"))
    page.sees(1, "ended at", "Recover with")
    page.click(card(1, ".note [data-action=recover]"))
    page.sees(1, VERIFIED)
    page.click(card(1, "[data-action=verify]"))
    page.sees(1, "whole, by its checksum", "Ready")


def update_adapter_from_archive(bench: Bench, page: Page) -> None:
    adapter = "#device-ftdi_32A004"
    bench.plug(4, "--ftdi", "--baud", "115200", "--echo")
    page.sees(adapter, "Not asked")
    page.run("const [baud, echo] = document.querySelectorAll(arguments[0]); baud.value = 115200; echo.checked = true",
             f"{adapter} select, {adapter} input")
    page.click(f"{adapter} [data-action=info]")
    page.sees(adapter, "Ready")
    page.choose(bench.folder / "new.zip")
    page.sees("#file table", "new.hex", "other.hex")
    page.sees(adapter, "fits, as far as")
    page.click(f"{adapter} [data-action=update]")
    page.sees(adapter, VERIFIED)


def look_from_everywhere(page: Page) -> None:
    page.sees("#journal", "6\nupdates: 4 succeeded")
    for width, colours in ((360, "light"), (768, "dark"), (1440, "dark"), (2560, "light")):
        page.look(width, 1400, colours)
        expect(page.run("return [...document.querySelectorAll('html, #journal .scroll')].every((part) =>"
                        " part.scrollWidth <= part.clientWidth)"), f"it fits {width} pixels")
        page.shot(f"{width}-{colours}")
        if AXE.exists():
            page.run(AXE.read_text(encoding="utf-8"))
            found = page.driver.execute_async_script(
                "axe.run().then((found) => arguments[0](found.violations.map((rule) =>"
                " rule.id + ': ' + rule.nodes.map((node) => node.html).join(' '))))")
            expect(not found, "\n".join(found))
    if not AXE.exists():
        print("skipped: accessibility; axe-core is missing, scripts/setup --all fetches it")
    errors = page.driver.get_log("browser")
    expect(not errors, str(errors))


# --- what others try ---

def hostile_clients(bench: Bench, page: Page) -> None:
    update = {"command": "update", "device": "usb 1", "file": "2-firmware.hex"}
    start = json.dumps(update).encode()
    attempts = {
        "no token": (bench.request("/api/start", start, X_Token=""), 403),
        "a wrong token": (bench.request("/api/start", start, X_Token="0" * 32), 403),
        "a part of the token": (bench.request("/api/start", start, X_Token=bench.token[:31]), 403),
        "reading without token": (bench.request("/api/events", X_Token=""), 403),
        "a foreign host": (bench.request("/", Host=f"evil.example:{bench.port}"), 403),
        "another port's host": (bench.request("/", Host="127.0.0.1:1"), 403),
        "no host": (bench.raw("GET / HTTP/1.1\r\n"), 403),
        "two hosts": (bench.raw(f"GET / {bench.first_lines}Host: evil.example\r\n"), 403),
        "a foreign origin": (bench.request("/api/start", start, Origin="http://evil.example"), 403),
        "a null origin": (bench.request("/api/start", start, Origin="null"), 403),
        "another port's origin": (bench.request("/api/start", start, Origin="http://127.0.0.1:1"), 403),
        "a form": (bench.request("/api/start", start, Content_Type="text/plain"), 415),
        "a form with parts": (bench.request("/api/file", start, Content_Type="multipart/form-data; boundary=x"), 415),
        "a preflight": (bench.raw(f"OPTIONS /api/start HTTP/1.1\r\nHost: {bench.host}\r\n"), 403),
        "an action by GET": (bench.request("/api/start"), 404),
        "a path outside": (bench.raw(f"GET /../../../etc/passwd {bench.first_lines}"), 404),
        "a coded path outside": (bench.request("/%2e%2e/%2e%2e/etc/passwd"), 404),
        "an unknown command": (bench.start(**update | {"command": "pack"}), "there is no such command"),
        "an unknown device": (bench.start(**update | {"device": "usb --trace"}), "there is no such device"),
        "an unknown file": (bench.start(**update | {"file": "99-firmware.hex"}), "choose the update file again"),
        "a file by its path": (bench.start(**update | {"file": "../new.hex"}), "choose the update file again"),
        "no JSON": (bench.request("/api/start", b"update"), "there is no such command"),
        "deep JSON": (bench.request("/api/start", b"[" * 2000 + b"]" * 2000), "there is no such command"),
        "a long request": (bench.request("/api/start", b" " * 5000), 413),
        "a large file": (bench.raw(f"POST /api/file {bench.first_lines}Content-Length: {17 << 20}\r\n", bytes(17 << 20)), 413),
        "a body in pieces": (bench.raw(f"POST /api/file {bench.first_lines}Transfer-Encoding: chunked\r\n", b"1\r\nx\r\n0\r\n\r\n"), 411),
        "a body of no length": (bench.raw(f"POST /api/file {bench.first_lines}", bytes(1000)), 411),
        "a large header": (bench.raw(f"GET / {bench.first_lines}X: {'x' * 100000}\r\n"), 400),
        "10,000 headers": (bench.raw(f"GET / {bench.first_lines}" + "X: x\r\n" * 10000), 431),
        "noise": (bench.raw("noise\0" * 100 + "\r\n"), 400),
    }
    # A server that answers before it has read all may reset the connection, and with it the answer.
    wrong = {name: got for name, (got, due) in attempts.items() if got != due and not (got == 0 and due in (400, 411, 413, 431))}
    expect(not wrong, f"unexpected answers: {wrong}")
    page.sees("#journal", "6\nupdates")

    # Readers that never read, and connections that never ask.
    idle = [socket.create_connection(("127.0.0.1", bench.port)) for _ in range(60)]
    for connection in idle[:6]:
        connection.sendall(f"GET /api/events {bench.first_lines}\r\n".encode())
    wait_for(lambda: bench.start(**update) == "", "a start beside them")
    page.sees(1, "› write")
    for connection in idle:
        connection.close()
    stored = sorted(path.name for path in bench.files.iterdir())
    expect(stored == ["1-..__b__notes_.txt", "2-firmware.hex", "3-new.zip"], f"files under names of ours: {stored}")
    expect(bench.files.stat().st_mode & (0o07 if WINDOWS else 0o77) == 0, "a private folder")


def main() -> None:
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        for words in (["--family", "plain", "--seed", "3", "-o", "new.hex"], ["--family", "gateway", "-o", "other.hex"],
                      ["--add", "new.hex", "--add", "other.hex", "-o", "new.zip"]):
            subprocess.run([TOOL, "pack", *words], check=True, cwd=folder, stdout=subprocess.DEVNULL)
        bench = Bench(folder, 4)
        page = Page(bench.address)
        try:
            walk_through(bench, page)
            recover_after_unplugging(bench, page)
            stop_by_button(page)
            update_adapter_from_archive(bench, page)
            look_from_everywhere(page)
            hostile_clients(bench, page)
        except Exception:
            print(page.driver.get_log("browser"))
            raise
        finally:
            code, said = bench.end()
            page.sees("#link", "has ended")
            page.driver.quit()
        expect(code == 6 and "Next: firmware-updater recover" in said, f"the end of the stopped update: {code}, {said}")
        expect(not bench.files.exists(), "the temporary folder is gone")


main()
