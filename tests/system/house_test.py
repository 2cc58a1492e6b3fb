"""Starting, stopping, the support folder, and what goes wrong with it."""
import json
import os
import shutil
import signal
import socket
import stat
import subprocess

from house import NOBODY, VALUE, House, Request, as_user, output_of, wait_until


class Instance(House):
    def test_aSecondInstanceSaysWhoHoldsTheFolderAndTheFirstGoesOn(self):
        self.open()
        second = self.start()
        self.assertEqual(second.end(None), 1)
        self.assertIn(str(self.owner.pid), second.text())
        self.assertTrue(self.ask("listEnvironments").answer()["ok"])

    def test_stoppingRemovesTheEndpointAndEndsWithZero(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            self.open()
            self.assertEqual(stat.S_IMODE((self.support / "agent.sock").stat().st_mode), 0o600)
            self.assertEqual(self.close(number), 0)
            self.assertFalse((self.support / "agent.json").exists())
            self.assertFalse((self.support / "agent.sock").exists())

    def test_afterAKillWhatWasStoredIsThereAndTheOldTokenOpensNothing(self):
        self.open().furnish()
        old = self.endpoint()["token"]
        self.close(signal.SIGKILL)
        self.open()
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])
        self.assertEqual(self.ask("listEnvironments", token=old).answer()["errorCode"], "unauthorized")
        revealed = self.ask("manageVault", payload={"action": "secretReveal", "name": "shop key"})
        self.reply("y", "shop key")
        self.assertEqual(revealed.answer()["value"], VALUE)

    def test_withoutATerminalWhatNeedsTheOwnerIsDeniedWithTheReason(self):
        errors = self.folder / "errors"
        with open(errors, "wb") as stream:
            process = subprocess.Popen([str(self.program), "--support-dir", str(self.support)], stdin=subprocess.DEVNULL,
                                       stdout=stream, stderr=stream, env=self.environment(), start_new_session=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        wait_until(lambda: "[app] ready" in errors.read_text(), "sorvaned is ready")
        self.assertTrue(self.act("secretAdd", name="one", value=VALUE)["ok"])
        answer = self.ask("manageVault", payload={"action": "secretReveal", "name": "one"}).answer()
        self.assertEqual((answer["ok"], answer["error"]), (False, "approval denied"))
        self.assertIn("without a terminal", errors.read_text())
        self.assertNotIn(VALUE, errors.read_text())


class SupportFolder(House):
    def refused(self, reason):
        owner = self.start()
        self.assertEqual(owner.end(None), 1, owner.text())
        self.assertIn(reason, owner.text())

    def test_aFolderThatIsNotSafeIsRefusedWithWhatToDo(self):
        self.support.mkdir(0o700)
        self.support.chmod(0o770)
        self.refused("can be written by other users")
        self.support.rmdir()
        self.support.write_text("")
        self.refused("is not a folder")
        self.support.unlink()
        (self.folder / "real").mkdir(0o700)
        self.support.symlink_to(self.folder / "real")
        self.refused("is a link")
        self.support = self.folder / ("long" * 30)
        self.refused("the system allows at most 107")

    def test_aVanishedFolderIsAnsweredWithASentenceAndServedAgainOnceItIsBack(self):
        self.open().furnish()
        endpoint = self.endpoint()
        connected = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connected.connect(endpoint["socketPath"])
        away = self.folder / "away"
        self.support.rename(away)
        connected.sendall(f'{{"token":"{endpoint["token"]}","op":"manageVault","value":"{VALUE}",'
                          '"payload":{"action":"secretAdd","name":"two"}}'.encode())
        connected.shutdown(socket.SHUT_WR)
        connected.settimeout(30)
        answer = connected.recv(65536).decode()
        connected.close()
        self.assertIn('"ok":false', answer)
        self.assertNotIn(VALUE, answer)
        if self.support.exists():  # the endpoint may have been published anew meanwhile
            shutil.rmtree(self.support)
        away.rename(self.support)
        wait_until(lambda: self._served(), "the folder is served again", 40)
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])

    def _served(self):
        try:
            return self.ask("listEnvironments").answer()["ok"]
        except (OSError, ValueError):
            return False

    def test_onAFullDiskAChangeIsRefusedWholeAndTheNextOneWorksOnceThereIsRoom(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to mount a small file system")
        self.support.mkdir(0o700)
        mounted = output_of(["mount", "-t", "tmpfs", "-o", "size=2m,mode=0700", "tmpfs", str(self.support)])
        if mounted.returncode != 0:
            self.skipTest("this machine does not let a test mount a file system")
        self.addCleanup(output_of, ["umount", str(self.support)])
        self.addCleanup(self.close)
        self.open().furnish()
        filler = self.support / "filler"
        with open(filler, "wb", buffering=0) as stream:
            try:
                while stream.write(b"\0" * 4096):
                    pass
            except OSError:
                pass
        full = self.ask("manageVault", value="x" * 4000, payload={"action": "secretAdd", "name": "big"}).answer()
        self.assertFalse(full["ok"], full)
        self.assertNotIn("xxxx", full["error"])
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])
        filler.unlink()
        self.act("secretAdd", name="big", value="x" * 4000)
        self.close()
        self.open()
        self.assertIn('"secrets":2', self.act("status")["document"].replace(" ", ""))


class OrdinaryUser(House):
    user = NOBODY

    def readable(self, path, by):
        # Opening some of these files succeeds for anybody; only what they give counts.
        return subprocess.run(as_user(by, ["/bin/cat", path]), capture_output=True, timeout=30).stdout != b""

    def test_otherProgramsOfTheSameUserCannotReadItsMemoryOrEnvironment(self):
        self.open().furnish()
        other = subprocess.Popen(as_user(self.user, ["/bin/sleep", "100"]), env={"A": "b"})
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        wait_until(lambda: os.stat(f"/proc/{other.pid}").st_uid == self.user, "the control runs as that user")
        for name in ("environ", "maps", "auxv"):
            self.assertTrue(self.readable(f"/proc/{other.pid}/{name}", self.user), f"the control's {name}")
            self.assertFalse(self.readable(f"/proc/{self.owner.pid}/{name}", self.user), name)
        with open(f"/proc/{self.owner.pid}/cmdline", "rb") as stream:
            self.assertNotIn(VALUE.encode(), stream.read())

    def test_aPeerOfAnotherUserIsClosedWithoutAnAnswer(self):
        self.open()
        endpoint = self.endpoint()
        fields = {"token": endpoint["token"], "op": "listEnvironments"}
        self.assertEqual(Request(endpoint, fields).raw(), b"")  # root, as this test runs
        # A control: the owner's own user is answered.
        client = ("import socket,sys;c=socket.socket(socket.AF_UNIX);c.connect(sys.argv[1]);c.sendall(sys.argv[2].encode());"
                  "c.shutdown(1);print(c.recv(9999).decode())")
        own = output_of(as_user(self.user, ["/usr/bin/python3", "-c", client, endpoint["socketPath"], json.dumps(fields)]))
        self.assertIn('"ok":true', own.stdout)

    def test_aFolderOfAnotherUserIsRefused(self):
        self.support.mkdir(0o700)
        owner = self.start()
        self.assertEqual(owner.end(None), 1)
        self.assertIn("belongs to another user", owner.text())
        # A control: the same folder, given to the user, is taken.
        os.chown(self.support, self.user, self.user)
        self.open()

    def ask(self, op, token=None, **fields):
        endpoint = self.endpoint()
        os.setresuid(-1, self.user, -1)
        try:
            return Request(endpoint, {"token": token or endpoint["token"], "op": op, **fields})
        finally:
            os.setresuid(-1, 0, -1)
