"""A throwaway house for sorvaned: its folder, the program on a terminal, its clients, and the owner's answers."""
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SUPPORT = pathlib.Path(__file__).resolve().parents[1] / "support"
sys.path.insert(0, str(SUPPORT))
from terminal import QUESTION, Terminal, Timeout  # noqa: E402,F401

PROGRAMS = pathlib.Path(os.environ.get("SORVANE_PROGRAMS", "build/dev-release")).resolve()
NOBODY = 65534  # an ordinary user with no files of its own
# Made up, and of a kind that no sentence of the system holds by chance.
VALUE = "made-up-4fT9zLq81-value"
PASSPHRASE = "made-up passphrase of a test"


def words_of(text):
    return re.sub(r"\s+", " ", text)


def wait_until(true, what, seconds=20):
    """For what the other side has no way to tell: looks again and again, and fails saying `what` did not happen."""
    limit = time.monotonic() + seconds
    while not true():
        if time.monotonic() > limit:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.01)


def as_user(user, command):
    if user is None:
        return list(command)
    return ["/usr/bin/setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", "--", *command]


class Request:
    """One request on a connection of its own, answered in a thread of its own."""

    def __init__(self, endpoint, fields):
        self.connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.connection.connect(endpoint["socketPath"])  # without a time-out it waits for its place in the queue
        self.connection.settimeout(90)
        try:
            self.connection.sendall(fields if isinstance(fields, bytes) else json.dumps(fields).encode())
            self.connection.shutdown(socket.SHUT_WR)
        except OSError:  # the server may close before it has read everything; what it said is read below
            pass
        self._answer = b""
        self._thread = threading.Thread(target=self._read)
        self._thread.start()

    def _read(self):
        try:
            while piece := self.connection.recv(65536):
                self._answer += piece
        except OSError:
            pass
        self.connection.close()

    def raw(self):
        self._thread.join()
        return self._answer

    def answer(self):
        return json.loads(self.raw())

    def hang_up(self):
        """Goes away as a client that was killed does."""
        self.connection.shutdown(socket.SHUT_RDWR)
        self._thread.join()


class House(unittest.TestCase):
    """Each test has a folder and, once `open` was called, a sorvaned; both are gone afterwards."""

    user = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="sorvane-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.support = self.folder / "s"
        self.program = PROGRAMS / "sorvaned"
        self.owner = None
        self.addCleanup(self.close)
        if self.user is not None:
            if os.geteuid() != 0:
                self.skipTest("needs root, to become an ordinary user")
            # The build may lie where that user cannot look.
            self.program = pathlib.Path(shutil.copy2(self.program, self.folder))
            os.chown(self.folder, self.user, self.user)

    def environment(self):
        kept = {name: os.environ[name] for name in ("PATH", "LANG") if name in os.environ}
        return kept | {"HOME": str(self.folder), "TERM": "dumb", "SHELL": "/bin/sh"}

    def start(self, *more):
        command = [str(self.program), "--support-dir", str(self.support), "--store", "embedded", *more]
        return Terminal(as_user(self.user, command), self.environment())

    def open(self):
        """Starts sorvaned and opens its vault: the first time its passphrase is set, as its terminal offers."""
        self.owner = self.start()
        self.unlock()
        return self

    def unlock(self, passphrase=PASSPHRASE):
        """Types the passphrase where the terminal asks for it, and waits until the vault is served."""
        if "New" in self.owner.wait_for(r"^(New passphrase|Passphrase)[^:\n]*: "):
            self.owner.type(passphrase + "\n")
            self.owner.wait_for("^The same again: ")
        self.owner.type(passphrase + "\n")
        self.owner.wait_for(r"\[app\] the vault is open")

    def unlock_by_command(self, passphrase=PASSPHRASE):
        """As where there is no terminal: the passphrase comes from a program."""
        asker = self.folder / "askpass"
        asker.write_text(f"#!/bin/sh\nprintf '%s\\n' '{passphrase}'\n")
        asker.chmod(0o700)
        return subprocess.run([str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), "unlock"], timeout=60,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, start_new_session=True,
                              env=self.environment() | {"SORVANE_ASKPASS": str(asker)})

    def close(self, number=signal.SIGTERM):
        owner, self.owner = self.owner, None
        return owner.end(number) if owner else None

    def endpoint(self):
        return json.loads((self.support / "agent.json").read_text())

    def ask(self, op, token=None, **fields):
        endpoint = self.endpoint()
        return Request(endpoint, {"token": token or endpoint["token"], "op": op, **fields})

    def act(self, action, value=None, answer=None, **payload):
        """An owner's own action; `answer` is typed when it asks."""
        fields = {"payload": {"action": action, **payload}} | ({"value": value} if value is not None else {})
        request = self.ask("manageVault", **fields)
        if answer is not None:
            self.reply(answer)
        done = request.answer()
        self.assertTrue(done["ok"], (action, done))
        return done

    def reply(self, answer, *expected):
        """Waits for the next question, checks that it holds the expected words, and types the answer and Enter."""
        question = words_of(self.owner.wait_for(QUESTION))
        for word in expected:
            self.assertIn(word, question)
        self.owner.type(answer + "\n")
        return question

    def furnish(self, value=VALUE):
        """One secret bound as SHOP_KEY in the environment "shop"."""
        self.act("secretAdd", name="shop key", value=value)
        self.act("environmentAdd", name="shop", folder=str(self.folder))
        self.act("environmentBind", name="shop", variable="SHOP_KEY", secret="shop key", answer="y")

    def grant(self, **payload):
        return self.act("agentAdd", label="Test agent", answer="y", **payload)["value"]

    def run_for_agent(self, token, *command, **payload):
        return self.ask("runEnv", token, environment="shop", requestor="the test",
                        payload={"command": json.dumps(command), **payload})

    def log(self):
        return json.loads(self.act("log")["document"])["events"]


class Within(House):
    """A house whose tests run once more under the commands `within`, which give it services of its own and set `mark`; that run's
    end is the test's."""

    within, mark = (), ""

    def run(self, result=None):
        if self.mark in os.environ:
            return super().run(result)
        test = getattr(self, self._testMethodName)
        setattr(self, self._testMethodName, self._pass_on)
        try:
            return super().run(result)
        finally:
            setattr(self, self._testMethodName, test)

    def _pass_on(self):
        runner = pathlib.Path(__file__).resolve().parent / "runner.py"
        inner = subprocess.run([*map(str, self.within), sys.executable, "-B", str(runner), self.id()], capture_output=True, text=True,
                               timeout=100)
        if inner.returncode == 77:
            self.skipTest(inner.stdout)
        self.assertEqual(inner.returncode, 0, inner.stdout + inner.stderr)


def processes_with(mark):
    """Ids of the processes whose command line holds `mark`."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and mark.encode() in (entry / "cmdline").read_bytes():
                found.append(int(entry.name))
        except OSError:
            pass
    return found


def output_of(command, **more):
    return subprocess.run(command, capture_output=True, text=True, timeout=30, **more)
