"""Restores where the lock stands in the way: after a reset of its settings, and of a vault that nothing opens."""
import json
import os
import re
import shutil
import signal
import sqlite3

from backup_test import PASSPHRASE as WORDS
from backup_test import Backup
from house import PASSPHRASE, PROGRAMS, VALUE, Request, wait_until, words_of
from terminal import QUESTION, Terminal

HELD_BACK = "vault unavailable; retry after unlocking or restoring"


class Restore(Backup):
    def served(self, token):
        return self.ask("listEnvironments", token).answer()

    def lock_report(self):
        return Request({"socketPath": str(self.support / "owner.sock")}, {"op": "status"}).answer()["status"]

    def furnish_and_save(self):
        """A vault with an agent, whose backup lacks the secret "since"."""
        self.open().furnish()
        token = self.grant(environment="shop")
        self.save()
        self.act("secretAdd", name="since", value="made-up")
        return token

    def start_locked(self, damage=lambda: None):
        self.close()
        damage()
        self.owner = self.start()
        wait_until((self.support / "owner.sock").exists, "sorvaned listens")

    def aside(self):
        return [path for path in self.support.iterdir() if path.name.startswith("set-aside.")]

    def left_over(self):
        return [path.name for path in self.support.iterdir() if path.name.startswith((".new-vault", "vault-switch"))]


class AfterAReset(Restore):
    def test_agents_are_served_again_once_a_backup_is_restored(self):
        token = self.furnish_and_save()

        def damage():
            with sqlite3.connect(self.support / "values.db") as values:
                values.execute("DELETE FROM items WHERE account LIKE '%sealed_unlock-settings%'")
        self.start_locked(damage)
        self.owner.wait_for("^Passphrase: ")
        self.owner.type(PASSPHRASE + "\n")
        self.owner.wait_for("Type reset and Enter")
        self.refused("sorvane unlock reset", "restore", self.file, "--yes")
        self.owner.type("reset\n")
        self.owner.wait_for(r"\[app\] the vault is open")
        self.assertEqual(self.served(token)["error"], HELD_BACK)
        notices = len(self.lock_report()["notices"])
        code, out, err = self.script("restore", self.file, "--yes", "--json", typed=WORDS, answers="y")
        self.assertEqual(code, 0, out + err)
        self.assertTrue(self.served(token)["ok"])
        wait_until(lambda: len(self.lock_report()["notices"]) == notices - 1, "the reset is over")
        self.close()
        self.open()
        self.assertTrue(self.served(token)["ok"])
        self.assertEqual(self.names(), ["shop key"])

    def test_a_restore_that_fails_leaves_agents_held_back(self):
        token = self.furnish_and_save()

        def damage():
            with sqlite3.connect(self.support / "values.db") as values:
                values.execute("DELETE FROM items WHERE account LIKE '%sealed_unlock-settings%'")
        self.start_locked(damage)
        self.owner.wait_for("^Passphrase: ")
        self.owner.type(PASSPHRASE + "\n")
        self.owner.wait_for("Type reset and Enter")
        # The lock has settled when it answers: until then its screen may be drawn once more, and drop what was typed.
        self.assertFalse(self.lock_report()["isUnlocked"])
        self.owner.wait_for("in their place: ")
        self.owner.type("reset\n")
        self.owner.wait_for(r"\[app\] the vault is open")
        self.refused("approval denied", "restore", self.file, "--yes", answers="n")
        self.assertEqual(self.served(token)["error"], HELD_BACK)


class OfALostVault(Restore):
    def restore_lost(self, *options, answer="y"):
        return self.script("restore", self.file, "--json", "--yes", *options, typed=WORDS, answers=answer)

    def is_restored(self, out):
        """The vault is the backup's, the old one is kept, and no passphrase is set."""
        said = json.loads(out)
        self.assertEqual((said["secrets"], said["environments"]), (1, 1))
        aside, = self.aside()
        self.assertIn(str(aside), said["notices"][0])
        self.assertIn("sorvane passphrase set", said["notices"][0])
        self.assertTrue((aside / "vault" / "active-vault.json").exists() and (aside / "values.db").exists())
        self.assertEqual(self.left_over(), [])
        self.assertEqual(self.names(), ["shop key"])
        self.assertEqual(self.value(), VALUE)
        report = self.lock_report()
        self.assertEqual((report["hasPassphrase"], report["storeIsSealed"]), (False, False))
        self.refused("There is no previous vault to restore.", "undo")
        return aside

    def test_it_is_set_aside_whole_and_the_backup_opens_as_a_new_one(self):
        def gone():
            (self.support / "store.wrap").unlink()

        def damaged():
            (self.support / "store.wrap").write_bytes(b"damaged")
        for damage, options in ((lambda: None, ["--set-aside"]), (gone, []), (damaged, [])):
            with self.subTest(damage.__name__):
                self.furnish_and_save()
                values = None
                self.start_locked(damage)
                values = (self.support / "values.db").read_bytes()
                code, out, err = self.restore_lost(*options)
                self.assertEqual(code, 0, out + err)
                aside = self.is_restored(out)
                self.assertEqual((aside / "values.db").read_bytes(), values)
                self.close()
                if damage is not gone and damage is not damaged:
                    # What was set aside is a whole vault still.
                    support, self.support = self.support, self.folder / "kept"
                    shutil.copytree(aside, self.support)
                    self.assertEqual(self.open().names(), ["shop key", "since"])
                    self.close()
                    self.support = support
                shutil.rmtree(self.support)
                self.file.unlink()

    def test_the_new_vault_is_there_after_a_restart_and_takes_a_passphrase(self):
        token = self.furnish_and_save()
        self.start_locked()
        code, out, err = self.restore_lost("--set-aside")
        self.assertEqual(code, 0, out + err)
        self.assertFalse(self.served(token)["ok"])  # nobody vouches for the file of agents
        again = self.act("agentAdd", label="Another agent", answer="y")["value"]
        self.assertTrue(self.served(again)["ok"])
        self.assertFalse(self.served(token)["ok"])
        self.close()
        self.open()
        self.assertEqual(self.names(), ["shop key"])
        self.assertTrue(self.lock_report()["storeIsSealed"])

    def test_a_person_is_asked_whether_the_passphrase_is_lost_and_sees_counts_alone(self):
        self.furnish_and_save()
        self.start_locked()
        client = self.at_terminal("restore", self.file)
        client.wait_for(r"Is the passphrase lost\?.*\[y/N\] $")
        client.type("y\n")
        client.wait_for("This backup needs its passphrase.")
        client.wait_for(r"\(not shown\): $")
        client.type(WORDS + "\n")
        preview = client.wait_for(r"Set the locked vault aside.*\[y/N\] $")
        self.assertIn("Secrets:       1, in 1 versions with 1 values", preview)
        self.assertIn("set aside, whole", words_of(preview))
        for name in ("shop", VALUE, "since"):
            self.assertNotIn(name, preview)
        client.type("y\n")
        self.reply("y", "Set sorvane’s locked vault aside", "with 1 secret", str(self.file))
        client.wait_for("Restored 1 secrets")
        self.assertEqual(client.end(None), 0)

    def test_what_is_denied_or_wrong_leaves_the_locked_vault_as_it_was(self):
        self.furnish_and_save()
        self.start_locked()
        files = {path: path.read_bytes() for path in self.support.rglob("*") if path.is_file()}
        for sentence, options, typed, answers in (
                ("give --set-aside", [], WORDS, ()),
                ("wrong passphrase or recovery key", ["--set-aside"], "other words of one", ()),
                ("This backup has no recovery key.", ["--set-aside", "--recovery-key"], WORDS, ()),
                ("Use one unlock method at a time.", ["--set-aside", "--recovery-key", "--passphrase"], WORDS, ()),
                ("Couldn’t verify", ["--set-aside"], WORDS, "n")):
            with self.subTest(sentence):
                self.refused(sentence, "restore", self.file, "--yes", *options, typed=typed, answers=answers)
        owner = {"socketPath": str(self.support / "owner.sock")}
        other = Request(owner, {"op": "backupRestore", "file": str(self.file), "passphrase": WORDS, "sha256": "0" * 64})
        self.assertIn("The backup file is not the one that was shown.", other.answer()["sentence"])
        self.assertEqual({path: path.read_bytes() for path in self.support.rglob("*") if path.is_file()}, files)
        self.assertEqual(self.aside() + self.left_over(), [])
        self.unlock()
        self.assertEqual(self.names(), ["shop key", "since"])
        open_now = Request(owner, {"op": "backupRestore", "file": str(self.file), "passphrase": WORDS, "sha256": "0" * 64})
        self.assertEqual(open_now.answer()["outcome"], "refused")


if __name__ == "__main__":
    import unittest
    unittest.main()
