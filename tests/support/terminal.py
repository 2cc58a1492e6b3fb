"""A program on a pseudo-terminal of its own, with what it shows readable and a person's typing writable."""
import fcntl
import os
import re
import select
import signal
import struct
import termios
import threading
import time

# What a question to the owner ends with; nothing is typed before it stands there.
QUESTION = re.compile(r"\[y/N\] ?$", re.MULTILINE)
# Control sequences of a terminal, which a person does not read.
CONTROL = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b\][^\x07]*\x07|\r")


class Timeout(Exception):
    pass


class Terminal:
    """Starts `command` as the leader of a session whose controlling terminal is new. A thread reads what it shows."""

    def __init__(self, command, environment, folder="/", size=None):
        self._changed = threading.Condition()
        self._raw = b""
        self._read = 0  # characters of text() that waits have consumed
        self._ended = False
        self.status = None
        self.pid, self._master = os.forkpty()
        if self.pid == 0:
            try:
                if size:  # rows and columns, before the program can look
                    fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", *size, 0, 0))
                os.chdir(folder)
                os.execve(command[0], command, environment)
            finally:
                os._exit(127)
        self._wake, self._stop = os.pipe()
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()

    def _collect(self):
        while True:
            ready, _, _ = select.select([self._master, self._wake], [], [])
            if self._master not in ready:
                break
            try:
                piece = os.read(self._master, 65536)
            except OSError:  # the last program on the terminal has gone
                piece = b""
            if not piece:
                break
            with self._changed:
                self._raw += piece
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def text(self):
        """Everything shown so far, without control sequences."""
        with self._changed:
            return self._text()

    def _text(self):
        return CONTROL.sub("", self._raw.decode("utf-8", "replace"))

    def wait_for(self, pattern, seconds=20):
        """Waits until `pattern` is shown after what earlier waits returned; returns all the text up to its end."""
        pattern = re.compile(pattern, re.MULTILINE) if isinstance(pattern, str) else pattern
        limit = time.monotonic() + seconds
        with self._changed:
            while True:
                text = self._text()
                found = pattern.search(text, self._read)
                if found:
                    shown = text[self._read:found.end()]
                    self._read = found.end()
                    return shown
                left = limit - time.monotonic()
                if self._ended or left <= 0:
                    raise Timeout(f"{pattern.pattern!r} was not shown; since the last wait: {text[self._read:]!r}")
                self._changed.wait(left)

    def ended(self):
        """Whether everything that had the terminal open has gone."""
        with self._changed:
            return self._ended

    def unread(self):
        with self._changed:
            return self._text()[self._read:]

    def type(self, text):
        os.write(self._master, text.encode("utf-8", "surrogateescape"))

    def raw(self):
        """Everything shown so far, control sequences and all."""
        with self._changed:
            return self._raw

    def resize(self, rows, columns):
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def echoes(self):
        return bool(termios.tcgetattr(self._master)[3] & termios.ECHO)

    def end(self, number=signal.SIGTERM, seconds=15):
        """Signals the program (not at all with number None) and waits for it; returns its exit status, -n for a signal."""
        if self.status is None:
            if number is not None:
                os.kill(self.pid, number)
            self.status = self._wait(seconds)
            os.write(self._stop, b".")
            self._reader.join()
            for descriptor in (self._master, self._wake, self._stop):
                os.close(descriptor)
        return self.status

    def _wait(self, seconds):
        with os.fdopen(os.pidfd_open(self.pid)) as ended:
            if not select.select([ended], [], [], seconds)[0]:
                os.kill(self.pid, signal.SIGKILL)
                os.waitpid(self.pid, 0)
                raise Timeout(f"process {self.pid} did not end within {seconds} s; shown: {self._text()[-2000:]!r}")
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])
