"""Starting, stopping, the support folder, and what goes wrong with it."""
import json
import os
import pathlib
import resource
import shutil
import signal
import socket
import stat
import subprocess
import tempfile

from house import NOBODY, VALUE, House, Request, Terminal, as_user, output_of, wait_until


def descendants(pid):
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        for child in (task / "children").read_text().split():
            found += [int(child), *descendants(child)]
    return found


def name_of(pid):
    return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()


def wait_for_one(look):
    wait_until(lambda: len(look()) == 1, "there is exactly one")
    return look()[0]


def preloadable():
    """A library that any program can be made to load and none of ours needs."""
    maps = pathlib.Path("/proc/self/maps").read_text()
    folder = next(line.split()[-1] for line in maps.splitlines() if "libc.so" in line).rsplit("/", 1)[0]
    return f"{folder}/libBrokenLocale.so.1"


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
        self.open().close()
        errors = self.folder / "errors"
        with open(errors, "wb") as stream:
            process = subprocess.Popen([str(self.program), "--support-dir", str(self.support)], stdin=subprocess.DEVNULL,
                                       stdout=stream, stderr=stream, env=self.environment(), start_new_session=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        wait_until(lambda: "[app] ready" in errors.read_text(), "sorvaned is ready")
        done = self.unlock_by_command()
        self.assertEqual(done.returncode, 0, done.stderr)
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

    def pried(self, pid):
        # A copy: the source may lie where that user cannot look.
        script = shutil.copy2(pathlib.Path(__file__).with_name("pry.py"), self.folder)
        tried = output_of(as_user(self.user, ["/usr/bin/python3", "-B", str(script), str(pid)]))
        self.assertEqual(tried.returncode, 0, tried.stderr)
        return json.loads(tried.stdout)

    def test_otherProgramsOfTheSameUserGetNothingOutOfItOrOfWhatStartsItsCommands(self):
        control = self.pried("self")
        self.assertGreaterEqual(len(control), 10)
        self.assertEqual([way for way, gave in control.items() if not gave], [], "the control gave nothing")
        self.open().furnish()
        token = self.grant()
        command = self.run_for_agent(token, "sleep", "100")
        self.reply("y")
        sleeping = wait_for_one(lambda: [pid for pid in descendants(self.owner.pid) if name_of(pid) == "sleep"])
        own = [self.owner.pid, *(pid for pid in descendants(self.owner.pid) if pid != sleeping)]
        self.assertEqual(len(own), 3, "the application, the host of commands, and the command's supervisor")
        for pid in own:
            self.assertEqual([way for way, gave in self.pried(pid).items() if gave], [], name_of(pid))
            self.assertNotIn(VALUE.encode(), pathlib.Path(f"/proc/{pid}/cmdline").read_bytes())
        os.kill(sleeping, signal.SIGKILL)
        self.assertTrue(command.answer()["ok"])

    def test_aCrashLeavesNoCore(self):
        def dumped(command):
            limits = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)
            process = subprocess.Popen(as_user(self.user, command), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL, env=self.environment(), cwd=self.folder,
                                       preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, limits))
            process.returncode = 0  # what the wait below finds
            wait_until(lambda: name_of(process.pid) == pathlib.Path(command[0]).name, "it runs")
            if command[0] == str(self.program):
                wait_until((self.support / "owner.sock").exists, "sorvaned is ready")
            os.kill(process.pid, signal.SIGABRT)
            status = os.waitpid(process.pid, 0)[1]
            self.assertEqual(os.WTERMSIG(status), signal.SIGABRT)
            return os.WCOREDUMP(status)
        if not dumped(["/bin/sleep", "100"]):
            self.skipTest("this machine keeps no cores, so nothing is shown by there being none")
        self.assertFalse(dumped([str(self.program), "--support-dir", str(self.support), "--store", "embedded"]))

    def test_whatItInheritsIsClosedScrubbedAndNarrowedAndCommandsKeepTheOwnersMask(self):
        with tempfile.TemporaryFile() as inherited:
            os.set_inheritable(inherited.fileno(), True)
            environment = {**self.environment(), "LD_PRELOAD": preloadable(), "GLIBC_TUNABLES": "glibc.malloc.check=0",
                           "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"}
            self.environment = lambda: environment
            control = subprocess.Popen(["/bin/cat"], close_fds=False, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       bufsize=0)
            self.addCleanup(control.communicate)
            control.stdin.write(b"a")
            control.stdout.read(1)
            self.open().furnish()
            file = os.fstat(inherited.fileno()).st_ino

            def inherits(pid):
                held = {os.stat(f"/proc/{pid}/fd/{fd}").st_ino for fd in os.listdir(f"/proc/{pid}/fd")}
                variables = pathlib.Path(f"/proc/{pid}/environ").read_bytes()
                maps = pathlib.Path(f"/proc/{pid}/maps").read_text()
                return [file in held, b"LD_PRELOAD=" in variables, b"GLIBC_TUNABLES=" in variables,
                        b"DBUS_SYSTEM_BUS_ADDRESS=" in variables, environment["LD_PRELOAD"] in maps]
            self.assertEqual(inherits(control.pid), [True] * 5)
            self.assertEqual(inherits(self.owner.pid), [False] * 5)
            self.assertEqual(name_of(self.owner.pid), "sorvaned")
        before = os.umask(0o022)
        os.umask(before)
        self.assertIn("Umask:\t0077\n", pathlib.Path(f"/proc/{self.owner.pid}/status").read_text())
        command = self.run_for_agent(self.grant(), "sh", "-c", "umask; ls /proc/self/fd; env")
        self.reply("y")
        output = command.answer()["value"]
        self.assertEqual(output.split("\n")[0], f"{before:04o}")
        self.assertEqual(output.split("\n")[1:5], ["0", "1", "2", "3"], "the last is the listed folder itself")
        self.assertNotIn("LD_PRELOAD", output)

    def test_aStandardDescriptorThatIsClosedLeavesNoRoomForAFileOfItsOwn(self):
        command = [str(self.program), "--support-dir", str(self.support), "--store", "embedded"]
        process = subprocess.Popen(as_user(self.user, ["/bin/sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *command]),
                                   env=self.environment())
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        wait_until((self.support / "owner.sock").exists, "sorvaned is ready")
        for number in range(3):
            self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{number}"), "/dev/null")

    def test_keysLieInLockedMemoryAndItSaysWhenTheyCannot(self):
        warning = "does not let sorvaned lock its memory"
        self.open().furnish()
        self.assertNotIn(warning, self.owner.text())
        self.assertNotRegex(pathlib.Path(f"/proc/{self.owner.pid}/status").read_text(), r"VmLck:\s+0 kB")
        self.close()
        command = ["/usr/bin/prlimit", "--memlock=0", str(self.program), "--support-dir", str(self.support)]
        self.owner = Terminal(as_user(self.user, command), self.environment())
        self.owner.wait_for(warning)
        self.owner.wait_for(r"\[app\] ready")
        self.assertRegex(pathlib.Path(f"/proc/{self.owner.pid}/status").read_text(), r"VmLck:\s+0 kB")

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
