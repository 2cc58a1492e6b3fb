"""What opens the vault, as its owner handles it from the command line."""
import json
import os
import signal
import sqlite3
import subprocess
import threading

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

    def test_requireOffAndRemoveUnsealTheValuesAndANewPassphraseSealsThemAnew(self):
        self.open().furnish()
        wrap, key = self.support / "store.wrap", self.support / "store.key"
        for words in (("require", "off"), ("passphrase", "remove")):
            self.assertTrue(wrap.exists() and not key.exists())
            self.does(*words, "--yes", typed=[OTHER], code=77)
            self.assertTrue(wrap.exists() and not key.exists())
            self.does(*words, "--yes", typed=[PASSPHRASE])
            self.assertTrue(key.exists() and not wrap.exists())
            lock = self.lock()
            self.assertEqual((lock["requirement"], lock["hasPassphrase"], lock["storeIsSealed"]), ("off", False, False))
            self.does(*words, "--yes", code=0 if words[0] == "require" else 1)
            self.assertIn("shop key", self.does("secret", "list"))
            setting = self.start_command("passphrase", "set", "--require", "only", typed=[PASSPHRASE, PASSPHRASE])
            self.reply("y")  # where the system can check nobody, who has the terminal of sorvaned says yes
            said = setting()
            self.assertIn("still opens without the passphrase", said)
            self.assertIn("rotate them: shop key.", said)
        self.does("lock")
        self.does("unlock", typed=[PASSPHRASE])

    def start_command(self, *words, typed):
        """One that waits for an answer elsewhere; call what is returned for what it said."""
        said = []
        thread = threading.Thread(target=lambda: said.append(self.run_command(*words, typed=typed)))
        thread.start()

        def ended():
            thread.join()
            self.assertEqual(said[0][0], 0, said)
            return said[0][1]
        return ended

    def test_theFilesAreUselessWithoutThePassphrase(self):
        self.open().furnish()
        self.does("lock")
        self.close()
        self.assertFalse((self.support / "store.key").exists())
        with sqlite3.connect(f"file:{self.support}/values.db?mode=ro", uri=True) as values:
            rows = values.execute("SELECT * FROM items").fetchall()
        self.assertGreater(len(rows), 1)
        self.assertNotIn(VALUE, repr(rows))
        for file in self.support.rglob("*"):
            if file.is_file():
                self.assertNotIn(VALUE.encode(), file.read_bytes(), file.name)

    def test_aWrapThatWasChangedOpensNothingAndTheRightOneStillDoes(self):
        self.open().furnish()
        self.close()
        wrap = self.support / "store.wrap"
        right = wrap.read_bytes()
        support, self.support = self.support, self.folder / "other"
        self.open()
        self.close()
        swapped = wrap.parent.parent.joinpath("other", "store.wrap").read_bytes()
        self.support = support
        document = json.loads(right)
        bit = document["key"][:20] + ("A" if document["key"][20] != "A" else "B") + document["key"][21:]
        values = (self.support / "values.db").read_bytes()
        for name, text in {"one bit": json.dumps(document | {"key": bit}).encode(), "another vault's": swapped,
                           "10 MB": right + b" " * (10 << 20), "from the future": json.dumps(document | {"format": 2}).encode(),
                           "cut": right[:40]}.items():
            with self.subTest(name):
                wrap.write_bytes(text)
                self.owner = self.start()
                wait_until(lambda: self.run_command("status")[0] == 0, "it answers")
                code, said = self.run_command("unlock", typed=[PASSPHRASE])
                self.assertNotEqual(code, 0, said)
                self.assertFalse(self.lock()["isUnlocked"])
                self.does("secret", "list", code=75)
                self.close()
                self.assertEqual((self.support / "values.db").read_bytes(), values)
        wrap.write_bytes(right)
        self.owner = self.start()
        self.unlock()
        self.assertIn("shop key", self.does("secret", "list"))

    def test_twoUnlocksAtOnceOpenItOnceAndLeaveItOpen(self):
        self.open().furnish()
        self.does("lock")
        owner = {"socketPath": str(self.support / "owner.sock")}
        both = [Request(owner, {"op": "unlock", "passphrase": PASSPHRASE}) for _ in range(2)]
        outcomes = sorted(request.answer()["outcome"] for request in both)
        self.assertIn("done", outcomes)
        self.assertTrue(self.lock()["isUnlocked"])
        self.assertEqual(self.lock()["waitSeconds"], 0)
        self.owner.wait_for("the vault is open")
        self.assertIn("shop key", self.does("secret", "list"))

    def test_settingsThatWereDeletedAreResetAtTheTerminalOfSorvanedWithThePassphraseKept(self):
        self.open().furnish()
        self.does("lock")
        self.close()
        with sqlite3.connect(self.support / "values.db") as values:
            gone = values.execute("DELETE FROM items WHERE account LIKE '%sealed_unlock-settings%'").rowcount
        self.assertEqual(gone, 1)
        self.owner = self.start()
        self.owner.wait_for("^Passphrase: ")
        self.owner.type(PASSPHRASE + "\n")
        self.owner.wait_for("Type reset and Enter")
        self.assertFalse(self.lock()["isUnlocked"])
        self.assertIn("unlock reset", self.does("unlock", code=78))
        self.owner.type("reset\n")
        self.owner.wait_for(r"\[app\] the vault is open")
        self.assertIn("shop key", self.does("secret", "list"))
        self.assertTrue(self.lock()["storeIsSealed"])
        self.does("lock")
        self.does("unlock", typed=[OTHER], code=77)
        self.does("unlock", typed=[PASSPHRASE])
