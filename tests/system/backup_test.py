"""Backups: out of one sorvaned and into another, by the command line as a person or a script uses it."""
import base64
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import stat
import subprocess
import threading

from house import PROGRAMS, VALUE, House, wait_until, words_of
from terminal import QUESTION, Terminal

PASSPHRASE = "made-up words of a person"
GROUPS = r"((?:[A-Z2-7]{5}-){6}[A-Z2-7]{2})"
REPLACE = "The backup will replace the secrets and environments currently on this Mac."


class Backup(House):
    def setUp(self):
        super().setUp()
        self.file = self.folder / "vault.sorvane"

    def line(self, *words):
        return [str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), "backup", *map(str, words)]

    def at_terminal(self, *words):
        client = Terminal(self.line(*words), self.environment(), self.folder)
        self.addCleanup(client.end, signal.SIGKILL)
        return client

    def script(self, *words, typed="", answers=()):
        """The command without a terminal; `answers` are the owner's."""
        process = subprocess.Popen(self.line(*words), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=self.environment(), cwd=self.folder)
        for answer in answers:
            threading.Thread(target=self.reply, args=(answer,), daemon=True).start()
        out, err = process.communicate(typed, timeout=90)
        return process.returncode, out, err

    def save(self, *options, typed=PASSPHRASE):
        code, out, err = self.script("create", self.file, "--json", *options, typed=typed, answers="y")
        self.assertEqual(code, 0, out + err)
        return json.loads(out)

    def refused(self, sentence, *words, typed=PASSPHRASE, answers=()):
        code, out, _ = self.script(*words, "--json", typed=typed, answers=answers)
        self.assertNotEqual(code, 0, out)
        self.assertIn(sentence, json.loads(out)["error"]["message"])

    def fault(self, name):
        """The file of that name of the kit of faults."""
        kit = (pathlib.Path(__file__).resolve().parents[1] / "corpora" / "backup" / "faults.jsonl").read_text()
        for line in kit.splitlines():
            if (fault := json.loads(line))["name"] == name:
                return base64.b64decode(fault["file"]).decode()
        raise AssertionError(name)

    def value(self):
        return self.act("secretReveal", name="shop key", answer="y")["value"]

    def names(self):
        return [secret["name"] for secret in json.loads(self.act("secretList")["document"])["secrets"]]


class AtATerminal(Backup):
    def test_a_lost_machine_comes_back_from_one_file_and_the_key_that_was_shown_once(self):
        self.open().furnish()
        client = self.at_terminal("create", self.file, "--passphrase", "--recovery-key")
        for _ in range(2):
            client.wait_for(r"\(not shown\): $|Once more: $")
            client.type(PASSPHRASE + "\n")
        self.reply("y", "save a backup of the vault. File: " + str(self.file))
        shown = client.wait_for(r"Enter for none: $")
        key = re.search(GROUPS, shown)[1]
        self.assertFalse(self.file.exists())
        client.type("page.txt\n")
        client.wait_for(r"that you have it: $")
        self.assertIn(key, (self.folder / "page.txt").read_text())
        client.type("wrong\n")
        client.wait_for(r"that you have it: $")
        client.type(key[-2:].lower() + "\n")
        client.wait_for("Saved 1 secret to")
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)
        self.assertNotIn(VALUE, self.file.read_text())
        self.close()
        shutil.rmtree(self.support)

        self.open().act("secretAdd", name="lost", value="made-up")
        client = self.at_terminal("restore", self.file, "--recovery-key")
        client.wait_for(r"\(not shown\): $")
        client.type(key.lower().replace("-", " ") + "\n")
        preview = client.wait_for(QUESTION)
        self.assertIn(hashlib.sha256(self.file.read_bytes()).hexdigest(), preview)
        for part in ("Added secrets (1):\n  shop key", "Lost secrets (1):\n  lost", "Added environments (1):"):
            self.assertIn(part, preview)
        self.assertIn(REPLACE, words_of(preview))
        client.type("y\n")
        self.reply("y", "replace the vault with a backup. File: " + str(self.file), "1 secret added", "1 lost")
        client.wait_for("Restored 1 secrets and 1 environments")
        self.assertEqual(self.value(), VALUE)
        client = self.at_terminal("undo")
        client.wait_for(QUESTION)
        client.type("y\n")
        self.reply("y", "go back to the vault before the last restore")
        client.wait_for("swaps them again")
        self.assertEqual(self.names(), ["lost"])

    def test_ctrl_c_leaves_no_file_and_says_so(self):
        self.open().furnish()
        client = self.at_terminal("create", self.file, "--recovery-key")
        client.wait_for("Waiting for the owner")
        self.owner.wait_for(QUESTION)
        client.type("\x03")
        client.wait_for("Export cancelled. No backup was saved.")
        client = self.at_terminal("create", self.file, "--recovery-key")
        self.reply("y")
        client.wait_for(r"Enter for none: $")
        client.type("\n")
        client.wait_for(r"that you have it: $")
        client.type("\x03")
        client.wait_for("Export cancelled. No backup was saved.")
        self.assertFalse(self.file.exists())
        self.assertEqual(self.save()["secrets"], 1)


class ByAScript(Backup):
    def test_each_protection_is_shown_verified_and_opened_by_what_opens_it_only(self):
        self.open().furnish()
        key = None
        for options, opening in (((), [((), PASSPHRASE)]), (("--none",), [((), "")]),
                                 (("--recovery-key",), [(("--recovery-key",), None)]),
                                 (("--passphrase", "--recovery-key"),
                                  [(("--passphrase",), PASSPHRASE), (("--recovery-key",), None)])):
            key = self.save("--force", *options).get("recoveryKey")
            self.assertEqual(key is not None, "--recovery-key" in options)
            for how, typed in opening:
                code, out, err = self.script("show", self.file, "--json", *how, typed=typed or key or "")
                self.assertEqual(code, 0, out + err)
                shown = json.loads(out)
                self.assertEqual((shown["secrets"], shown["environments"], shown["values"]), (["shop key"], ["shop"], 1))
                self.assertEqual(shown["sha256"], hashlib.sha256(self.file.read_bytes()).hexdigest())
                self.assertNotIn(VALUE, out)
                code, out, err = self.script("verify", self.file, *how, typed=typed or key or "")
                self.assertEqual(code, 0, out + err)
        self.refused("wrong passphrase or recovery key", "show", self.file, "--passphrase", typed="other words of one")
        self.refused("that doesn't look like a valid recovery key", "show", self.file, "--recovery-key", typed="ABC")
        self.refused("Use one unlock method at a time.", "show", self.file, "--recovery-key", "--passphrase")
        self.save("--force")
        self.refused("This backup has no recovery key.", "show", self.file, "--recovery-key")

    def test_a_wrong_order_or_file_is_refused_before_the_owner_is_asked(self):
        self.open().furnish()
        asked = self.owner.text().count("[y/N]")
        self.refused("Use a backup passphrase of at least 12 characters.", "create", self.file, typed="short")
        self.refused("Choose a location outside sorvane’s working vault folder.", "create",
                     self.support / "vault" / "b", "--none")
        link = self.folder / "link"
        link.symlink_to(self.support / "vault")
        self.refused("Choose a location outside", "create", link / "b", "--none")
        self.file.write_text("a file of mine")
        self.refused("There is already a file of that name.", "create", self.file, "--none")
        self.assertEqual(self.file.read_text(), "a file of mine")
        for name, text, sentence in (("no", None, "There is no backup file of that name."),
                                     ("text", "no JSON", "Check that this is an sorvane backup file."),
                                     ("cloud", self.fault("cloud"), "this backup is not signed by your sorvane account")):
            path = self.folder / name
            if text is not None:
                path.write_text(text)
            self.refused(sentence, "restore", path, "--yes")
        with open(self.folder / "large", "wb") as large:
            large.truncate(268_435_457)
        self.refused("Backup files larger than 256 MB are not supported.", "verify", self.folder / "large")
        os.mkfifo(self.folder / "pipe")
        self.refused("could not be read", "verify", self.folder / "pipe")
        self.assertEqual(self.owner.text().count("[y/N]"), asked)
        self.assertEqual(self.names(), ["shop key"])

    def test_names_from_a_foreign_file_do_nothing_to_the_terminal(self):
        self.open().furnish()
        self.save("--none", typed="")
        backup = json.loads(self.file.read_text())

        def written(name):
            backup["plaintext"]["secrets"][0]["name"] = name
            text = json.dumps(backup["plaintext"], sort_keys=True, separators=(",", ":"), ensure_ascii=False)
            backup["checksum"] = base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()
            return json.dumps(backup)

        self.file.write_text(written("clear").replace("clear", "other"))
        self.refused("the backup file is corrupt or not an sorvane backup", "verify", self.file)
        self.file.write_text(written("turned\u202e"))
        code, out, err = self.script("show", self.file)
        self.assertEqual(code, 0, err)
        self.assertIn("turned\\u{202e}", out)
        self.assertNotIn("\u202e", out + err)
        self.file.write_text(written("clear\x1b[2J"))
        code, out, err = self.script("show", self.file)
        self.assertNotEqual(code, 0)
        self.assertRegex(err, r"clear\\+x1b\[2J")
        self.assertNotIn("\x1b", out + err)

    def test_what_the_owner_denies_or_another_file_than_the_one_shown_changes_nothing(self):
        self.open().furnish()
        self.refused("approval denied", "create", self.file, answers="n")
        self.assertFalse(self.file.exists())
        self.save()
        self.act("secretAdd", name="since", value="made-up")
        self.refused("approval denied", "restore", self.file, "--yes", answers="n")
        shown = hashlib.sha256(self.file.read_bytes()).hexdigest()
        self.save("--force")
        request = self.ask("manageVault", value=PASSPHRASE,
                           payload={"action": "backupRestore", "file": str(self.file), "unlock": "passphrase",
                                    "sha256": shown})
        self.assertIn("The backup file is not the one that was shown.", request.answer()["error"])
        self.assertEqual(self.names(), ["shop key", "since"])

    def test_a_restore_ends_sessions_commands_and_questions_first_and_is_answered_after_the_restart(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        self.save()
        self.act("secretAdd", name="since", value="made-up")
        old = self.endpoint()["token"]
        running = self.run_for_agent(token, "/bin/sh", "-c", "trap '' TERM; echo up >" + str(self.folder / "up") +
                                     "; sleep 600")
        self.reply("y")
        wait_until((self.folder / "up").exists, "the command runs")
        begun = self.ask("beginTaskSession", token, environment="shop", durationSeconds=3600)
        self.reply("y")
        session = begun.answer()
        self.assertTrue(session["ok"], session)
        code, out, err = self.script("restore", self.file, "--yes", "--json", typed=PASSPHRASE, answers="y")
        self.assertEqual(code, 0, out + err)
        self.assertEqual(json.loads(out)["secrets"], 1)
        running.raw()  # it was ended
        self.assertNotEqual(self.endpoint()["token"], old)
        env = self.ask("taskSessionEnv", token, taskSession=session["value"]).answer()
        self.assertFalse(env["ok"], "the session has ended")
        self.assertNotIn("lines", env)
        self.assertEqual(self.names(), ["shop key"])
        self.assertEqual(self.value(), VALUE)
        self.close()
        self.assertEqual(self.open().names(), ["shop key"])

    def test_a_vault_that_cannot_be_opened_is_replaced_and_works_at_once(self):
        self.open().furnish()
        self.save()
        self.close()
        for secrets in (self.support / "vault" / "generations").glob("*/secrets.json"):
            secrets.write_bytes(b"damaged")
        self.open()
        self.assertIn("Restore a backup", words_of(self.owner.text()))
        code, out, err = self.script("restore", self.file, "--yes", "--json", typed=PASSPHRASE, answers="y")
        self.assertEqual(code, 0, out + err)
        self.assertEqual(self.value(), VALUE)
        self.assertEqual(self.script("undo", "--json", answers="y")[0], 1)
        self.assertEqual(self.names(), ["shop key"])
