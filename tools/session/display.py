"""The display as a running program beside a server, and a real browser that looks at its page."""
import json
import pathlib
import re
import socket
import struct

import numpy as np
from kestrel_session import KESTREL, WAIT, Server, free_port, wait_until

DISPLAY = pathlib.Path(KESTREL).parent / "kestrel-display"


class Display(Server):
    """kestrel-display with its page at `url`, watching the server on a port."""

    def __init__(self, scratch, *options, server_port=1, **how):
        super().__init__(scratch, f"-http={free_port()}", f"-server={server_port}", *options, program=str(DISPLAY), **how)
        self.url = self.wait_stdout(r"Pages at (http://\S+)")[1]
        self.http_port = int(re.search(r":(\d+)/", self.url)[1])


def descendants(pid):
    """A process's children and theirs."""
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        for child in (task / "children").read_text().split():
            found += [int(child), *descendants(int(child))]
    return found


class Browser:
    """Headless Chromium on a page; the page's own objects are read by scripts."""

    def __init__(self, url, width=1200, height=900):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                       "--disable-background-networking", f"--window-size={width},{height}", "--no-proxy-server"):
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.get(url)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def wait(self, expression, what=None):
        """Waits until a JavaScript expression is true, and returns it."""
        return wait_until(lambda: self.run(f"return {expression}"), what or expression)

    def set(self, element, value):
        """Types into an input or chooses in a select, as a user's change does."""
        self.run("const e = document.getElementById(arguments[0]); e.value = arguments[1];"
                 "e.dispatchEvent(new Event('input')); e.dispatchEvent(new Event('change'));", element, value)

    def press(self, *keys):
        from selenium.webdriver.common.action_chains import ActionChains
        self.run("document.activeElement.blur()")
        ActionChains(self.driver).send_keys(*keys).perform()

    def processes(self):
        return descendants(self.driver.service.process.pid)

    def complaints(self):
        return [entry for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]

    def close(self):
        self.driver.quit()


class Socket:
    """A WebSocket of the page's kind, by hand; `messages` are taken with take()."""

    def __init__(self, display, origin=None, receive_buffer=None):
        host = f"127.0.0.1:{display.http_port}"
        self.sock = socket.socket()
        if receive_buffer:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.sock.settimeout(WAIT)
        self.sock.connect(("127.0.0.1", display.http_port))
        self.buffer = b""
        self.sock.sendall((f"GET /live HTTP/1.1\r\nHost: {host}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                           f"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
                           f"Origin: {origin or 'http://' + host}\r\n\r\n").encode())
        while b"\r\n\r\n" not in self.buffer:
            self._more()
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        self.status = int(head.split()[1])

    def _more(self):
        data = self.sock.recv(1 << 20)
        if not data:
            raise EOFError
        self.buffer += data

    def _bytes(self, count):
        while len(self.buffer) < count:
            self._more()
        taken, self.buffer = self.buffer[:count], self.buffer[count:]
        return taken

    def send(self, text, opcode=1):
        data = text.encode() if isinstance(text, str) else text
        size = bytes([128 | len(data)]) if len(data) < 126 else b"\xfe" + struct.pack(">H", len(data))
        self.sock.sendall(bytes([128 | opcode]) + size + bytes(4) + data)

    def frame(self):
        """(opcode, payload) of the next frame; pings are answered."""
        first, second = self._bytes(2)
        size = second & 127
        if size >= 126:
            size = int.from_bytes(self._bytes(2 if size == 126 else 8), "big")
        payload = self._bytes(size)
        if first & 15 == 9:
            self.send(payload, 10)
            return self.frame()
        return first & 15, payload

    def text(self, kind):
        """The next JSON message of this type."""
        while True:
            opcode, payload = self.frame()
            if opcode == 1:
                message = json.loads(payload)
                if message["type"] == kind:
                    return message

    def view(self, number=None):
        """The next contents of a view: its head and the rows."""
        while True:
            opcode, payload = self.frame()
            if opcode == 2:
                head = View(payload)
                if number in (None, head.view):
                    return head

    def look(self, number, name, *box, columns=65536, rows=4096):
        self.send(f"view {number} {name} {' '.join(map(str, box))} {columns} {rows}")
        return self.view(number)

    def close(self):
        self.sock.close()


class View:
    def __init__(self, payload):
        mark, self.view, self.lost, self.asked = struct.unpack_from("<4sIII", payload)
        assert mark == b"KDV1"
        self.read_at, size, columns, rows, self.number = struct.unpack_from("<dIIII", payload, 16)
        self.box = struct.unpack_from("<6I", payload, 40)
        self.shape = struct.unpack_from("<3I", payload, 64)
        self.rows = np.frombuffer(payload, {4: "<f4", 8: "<f8"}[size], offset=80).reshape(rows, columns)
