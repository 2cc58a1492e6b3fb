"""The system's owner check asked by the whole programs: a real polkit, and a person who types the login password."""
import os
import pathlib
import shutil

from house import PROGRAMS, SUPPORT, Within, as_user
from terminal import Terminal

PACKAGING = SUPPORT.parents[1] / "packaging"
ACCOUNT = 54321  # of with-test-account
PROMPT = "^Password: $"
ENTER = "^Press Enter to unlock"


class OwnerCheck(Within):
    within = [SUPPORT / "with-test-account", PACKAGING / "sorvane.pam", SUPPORT / "with-polkit",
              PACKAGING / "org.sorvane.owner-check.policy"]
    mark = "SORVANE_TEST_POLKIT"
    user = ACCOUNT

    def on_terminal(self, *words):
        command = [str(self.helper), "--support-dir", str(self.support), *words]
        return Terminal(as_user(self.user, command), self.environment())

    def answered(self, answer, *words):
        """The exit status and the text of a command whose password prompt gets `answer`."""
        terminal = self.on_terminal(*words)
        terminal.wait_for(PROMPT)
        self.assertFalse(terminal.echoes())
        terminal.type(answer)
        return terminal.end(None), terminal.text()

    def test_aPasswordTypedWhereItWasAskedOpensTheVaultAndNothingElseDoes(self):
        password = os.environ["SORVANE_TEST_PASSWORD"] + "\n"
        self.helper = pathlib.Path(shutil.copy2(PROGRAMS / "sorvane", self.folder))
        self.owner = self.start()
        self.owner.wait_for("^New passphrase, or Enter for none: ")
        self.owner.type("\n")
        self.owner.wait_for(ENTER)
        self.owner.type("\n")
        self.owner.wait_for(PROMPT)
        self.owner.type(password)
        self.owner.wait_for(r"\[app\] the vault is open")
        locked = self.on_terminal("lock")
        self.assertEqual(locked.end(None), 0, locked.text())
        self.owner.wait_for(ENTER)
        status, shown = self.answered("not the password\n", "unlock")
        self.assertEqual(status, 77, shown)
        self.assertIn("Your Mac did not accept that. Try again.", shown)
        status, shown = self.answered("\x03", "unlock")
        self.assertEqual(status, 77, shown)
        self.assertIn("Couldn’t verify. Try again.", shown)
        self.assertFalse((self.support / "agent.json").exists())
        status, shown = self.answered(password, "unlock")
        self.assertEqual(status, 0, shown)
        self.owner.wait_for(r"\[app\] the vault is open")
        # Open, it changes nothing of its lock unasked either.
        status, shown = self.answered("\x03", "follow-session", "off")
        self.assertEqual(status, 77, shown)
        status, shown = self.answered(password, "follow-session", "off")
        self.assertEqual(status, 0, shown)
        for shown in (self.owner.text(), shown):
            self.assertNotIn(password.strip(), shown)
