"""Backups from and to places that a person could name by mistake, or that somebody prepared."""
import os
import signal
import subprocess
import threading
import unittest

from backup_test import Backup
from house import PASSPHRASE, VALUE, as_user
from terminal import QUESTION, Terminal

MOST = 268_435_456


def may_mount():
    """None, or why no file system can be mounted here."""
    if os.geteuid() != 0:
        return "needs root, to mount a file system of its own"
    tried = subprocess.run(["unshare", "--mount", "sh", "-c", "mount -t tmpfs tmpfs /mnt"], capture_output=True, text=True)
    return None if tried.returncode == 0 else "no file system can be mounted here: " + tried.stderr.strip()


class Sources(Backup):
    def test_a_file_is_read_up_to_256_mb_and_a_link_to_it_too_and_a_pipe_never(self):
        self.open()
        exact, longer, pipe = (self.folder / name for name in ("exact", "longer", "pipe"))
        for path, size in ((exact, MOST), (longer, MOST + 1)):
            with open(path, "wb") as file:
                file.truncate(size)
        os.mkfifo(pipe)
        links = []
        for target in (exact, longer, pipe):
            links.append(self.folder / (target.name + " link"))
            links[-1].symlink_to(target)
        for path in (exact, links[0]):
            self.refused("Check that this is an sorvane backup file.", "verify", path)
        for path in (longer, links[1]):
            self.refused("Backup files larger than 256 MB are not supported.", "verify", path)
        for path in (pipe, links[2], self.folder):
            self.refused("could not be read", "verify", path)

    def test_a_file_that_changes_while_it_is_read_is_refused(self):
        self.open()
        path = self.folder / "growing"
        with open(path, "wb") as file:
            file.truncate(200 << 20)
        ended = threading.Event()

        def write():
            with open(path, "r+b", buffering=0) as file:
                while not ended.is_set():
                    os.pwrite(file.fileno(), os.urandom(1), 7)
        writer = threading.Thread(target=write)
        writer.start()
        try:
            self.refused("The backup file changed while it was read.", "verify", path)
        finally:
            ended.set()
            writer.join()


@unittest.skipIf(may_mount(), may_mount())
class Destinations(Backup):
    """sorvaned has three file systems of its own: one that is full soon, one that is read only, and one with room."""

    def start(self, *more):
        places = {"full": "size=16k", "read-only": "ro", "roomy": "size=8m"}
        for name in places:
            (self.folder / name).mkdir(exist_ok=True)
        mounts = " && ".join(f"mount -t tmpfs -o {options} tmpfs '{self.folder / name}'" for name, options in places.items())
        command = [str(self.program), "--support-dir", str(self.support), "--store", "embedded", *more]
        return Terminal(as_user(self.user, ["/usr/bin/unshare", "--mount", "/bin/sh", "-c", mounts + ' && exec "$0" "$@"', *command]),
                        self.environment())

    def inside(self, name):
        """The folder as sorvaned sees it."""
        pid = int((self.support / "sorvaned.lock").read_text())
        return sorted(os.listdir(f"/proc/{pid}/root{self.folder / name}"))

    def test_a_full_or_read_only_one_gets_no_file_and_another_file_system_does(self):
        self.open().furnish()
        for number in range(4):
            self.act("secretAdd", name=f"long {number}", value="made-up " * 500)
        for name in ("full", "read-only"):
            with self.subTest(name):
                self.refused("No backup was saved. Pick another folder and try again.", "create", self.folder / name / "b",
                             answers="y")
                self.assertEqual(self.inside(name), [])
        code, out, err = self.script("create", self.folder / "roomy" / "b", "--json", typed="made-up words of a person",
                                     answers="y")
        self.assertEqual(code, 0, out + err)
        self.assertEqual(self.inside("roomy"), ["b"])
        self.act("secretRemove", name="shop key", answer="y")
        code, out, err = self.script("restore", self.folder / "roomy" / "b", "--yes", "--json",
                                     typed="made-up words of a person", answers="y")
        self.assertEqual(code, 0, out + err)
        self.assertEqual(self.value(), VALUE)


class Locked(Backup):
    def test_a_person_is_offered_to_unlock_before_a_backup_and_a_script_is_told(self):
        self.open().furnish()
        self.act("secretAdd", name="other", value="made-up")
        self.close()
        self.owner = self.start()
        self.owner.wait_for("^Passphrase: ")
        code, _, err = self.script("create", self.file, typed="made-up words of a person")
        self.assertEqual(code, 75)
        self.assertIn("sorvane is locked, so no backup was saved.", err)
        client = self.at_terminal("create", self.file)
        client.wait_for(r"Unlock it now\?.*\[y/N\] $")
        client.type("y\n")
        client.wait_for(r"Passphrase of sorvane \(not shown\): $")
        client.type(PASSPHRASE + "\n")
        for _ in range(2):
            client.wait_for(r"at least 12 characters \(not shown\): $|Once more: $")
            client.type("made-up words of a person\n")
        self.owner.wait_for(QUESTION)
        self.owner.type("y\n")
        client.wait_for("Saved 2 secrets to")
        self.assertEqual(client.end(None), 0)


if __name__ == "__main__":
    unittest.main()
