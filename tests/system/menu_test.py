"""The menu of a person at a terminal."""
import json
import os
import socket
import subprocess
import threading
import unicodedata

from house import PASSPHRASE, PROGRAMS, VALUE, House, output_of
from terminal import Terminal

CHOICE = r"Choice \(Enter: (back|leave)\): $"
COLUMNS = 80


def columns_of(line):
    return sum(0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in line)


STATUS = {"version": "0", "supportFolder": "here", "vaultOpen": True, "notices": []}


class StandIn:
    """Answers in sorvaned's place, with documents for the owner's actions."""

    def __init__(self, house, documents):
        self.asked = []
        self._documents = documents
        house.support.mkdir(mode=0o700)
        path = str(house.support / "agent.sock")
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        (house.support / "agent.json").write_text(json.dumps({"socketPath": path, "token": "made-up"}))
        thread = threading.Thread(target=self._serve)
        thread.start()
        house.addCleanup(thread.join)
        house.addCleanup(self._listener.shutdown, socket.SHUT_RDWR)

    def _serve(self):
        with self._listener:
            while True:
                try:
                    client = self._listener.accept()[0]
                except OSError:
                    return
                with client, client.makefile("rb") as sent:
                    client.sendall(json.dumps(self._answer(json.load(sent))).encode())

    def _answer(self, request):
        self.asked.append(request["payload"])
        action = request["payload"]["action"]
        if action in self._documents:
            return {"ok": True, "document": json.dumps(self._documents[action])}
        return {"ok": True, "value": action + " was done."}


class Menu(House):
    def line(self):
        return [str(PROGRAMS / "sorvane"), "--support-dir", str(self.support)]

    def sit_down(self, columns=COLUMNS):
        person = Terminal(self.line(), self.environment(), folder=str(self.folder), size=(24, columns))
        self.person = person
        self.addCleanup(person.end)
        return person

    def choose(self, *typed, then=CHOICE):
        """Types each choice when the one before has led to a prompt; returns what was shown since."""
        for word in typed:
            self.person.type(word + "\n")
            shown = self.person.wait_for(then)
        return shown

    def entry(self, shown, text):
        """The number of the choice that begins with `text`."""
        for line in shown.splitlines():
            number, _, words = line.strip().partition(". ")
            if words.startswith(text) and number.isdigit():
                return number
        self.fail(f"{text!r} is no choice in {shown!r}")

    def go(self, *places):
        """Follows the choices that begin with these texts from the main menu's prompt."""
        shown = self.main
        for place in places:
            shown = self.choose(self.entry(shown, place))
        return shown

    def begin(self, **more):
        self.sit_down(**more)
        self.main = self.person.wait_for(CHOICE)
        return self.main

    def checkWidth(self, columns=COLUMNS):
        for line in self.person.text().split("\n"):
            self.assertLessEqual(columns_of(line), columns, line)

    def test_aSecretIsAddedBoundUsedAndRemoved(self):
        self.open()
        self.begin()
        shown = self.go("Secrets")
        self.assertIn("There are no secrets yet.", shown)
        self.choose(self.entry(shown, "Add a secret"), then=r"\(Enter: cancel\): $")
        self.choose("SHOP_KEY", then=r"\(Enter: nothing\): $")
        self.choose("payments", then=r"\(not shown\): $")
        self.choose(VALUE, then=r"Once more: $")
        shown = self.choose(VALUE)
        self.assertIn("Stored SHOP_KEY.", shown)
        self.assertIn("SHOP_KEY, version 1", shown)
        shown = self.choose("")
        shown = self.choose(self.entry(shown, "Environments"))
        self.choose(self.entry(shown, "Create"), then=r"Development \(Enter: cancel\): $")
        self.choose("shop", then=r"\(Enter: none\): $")
        self.choose("", then=r"Choice \(Enter: none\): $")
        self.choose("staging")
        shown = self.choose("shop")
        self.choose(self.entry(shown, "Bind"), then=r"Choice \(Enter: cancel\): $")
        self.choose("1", then=r"\(Enter: SHOP_KEY\): $")
        self.choose("", then=r"always the current one\): $")
        self.person.type("\n")
        self.reply("y", "SHOP_KEY", "shop")
        self.assertIn("Variable SHOP_KEY: SHOP_KEY, version 1", self.person.wait_for(CHOICE))
        self.choose("", "")
        self.person.type("\n")
        self.assertEqual(self.person.end(None), 0)
        self.assertNotIn(VALUE, self.person.text())
        self.checkWidth()
        self.begin()
        shown = self.go("Secrets", "SHOP_KEY")
        self.person.type(self.entry(shown, "Remove") + "\n")
        self.reply("n")
        self.assertIn("The owner said no", self.person.wait_for(CHOICE))
        self.person.type(self.entry(shown, "Show the value") + "\n")
        self.reply("y")
        self.assertIn(VALUE, self.person.wait_for(CHOICE))
        self.person.type(self.entry(shown, "Remove") + "\n")
        self.reply("y")
        self.assertIn("There are no secrets yet.", self.person.wait_for(CHOICE))

    def test_wrongInputIsAnsweredAndTheMenuGoesOn(self):
        self.open().furnish()
        self.begin()
        for wrong in ("0", "99", "-1", "1x", "no such thing", "18446744073709551617", "\x1b[A"):
            self.assertIn("There is no choice", self.choose(wrong))
        self.assertIn("cannot be read as text", self.choose("\udc80\udcff"))
        shown = self.go("Secrets")
        self.assertIn("Nothing was changed.", self.choose(self.entry(shown, "Add a secret"), "", then=r": $") + self.person.unread())
        self.choose("", "shop key")
        self.person.type("\x04")
        self.assertEqual(self.person.end(None), 0)

    def test_placesThatSentencesNameAreThere(self):
        self.open()
        self.act("agentAdd", label="Test agent", answer="y")
        self.begin()
        through_settings = self.go("Settings", "Agents")
        self.assertIn("Test agent: every environment", through_settings)
        self.assertIn("nothing to review", self.choose(self.entry(through_settings, "Protected keys")))
        self.choose("", "")
        self.assertIn("Test agent: every environment", self.go("Agent connections"))
        shown = self.choose("Test agent")
        self.person.type(self.entry(shown, "Raw values") + "\n")
        self.reply("y", "Test agent")
        self.assertIn("raw values allowed", self.person.wait_for(CHOICE))

    def test_everyScreenFitsAndLongForeignNamesAreEscapedAndWrapped(self):
        self.open()
        name = "a very long name " * 6 + "x" * 90 + "漢字" * 30 + "\u202eend"
        self.act("secretAdd", name=name.strip(), value=VALUE, description="d " * 300)
        self.act("environmentAdd", name="env " + "y" * 150, folder=str(self.folder))
        self.act("agentAdd", label="agent " + "z" * 100, answer="y")
        for columns in (COLUMNS, 40):
            self.begin(columns=columns)
            for place in ("Secrets", "Environments", "Agent connections", "Task sessions", "Log", "Settings"):
                shown = self.go(place)
                if place != "Task sessions":
                    shown = self.choose("1")
                while "(Enter: leave)" not in shown:
                    shown = self.choose("")
            self.checkWidth(columns)
            self.assertNotIn("\u202e", self.person.text())
            self.person.end()

    def test_aPolicyAndASettingAreChanged(self):
        self.open()
        self.begin()
        shown = self.go("Settings")
        self.choose(self.entry(shown, "When agents"), then=r"Choice \(Enter: cancel\): $")
        self.person.type("2\n")
        self.reply("y")
        shown = self.person.wait_for(CHOICE)
        self.assertIn("(now: ask once for each environment", " ".join(shown.split()))
        self.choose("rotationGraceDays", then=r"\(Enter: cancel\): $")
        self.assertIn("rotationGraceDays (now: 21)", self.choose("21"))
        self.choose("rotationGraceDays", then=r"\(Enter: cancel\): $")
        self.assertIn("rotationGraceDays (now: 21)", self.choose("never"))

    def test_aServerThatIsNotThereIsSaidAndTriedAgain(self):
        self.open().close()
        self.assertIn("not running", " ".join(self.begin().split()))
        self.open()
        self.main = self.choose("1")
        self.assertIn("serves the vault", self.main)
        self.close()
        self.open()
        self.assertIn("There are no secrets yet.", self.go("Secrets"))

    def test_clientsAreConnectedRepairedAndDisconnectedAtTheirPlace(self):
        entry = {"client": "codex", "name": "Codex", "file": "/made-up/.codex/config.toml", "found": True, "autoApprove": True}
        clients = [entry | {"state": "absent"}, entry | {"state": "entryChanged", "label": "Codex", "project": "/src/shop"}]
        server = StandIn(self, {"status": STATUS, "agentList": {"agents": [], "trusted": True}, "clientStatus": {"clients": clients},
                                "environmentList": {"environments": [{"name": "shop"}]}})
        self.begin()
        shown = self.go("Agent connections", "Clients")
        self.assertIn("Codex: not connected", shown)
        shown = self.choose("1")
        self.assertIn("without asking you first", shown)
        self.choose(self.entry(shown, "Connect"), then=r"\[y/N\] $")
        self.choose("y", then=CHOICE.replace("(back|leave)", "every environment"))
        self.choose("shop", then=r"\[y/N\] $")
        self.assertIn("clientConnect was done.", self.choose("n"))
        self.assertEqual(server.asked[-2], {"action": "clientConnect", "client": "codex", "project": os.path.realpath(self.folder), "environment": "shop"})
        for place, action in (("Repair", "clientRepair"), ("Disconnect", "clientDisconnect")):
            shown = self.choose("2")
            self.assertIn(action + " was done.", self.choose(self.entry(shown, place)))
            self.assertEqual(server.asked[-2], {"action": action, "client": "codex", "project": "/src/shop"})
        self.checkWidth()

    def test_aVaultIsLockedInTheSettingsAndUnlockedWhereTheMenuStands(self):
        self.open()
        self.begin()
        shown = self.go("Settings", "Unlock")
        self.assertIn("sealed under the passphrase", shown)
        self.assertIn("Change the passphrase", shown)
        shown = self.choose("lock")
        self.assertIn("sorvane opens with its passphrase.", shown)
        self.assertNotIn("Change the passphrase", shown)
        self.choose("unlock", then=r"\(not shown\): $")
        self.assertFalse(self.person.echoes())
        self.assertIn("Wrong passphrase.", self.choose("another made-up one", then=r"\(not shown\): $"))
        self.assertIn("sorvane is open.", self.choose(PASSPHRASE))
        self.assertTrue(self.person.echoes())
        self.checkWidth()

    def test_aTaskSessionIsBegunAndEnded(self):
        self.open().furnish()
        self.begin()
        shown = self.go("Task sessions")
        self.assertIn("No task session is live.", shown)
        begin = self.entry(shown, "Begin")
        self.choose(begin, then=r"Choice \(Enter: cancel\): $")
        self.choose("shop", then=r"\(Enter: 60\): $")
        self.assertIn("is no number of minutes", self.choose("1h"))
        self.choose(begin, then=r"Choice \(Enter: cancel\): $")
        self.choose("1", then=r"\(Enter: 60\): $")
        self.choose("90", then=r"Choice .*: $")
        self.person.type("\n")
        self.reply("y", "shop", "90 minutes")
        shown = self.person.wait_for(CHOICE)
        self.assertIn("The task session lasts until", shown)
        self.assertIn("No task session is live.", self.choose(self.entry(shown, "End that of")))
        self.checkWidth()

    def test_aClientIsConnectedAndDisconnectedForReal(self):
        configuration = self.folder / ".codex" / "config.toml"
        configuration.parent.mkdir()
        configuration.write_text("# mine\n")
        self.open().furnish()
        self.begin()
        shown = self.go("Agent connections", "Clients")
        shown = self.choose("codex")
        self.choose(self.entry(shown, "Connect"), then=r"\[y/N\] $")
        self.choose("n", then=r"Choice .*: $")
        self.choose("shop", then=r"\[y/N\] $")
        self.person.type("n\n")
        self.reply("y", "shop")
        self.assertIn("connected", self.person.wait_for(CHOICE))
        self.assertIn("sorvane", configuration.read_text())
        shown = self.choose("codex")
        self.person.type(self.entry(shown, "Disconnect") + "\n")
        self.reply("y")
        self.person.wait_for(CHOICE)
        self.assertEqual(configuration.read_text(), "# mine\n")
        self.checkWidth()

    def test_withoutATerminalTheUsageIsShown(self):
        shown = output_of(self.line(), stdin=subprocess.DEVNULL, env=self.environment())
        self.assertEqual(shown.returncode, 2)
        self.assertIn("subcommand", shown.stderr)
        self.assertEqual(Terminal(self.line() + ["--json"], self.environment()).end(None), 2)
