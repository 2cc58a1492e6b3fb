"""The package and the plain installation: what they put where, that it starts there, and that nothing stays behind."""
import pathlib
import re
import shutil
import stat
import tempfile
import unittest

from house import PROGRAMS, output_of

SOURCE = pathlib.Path(__file__).resolve().parents[2]
INSTALLED = {
    "usr/bin/sorvane", "usr/bin/sorvaned", "usr/bin/sorvane-approver",
    "usr/lib/systemd/user/sorvaned.service", "usr/share/applications/sorvane.desktop",
    "usr/share/bash-completion/completions/sorvane", "usr/share/zsh/vendor-completions/_sorvane",
    "usr/share/fish/vendor_completions.d/sorvane.fish", "usr/share/doc/sorvane/README.md", "usr/share/doc/sorvane/threat-model.md",
    "usr/share/man/man1/sorvane.1", "usr/share/man/man1/sorvaned.1", "usr/share/man/man1/sorvane-approver.1", "usr/share/polkit-1/actions/org.sorvane.owner-check.policy",
    "etc/pam.d/sorvane",
}
# systemd.exec(5): in a user's manager each of these comes with NoNewPrivileges or with a user namespace, and a command then
# can use neither sudo nor the helper that checks a password.
NEVER_IN_A_USER_UNIT = re.compile(
    r"^(NoNewPrivileges|MemoryDenyWriteExecute|SystemCall\w+|Restrict\w+|Protect\w+|Private\w+|LockPersonality|DynamicUser|Lock\w+|"
    r"\w+Paths|Temporary\w+|Root\w+|CapabilityBoundingSet|SecureBits|UMask)=", re.MULTILINE)


def files_below(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if not path.is_dir()}


class Folder(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="sorvane-install-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def done(self, *command, **more):
        result = output_of([str(word) for word in command], **more)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result.stdout

    def check_programs(self, folder):
        for name in ("sorvane", "sorvaned", "sorvane-approver"):
            program = folder / "bin" / name
            self.assertEqual(stat.S_IMODE(program.stat().st_mode), 0o755)
            self.assertRegex(self.done(program, "--version"), rf"^{name} \d+\.\d+\.\d+\n$")
            self.assertIn(f"Usage: {name}", self.done(program, "--help"))


class Package(Folder):
    def installed(self):
        """A system of its own in a folder, which knows of the packages here that ours names; ours is installed there."""
        self.package = self.made()
        self.root = self.folder / "root"
        database = self.root / "var/lib/dpkg"
        for name in ("info", "updates", "triggers"):
            (database / name).mkdir(parents=True)
        needed = re.findall(r"(?:^|, )([a-z0-9.+-]+)", self.done("dpkg-deb", "-f", self.package, "Depends"))
        self.assertIn("libsodium23", needed)
        known = self.done("dpkg-query", "--status", *needed)
        (database / "status").write_text(re.sub(r"^(Depends|Pre-Depends|Conffiles):.*\n(?: .*\n)*", "", known, flags=re.MULTILINE))
        for name in needed:
            architecture = self.done("dpkg-query", "-W", "-f=${Multi-Arch} ${Architecture}", name).split()
            mark = f"{name}:{architecture[1]}" if architecture[0] == "same" else name
            (database / "info" / f"{mark}.list").write_text("")
        self.before = files_below(self.root)
        self.dpkg("--install", self.package)
        return self.root

    def made(self):
        self.done("cpack", "--config", PROGRAMS / "CPackConfig.cmake", "-B", self.folder / "made")
        packages = list((self.folder / "made").glob("*.deb"))
        self.assertEqual(len(packages), 1, packages)
        return packages[0]

    def dpkg(self, *words):
        return self.done("dpkg", f"--root={self.root}", "--force-not-root", "--force-script-chrootless", f"--log={self.folder}/log", *words)

    def test_isInstalledWithWhatItNeedsWorksAndLeavesNothingBehindWhenItIsPurged(self):
        root = self.installed()
        of_dpkg = re.compile("var/lib/dpkg/")
        self.assertEqual({file for file in files_below(root) if not of_dpkg.match(file)}, INSTALLED)
        self.check_programs(root / "usr")
        for file in (file for file in INSTALLED if not file.startswith("usr/bin/")):
            self.assertEqual(stat.S_IMODE((root / file).stat().st_mode), 0o644, file)
            self.assertNotEqual((root / file).read_text(), "", file)
        self.assertIn("ExecStart=/usr/bin/sorvaned\n", (root / "usr/lib/systemd/user/sorvaned.service").read_text())
        # What the owner of the computer changed survives a removal, and goes with a purge.
        (root / "etc/pam.d/sorvane").write_text("changed\n")
        self.dpkg("--remove", "sorvane")
        self.assertEqual({file for file in files_below(root) if not of_dpkg.match(file)}, {"etc/pam.d/sorvane"})
        self.dpkg("--purge", "sorvane")
        left = files_below(root) - self.before
        self.assertEqual({file for file in left if not re.match(r"var/lib/dpkg/(status|lock|triggers|updates|available|info/format)", file)}, set())
        self.assertEqual([path for path in root.iterdir() if path.name != "var"], [])

        # A system that lacks a library refuses the package.
        (root / "var/lib/dpkg/status").write_text("")
        refused = output_of(["dpkg", f"--root={root}", "--force-not-root", f"--log={self.folder}/log", "--install", str(self.package)])
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn("depends on libsodium23", refused.stderr)


class PlainInstallation(Folder):
    def test_standsUnderItsPrefixAndNamesItsOwnProgram(self):
        manifest = PROGRAMS / "install_manifest.txt"
        earlier = manifest.read_text() if manifest.exists() else None
        self.addCleanup(lambda: manifest.unlink() if earlier is None else manifest.write_text(earlier))
        self.done("cmake", "--install", PROGRAMS, "--prefix", self.folder)
        self.assertEqual(files_below(self.folder), {file.removeprefix("usr/") for file in INSTALLED})
        self.assertEqual({str(self.folder / file) for file in files_below(self.folder)}, set(manifest.read_text().split("\n")) - {""})
        self.check_programs(self.folder)
        self.assertIn(f"ExecStart={self.folder}/bin/sorvaned\n", (self.folder / "lib/systemd/user/sorvaned.service").read_text())
        self.assertIn(f"Exec={self.folder}/bin/sorvaned\n", (self.folder / "share/applications/sorvane.desktop").read_text())


class ShippedFiles(unittest.TestCase):
    def test_theServiceSetsNothingThatTakesCommandsTheirRights(self):
        unit = (SOURCE / "packaging/sorvaned.service.in").read_text()
        self.assertEqual(NEVER_IN_A_USER_UNIT.findall(unit), [])
        # A control: the look finds such a line.
        self.assertEqual(NEVER_IN_A_USER_UNIT.findall(unit + "SystemCallFilter=@system-service\n"), ["SystemCallFilter"])
        if shutil.which("systemd-analyze"):
            with tempfile.TemporaryDirectory() as folder:
                file = pathlib.Path(folder, "sorvaned.service")
                file.write_text(unit.replace("@SORVANED@", "/bin/true"))
                said = output_of(["systemd-analyze", "--user", "--man=no", "verify", str(file)])
                self.assertNotIn("sorvaned.service", said.stderr + said.stdout)

    def test_theManualNamesEveryCommandAndEveryShellCompletesThem(self):
        words = {shell: output_of([str(PROGRAMS / "sorvane"), "completion", shell]).stdout for shell in ("bash", "zsh", "fish")}
        paths = re.search(r"^ +('.+'(?:\|'[^']+')+)\) at=", words["bash"], re.MULTILINE).group(1)
        commands = [path.strip("'").strip() for path in paths.split("|")]
        self.assertGreater(len(commands), 60)
        manual = (SOURCE / "docs/man/sorvane.1").read_text()
        groups = {command.rsplit(" ", 1)[0] for command in commands if " " in command}
        missing = [command for command in commands if command not in groups and f".It Ic {command}" not in manual]
        self.assertEqual(missing, [])
        for shell in ("zsh", "fish"):
            self.assertEqual([command for command in commands if f"' {command}'" not in words[shell]], [], shell)

    def test_bashCompletesWhatMayFollow(self):
        script = ('source <("$0" completion bash); COMP_WORDS=("${@}"); COMP_CWORD=$(($# - 1)); _sorvane; echo "${COMPREPLY[*]}"')
        for words, expected in ((["secre"], "secret"), (["--json", "secret", "re"], "reveal rename restore"),
                                (["export", "--format", ""], "env json shell"), (["export", "--form"], "--format"),
                                (["agent", "connect", "cl"], "claude-code claude-desktop"), (["policy", "approver", "te"], "terminal"),
                                (["run", "shop", "--", "se"], "")):
            completed = output_of(["bash", "-c", script, str(PROGRAMS / "sorvane"), "sorvane", *words])
            self.assertEqual((completed.stdout.strip(), completed.stderr), (expected, ""), words)

