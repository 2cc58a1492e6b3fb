"""Answers from a second device: the owner's terminal, sorvane and sorvane-approver, each on a terminal of its own."""
import ctypes
import ctypes.util
import json
import os
import re
import shutil
import subprocess
import unittest

from house import PASSPHRASE, PROGRAMS, QUESTION, SUPPORT, VALUE, House, Within, wait_until
from terminal import Terminal

KEYS = "another made-up passphrase"
ALLOW = r"\[y/n\] $"
HOST = "127.0.0.1"


def modules_of(shown):
    """The dark and light modules of a QR code in half blocks, quiet zone and all."""
    rows = []
    for line in shown:
        rows.append([c in "█▀" for c in line])
        rows.append([c in "█▄" for c in line])
    return rows


def qr_code(text):
    """What the library makes of the text, called from here."""
    library = ctypes.CDLL(ctypes.util.find_library("qrencode"))

    class Code(ctypes.Structure):
        _fields_ = [("version", ctypes.c_int), ("width", ctypes.c_int), ("data", ctypes.POINTER(ctypes.c_ubyte))]

    library.QRcode_encodeString8bit.restype = ctypes.POINTER(Code)
    code = library.QRcode_encodeString8bit(text.encode(), 0, 0).contents
    return [[bool(code.data[y * code.width + x] & 1) for x in range(code.width)] for y in range(code.width)]


class PhoneHouse(House):
    """The vault's computer; `desk` and `away` are what runs a program there and on the phone."""

    desk, away, address = [], [], ["--address"]

    def line(self, *words):
        return [*self.desk, str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), *words]

    def person(self, command, **more):
        person = Terminal(command, self.environment() | more)
        self.addCleanup(person.end)
        return person

    def does(self, *words, code=0, **more):
        done = subprocess.run(self.line(*words), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=90,
                              env=self.environment() | more)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def pairing(self, *more):
        """A person at sorvane phone pair, whom the owner let; and the link that is shown."""
        pairing = self.person(self.line("phone", "pair", *more))
        self.reply("y", "pair a phone")
        shown = pairing.wait_for(r"^Code: .*$")
        return pairing, re.search(r"^Link:\s+(\S+)", shown, re.MULTILINE).group(1)

    def approver(self, *words, where=True):
        place = [*self.address, f"{HOST}:{self.port}"] if where and self.address else []
        return self.person([*self.away, str(PROGRAMS / "sorvane-approver"), "--keys", str(self.folder / "keys"), *place, *words])

    def pair(self, name="Pocket"):
        pairing, link = self.pairing("--no-qr")
        self.port = re.search(r"port=(\d+)", link).group(1)
        phone = self.approver("pair", link, "--name", name)
        for prompt in (r"New passphrase.*: $", r"The same again: $"):
            phone.wait_for(prompt)
            phone.type(KEYS + "\n")
        pairing.wait_for(f"Paired: {name}")
        self.assertEqual(pairing.end(None), 0)
        phone.wait_for("Questions of it are shown here")
        self.connected()
        return phone

    def phones(self):
        return json.loads(self.act("phoneList")["document"])["phones"]

    def connected(self, count=1):
        wait_until(lambda: sum(phone["connected"] for phone in self.phones()) == count, f"{count} phones are connected")

    def says(self, phone, answer, *expected):
        """Waits for the question on the phone, and types the answer once it takes one."""
        shown = " ".join(phone.wait_for(ALLOW).split())
        for words in expected:
            self.assertIn(words, shown)
        phone.type(answer + "\n")
        while "does not count" in phone.wait_for("is on its way|does not count"):  # it had just appeared
            phone.wait_for(ALLOW)
            phone.type(answer + "\n")

    def unsealed(self):
        """Takes the passphrase off, so that the system's check, or what stands for it, opens the vault."""
        asker = self.folder / "askpass"
        asker.write_text(f"#!/bin/sh\necho '{PASSPHRASE}'\n")
        asker.chmod(0o700)
        self.does("passphrase", "remove", "--yes", SORVANE_ASKPASS=str(asker))


class Phone(PhoneHouse):
    def test_anAgentsRequestIsAnsweredOnThePhoneAndGoesAwayWhereTheOtherAnswered(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        phone = self.pair()

        allowed = self.run_for_agent(token, "sh", "-c", "echo $SHOP_KEY")
        self.owner.wait_for(QUESTION)
        self.says(phone, "y", "An environment is to be used", "Test agent", "the test", 'Command: \\"sh\\" \\"-c\\"', "shop")
        answer = allowed.answer()
        self.assertTrue(answer["ok"], answer)
        self.assertIn("redacted", answer["value"])
        self.owner.wait_for(r"A phone answered this\.")

        denied = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        self.says(phone, "n")
        self.assertEqual(denied.answer()["error"], "approval denied")
        self.owner.wait_for(r"A phone answered this\.")

        there = self.run_for_agent(token, "true")
        phone.wait_for(ALLOW)
        self.reply("y", "wants to run")
        self.assertTrue(there.answer()["ok"])
        phone.wait_for("The computer needs no answer to this any more")

        gone = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        phone.wait_for(ALLOW)
        gone.hang_up()
        self.owner.wait_for(r"The request was withdrawn\.")
        self.assertNotIn(VALUE, self.owner.text() + phone.text())

    def test_whoseYesCountsIsThePolicysAndANoCountsFromAnywhere(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        warned = self.person(self.line("policy", "approver", "phone"))
        self.reply("y", "comes from: phone")
        warned.wait_for("No phone is paired")
        self.assertEqual(self.run_for_agent(token, "true").answer()["error"], "approval denied")
        phone = self.pair()  # which the terminal may still allow, for there is no phone

        asked = self.run_for_agent(token, "true")
        self.owner.wait_for(r"Here you can only say no: type n and Enter\. \[n\] $")
        self.owner.type("y\n")
        self.owner.wait_for(r"\[n\] $")  # it stands there still
        self.says(phone, "y")
        self.assertTrue(asked.answer()["ok"])
        self.owner.wait_for(r"A phone answered this\.")
        denied = self.run_for_agent(token, "true")
        phone.wait_for(ALLOW)
        self.owner.wait_for(r"\[n\] $")
        self.owner.type("n\n")
        self.assertEqual(denied.answer()["error"], "approval denied")

        change = self.ask("manageVault", payload={"action": "policySet", "approver": "terminal"})
        self.owner.wait_for(r"\[n\] $")
        self.says(phone, "y", "comes from: terminal")
        self.assertTrue(change.answer()["ok"])
        asked = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        self.says(phone, "y", "Here you can only say no.")
        self.owner.type("y\n")
        self.assertTrue(asked.answer()["ok"])
        denied = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        self.says(phone, "n")
        self.assertEqual(denied.answer()["error"], "approval denied")

    def test_aRevokedPhoneIsToldAndAnswersNothingMore(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        phone = self.pair()
        self.assertIn("Pocket", self.does("phone", "list"))
        test = self.person(self.line("phone", "test"))
        self.says(phone, "y", "This is a test")
        test.wait_for(r"'Pocket' said yes after \d+ ms\. The link works\.")
        self.assertIn("No phone 'Other' is paired", self.does("phone", "revoke", "Other", code=1))
        waiting = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        phone.wait_for(ALLOW)
        self.owner.type("y\n")
        self.assertTrue(waiting.answer()["ok"])
        revoke = self.person(self.line("phone", "revoke", "Pocket"))
        self.reply("y", "end the link to a phone. Name: Pocket")
        revoke.wait_for("The link to 'Pocket' is ended")
        phone.wait_for("ended the pairing")
        self.assertEqual(self.phones(), [])
        self.assertIn("No phone is paired", self.does("phone", "test", code=1))
        alone = self.run_for_agent(token, "true")
        self.reply("y")
        self.assertTrue(alone.answer()["ok"])

    def test_pairingShowsACodeThatAReaderTakesAndEndsWhenItIsCancelled(self):
        self.open()
        pairing, link = self.pairing()
        shown = pairing.raw().decode()
        lines = [re.sub(r"\x1b\[[0-9;]*m", "", line).rstrip("\r") for line in shown.split("\n") if "\x1b[30;107m" in line]
        modules, quiet = modules_of(lines), 4
        wanted = qr_code(link)
        size = len(wanted)
        self.assertEqual([row[quiet:quiet + size] for row in modules[quiet:quiet + size]], wanted)
        self.assertFalse(any(any(row) for row in modules[:quiet] + modules[quiet + size:]))
        self.assertTrue(all(line.count("\x1b[30;107m") == 1 and "\x1b[0m" in line for line in shown.split("\n")
                            if "█" in line or "▀" in line))
        self.assertIn("you were not asked again", self.does("phone", "pair", code=1))  # one at a time
        pairing.type("\x03")
        pairing.wait_for("Pairing was cancelled. No phone was paired.")
        self.assertEqual(pairing.end(None), 1)
        self.port = re.search(r"port=(\d+)", link).group(1)
        late = self.approver("pair", link)
        for prompt in (r"New passphrase.*: $", r"The same again: $"):
            late.wait_for(prompt)
            late.type(KEYS + "\n")
        self.assertNotEqual(late.end(None, 60), 0)
        self.assertEqual(self.phones(), [])
        no = self.person(self.line("phone", "pair"))
        self.reply("")
        self.assertEqual(no.end(None), 77)

    def test_aPhoneUnlocksWhereNoPassphraseSealsTheVaultAndOnlyThere(self):
        self.open().furnish()
        phone = self.pair()
        self.unsealed()
        self.does("lock")
        self.owner.wait_for("the vault is locked")
        wait_until(lambda: "sorvane opens with a yes on your phone." in self.does("status"), "the phone is back")
        unlock = self.person(self.line("unlock"))
        unlock.wait_for("Waiting for your answer on the phone")
        self.says(phone, "n", "The vault is to be unlocked.")
        self.assertNotEqual(unlock.end(None), 0)
        unlock = self.person(self.line("unlock"))
        self.says(phone, "y", "Unlock sorvane")
        unlock.wait_for("sorvane is open.")
        self.owner.wait_for("the vault is open")
        self.assertIn("shop key", self.does("secret", "list"))

        # After a restart, too, before anybody unlocked it.
        self.does("lock")
        self.close()
        self.owner = self.start()
        self.owner.wait_for("ready, support folder")
        wait_until(lambda: "sorvane opens with a yes on your phone." in self.does("status"), "the phone is back")
        unlock = self.person(self.line("unlock"))
        self.says(phone, "y", "Unlock sorvane")
        unlock.wait_for("sorvane is open.")
        self.connected()

    def test_aVaultThatIsSealedIsClosedToThePhoneWhileItIsLocked(self):
        self.open().furnish()
        phone = self.pair()
        self.does("lock")
        phone.wait_for("The link ended")
        self.assertNotIn("phone", self.does("status"))
        self.assertEqual(self.unlock_by_command().returncode, 0)
        self.connected()

    def test_withoutATerminalAPhoneAnswersAndNobodyElseIsWaitedFor(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        phone = self.pair()
        self.close()
        self.owner = None
        alone = subprocess.Popen([str(self.program), "--support-dir", str(self.support), "--store", "embedded"],
                                 stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, env=self.environment(), start_new_session=True)
        self.addCleanup(alone.stderr.close)
        self.addCleanup(alone.wait, 20)
        self.addCleanup(alone.terminate)
        wait_until((self.support / "owner.sock").exists, "sorvaned is there")
        wait_until(lambda: self.unlock_by_command().returncode == 0, "the vault is open")
        self.connected()
        asked = self.run_for_agent(token, "true")
        self.says(phone, "y")
        self.assertTrue(asked.answer()["ok"])
        phone.type("\x03")
        phone.end(None)
        self.connected(0)
        self.assertEqual(self.run_for_agent(token, "true").answer()["error"], "approval denied")


class TwoHosts(Within, PhoneHouse):
    """The computer and the phone on two hosts, each with an Avahi of its own."""

    within, mark = [SUPPORT / "with-two-hosts"], "DESK_HOST"
    address = []

    def setUp(self):
        super().setUp()
        if self.mark not in os.environ:
            return
        self.desk = [shutil.which("ip"), "netns", "exec", os.environ["DESK_HOST"], "env", "DBUS_SYSTEM_BUS_ADDRESS=" + os.environ["DESK_BUS"]]
        self.away = [shutil.which("ip"), "netns", "exec", os.environ["PHONE_HOST"], "env", "DBUS_SYSTEM_BUS_ADDRESS=" + os.environ["PHONE_BUS"]]

    def start(self, *more):
        command = [*self.desk, str(self.program), "--support-dir", str(self.support), "--store", "embedded", *more]
        return Terminal(command, self.environment())

    def test_aPhoneOnAnotherHostIsPairedFindsTheComputerAgainAndAnswers(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        pairing, link = self.pairing("--no-qr")
        self.assertIn("10.9.0.1", link)
        phone = self.approver("pair", link, "--name", "Pocket", "--once")
        for prompt in (r"New passphrase.*: $", r"The same again: $"):
            phone.wait_for(prompt)
            phone.type(KEYS + "\n")
        pairing.wait_for("Paired: Pocket")
        self.assertEqual(phone.end(None), 0)
        phone = self.approver("wait")
        phone.wait_for(r"Passphrase.*: $")
        phone.type(KEYS + "\n")
        phone.wait_for("Connected to")
        self.connected()
        asked = self.run_for_agent(token, "sh", "-c", "echo $SHOP_KEY")
        self.owner.wait_for(QUESTION)
        self.says(phone, "y", "Test agent")
        self.assertTrue(asked.answer()["ok"])

    def test_withoutAvahiTheAddressIsInTheLinkOrCanBeTyped(self):
        subprocess.run([os.environ["SORVANE_TWO_HOSTS"], "--avahi", "stop"], check=True, timeout=30)
        self.open().furnish()
        token = self.grant(environment="shop")
        pairing, link = self.pairing("--no-qr")
        pairing.wait_for("address")
        port = re.search(r"port=(\d+)", link).group(1)
        phone = self.approver("pair", link, "--name", "Pocket", "--address", f"10.9.0.1:{port}")
        for prompt in (r"New passphrase.*: $", r"The same again: $"):
            phone.wait_for(prompt)
            phone.type(KEYS + "\n")
        phone.wait_for("Questions of it are shown here")
        self.connected()
        asked = self.run_for_agent(token, "true")
        self.owner.wait_for(QUESTION)
        self.says(phone, "y")
        self.assertTrue(asked.answer()["ok"])


if __name__ == "__main__":
    unittest.main()
