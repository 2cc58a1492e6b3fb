"""sorvaned for a measurement: on a terminal of its own, with a passphrase, its vault open."""
import json
import os
import pathlib
import socket
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "support"))
from terminal import QUESTION, Terminal, Timeout  # noqa: E402

PASSPHRASE = "a throwaway passphrase"


def exchange(path, fields):
    """One request, one response, over the socket at `path`."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(str(path))
        connection.sendall(fields if isinstance(fields, bytes) else json.dumps(fields).encode())
        connection.shutdown(socket.SHUT_WR)
        answer = b""
        while piece := connection.recv(65536):
            answer += piece
    return json.loads(answer)


class Sorvaned:
    """Owns the process; `stop` ends it. Every question on the terminal is answered with yes, at once."""

    def __init__(self, build, folder):
        self.folder = pathlib.Path(folder)
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.folder), "TERM": "dumb"}
        self.terminal = Terminal([str(pathlib.Path(build).resolve() / "sorvaned"), "--support-dir", str(self.folder), "--store", "embedded"],
                                 environment)
        self.pid = self.terminal.pid

    def open(self):
        """Types the passphrase where it is asked for, and waits until the vault is served."""
        if "New" in self.terminal.wait_for(r"^(New passphrase|Passphrase)[^:\n]*: "):
            self.terminal.type(PASSPHRASE + "\n")
            self.terminal.wait_for("^The same again: ")
        self.terminal.type(PASSPHRASE + "\n")
        self.terminal.wait_for(r"\[app\] the vault is open")
        threading.Thread(target=self._answer, daemon=True).start()
        return self

    def _answer(self):
        while not self.terminal.ended():
            try:
                self.terminal.wait_for(QUESTION, 1)
                self.terminal.type("y\n")
            except Timeout:
                pass
            except OSError:
                return

    def endpoint(self):
        return json.loads((self.folder / "agent.json").read_text())

    def ask(self, op, **fields):
        endpoint = self.endpoint()
        return exchange(endpoint["socketPath"], {"token": endpoint["token"], "op": op, **fields})

    def owner(self, op, **fields):
        """A request to the lock."""
        return exchange(self.folder / "owner.sock", {"op": op, **fields})

    def until_served(self):
        """Waits until a request is answered."""
        while True:
            try:
                if self.ask("listEnvironments")["ok"]:
                    return
            except (OSError, ValueError):
                time.sleep(0.0002)

    def stop(self):
        self.terminal.end()
