"""The vault of a house whose login manager, a stand-in, tells about the session."""
import os
import re

from house import SUPPORT, Within, output_of
from terminal import Terminal

LOCKED, OPEN = r"\[app\] the vault is locked", r"\[app\] the vault is open"


class FollowsSession(Within):
    within, mark = [SUPPORT / "with-login-manager"], "SORVANE_TEST_LOGIN"

    def start(self, *more):
        """The bus of the stand-in lies where the system's does: sorvaned looks nowhere else."""
        if os.geteuid() != 0:
            self.skipTest("needs root, to put a bus in the place of the system's")
        bus = re.search("unix:path=([^,]+)", os.environ["DBUS_SYSTEM_BUS_ADDRESS"])[1]
        place = ('mkdir -p /run/dbus && mount -t tmpfs tmpfs /run/dbus && ln -s "$1" /run/dbus/system_bus_socket && shift && '
                 'exec "$@"')
        return Terminal(["/usr/bin/unshare", "--mount", "/bin/sh", "-c", place, "sh", bus, str(self.program), "--support-dir",
                         str(self.support), "--store", "embedded", *more], self.environment() | {"XDG_SESSION_ID": "c1"})

    def emit(self, path, signal, signature, arguments):
        interface = "org.freedesktop.login1." + ("Session" if "session" in path else "Manager")
        done = output_of(["gdbus", "call", "--system", "-d", "org.freedesktop.login1", "-o", "/org/freedesktop/login1" + path, "-m",
                          "org.freedesktop.DBus.Mock.EmitSignal", interface, signal, signature, arguments])
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_aNewVaultWaitsForTheOffersAnswerThenOpensAndClosesWithTheSession(self):
        self.owner = self.start()
        self.owner.wait_for("^New passphrase, or Enter for none: ")
        self.assertFalse((self.support / "agent.json").exists(), "nothing is served before the owner was asked")
        self.owner.type("\n")
        self.owner.wait_for("No passphrase was set")
        self.owner.wait_for(OPEN)
        self.furnish()
        self.emit("/session/c1", "Lock", "", "[]")
        self.owner.wait_for(LOCKED)
        self.assertFalse((self.support / "agent.json").exists())
        self.emit("/session/c1", "Unlock", "", "[]")
        self.owner.wait_for(OPEN)
        self.emit("", "PrepareForSleep", "b", "[<true>]")
        self.owner.wait_for(LOCKED)
        self.emit("", "PrepareForSleep", "b", "[<false>]")
        self.owner.wait_for(OPEN)
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])

    def test_withAPassphraseTheSessionClosesTheVaultAndDoesNotOpenIt(self):
        self.open()
        self.emit("/session/c1", "Lock", "", "[]")
        self.owner.wait_for(LOCKED)
        self.emit("/session/c1", "Unlock", "", "[]")
        self.owner.wait_for("^Passphrase: ")
        self.assertFalse((self.support / "agent.json").exists())
