"""What opens the vault, as its owner handles it from the command line."""
import json
import os
import signal
import subprocess

from house import PASSPHRASE, PROGRAMS, VALUE, House, Request, processes_with, wait_until
from terminal import Terminal

TYPED = r"\(not shown\): $"
OTHER = "another made-up passphrase"


class Unlock(House):
    def line(self, *words):
        return [str(PROGRAMS / "sorvane"), words[0], "--support-dir", str(self.support), *words[1:]]

    def run_command(self, *words, typed=()):
        """Without a terminal; a program gives what is typed, one text each time. Returns the code and what was said."""
        asker = self.folder / "askpass"
        lines = "".join(f"{i + 1}) printf '%s\\n' '{text}';;\n" for i, text in enumerate(typed))
        asker.write_text(f'#!/bin/sh\necho "$1" >> "$0.asked"\ncase $(wc -l < "$0.asked") in\n{lines}*) exit 1;;\nesac\n')
        asker.chmod(0o700)
        (self.folder / "askpass.asked").write_text("")
        done = subprocess.run(self.line(*words), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                              start_new_session=True, env=self.environment() | {"SORVANE_ASKPASS": str(asker)})
        for secret in (VALUE, *typed):
            self.assertNotIn(secret, done.stdout + done.stderr)
        return done.returncode, done.stdout + done.stderr

    def does(self, *words, typed=(), code=0):
        """What is said by a command that ends with `code`."""
        status, said = self.run_command(*words, typed=typed)
        self.assertEqual(status, code, said)
        return said

    def person(self, *words):
        person = Terminal(self.line(*words), self.environment())
        self.addCleanup(person.end)
        return person

    def lock(self):
        return json.loads(self.does("status", "--json"))["lock"]

    def test_aLockedVaultServesItsLockAloneAndTheRightPassphraseOpensIt(self):
        self.open().furnish()
        endpoint = self.endpoint()
        self.assertIn("sealed under the passphrase", self.does("status"))
        self.assertIn("sorvane is locked.", self.does("lock"))
        self.owner.wait_for("the vault is locked")
        self.assertFalse((self.support / "agent.json").exists())
        self.assertIn("sorvane unlock", self.does("secret", "list", code=75))
        self.assertIn("sorvane is locked.", self.does("status"))
        owner = {"socketPath": str(self.support / "owner.sock")}
        self.assertEqual((self.support / "owner.sock").stat().st_mode & 0o777, 0o600)
        told = Request(owner, {"op": "status"}).raw()
        for name in (b"shop", VALUE.encode(), endpoint["token"].encode()):
            self.assertNotIn(name, told)
        self.does("unlock", typed=[OTHER], code=77)
        self.assertIn("sorvane is open.", self.does("unlock", typed=[PASSPHRASE]))
        self.owner.wait_for("the vault is open")
        self.assertIn("shop key", self.does("secret", "list"))
        self.assertNotEqual(self.endpoint()["token"], endpoint["token"])
        self.close()
        self.assertFalse((self.support / "owner.sock").exists())
        self.does("unlock", code=69)
        self.does("status", code=69)

    def test_aPersonTypesWithoutEchoAndWaitsAfterThreeWrongOnes(self):
        self.open()
        self.does("lock")
        person = self.person("unlock")
        for _ in range(3):
            person.wait_for(TYPED)
            self.assertFalse(person.echoes())
            person.type(OTHER + "\n")
            person.wait_for(r"Wrong passphrase\.")
        self.assertEqual(person.end(None), 77)
        self.assertNotIn(OTHER, person.text())
        wait_until(lambda: self.lock()["waitSeconds"] == 0, "the first wait of 5 seconds ends")
        self.does("unlock", typed=[OTHER], code=77)  # now 15, which a busy machine does not use up
        person = self.person("unlock")
        person.wait_for(TYPED)
        person.type(PASSPHRASE + "\n")
        person.wait_for(r"Too many tries\. Try again in \d+ seconds?\.")
        self.assertEqual(person.end(None), 75)
        self.assertIn("is taken in", self.does("status"))
        self.assertFalse(self.lock()["isUnlocked"])

    def test_ctrlCAndASignalLeaveTheTerminalAsItWas(self):
        self.open()
        self.does("lock")
        for give_up, number in ((lambda p: p.type("some\x03"), signal.SIGINT),
                                (lambda p: os.kill(max(processes_with(f"unlock\0--support-dir\0{self.support}")), signal.SIGTERM), signal.SIGTERM)):
            # A shell stays on the terminal, to show what was left of it.
            shell = Terminal(["/bin/sh", "-c", 'trap : INT; "$@"; echo "code $?"; cat', "sh", *self.line("unlock")], self.environment())
            self.addCleanup(shell.end)
            shell.wait_for(TYPED)
            self.assertFalse(shell.echoes())
            give_up(shell)
            shell.wait_for(f"code {128 + number}")
            self.assertTrue(shell.echoes())
            self.assertNotIn("some", shell.text())
        self.assertFalse(self.lock()["isUnlocked"])
        person = self.person("unlock")
        person.wait_for(TYPED)
        person.type("x\x15" + PASSPHRASE + "é\x7f\n")  # corrected while it is typed
        person.wait_for("sorvane is open")
        self.assertEqual(person.end(None), 0)

    def test_thePassphraseIsChangedAndTheOldOneOpensNothing(self):
        self.open().furnish()
        self.does("passphrase", "set", typed=[OTHER, OTHER], code=1)
        self.assertIn("Use at least 8 characters.", self.does("passphrase", "change", typed=[PASSPHRASE, "seven77", "seven77"], code=2))
        self.assertIn("match", self.does("passphrase", "change", typed=[PASSPHRASE, OTHER, OTHER + "x"], code=2))
        self.does("passphrase", "change", typed=[OTHER, OTHER, OTHER], code=77)
        self.assertIn("changed", self.does("passphrase", "change", typed=[PASSPHRASE, OTHER, OTHER]))
        self.does("lock", "--hold")
        self.assertTrue(self.lock()["heldLocked"])
        self.does("unlock", typed=[PASSPHRASE], code=77)
        self.does("unlock", typed=[OTHER])
        self.assertFalse(self.lock()["heldLocked"])
        self.assertIn("shop key", self.does("secret", "list"))

    def test_whatOpensItIsSaidAndChangedOnlyWithThePassphrase(self):
        self.open()
        self.assertIn("It opens with its passphrase alone.", self.does("status"))
        self.assertIn("every program that runs as you can read the values", self.does("require", "off", code=2))
        person = self.person("require", "off")
        person.wait_for(r"every program[^?]*\?[^:]*\[y/N\] $")
        person.type("n\n")
        self.assertEqual(person.end(None), 77)
        self.assertEqual(self.lock()["requirement"], "only")
        self.does("follow-session", "off", typed=[OTHER], code=77)
        self.assertTrue(self.lock()["followsSession"])
        self.does("follow-session", "off", typed=[PASSPHRASE])
        self.assertIn("It stays open when your login session is locked.", self.does("status"))
