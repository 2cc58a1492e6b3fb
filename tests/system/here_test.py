"""Commands that run in the owner's own terminal, and between pipes."""
import os
import signal
import subprocess

from house import PROGRAMS, VALUE, House, wait_until
from terminal import Terminal

MASK = "‹redacted›"
LOOP = "while :; do sleep 0.05; done"


class RunHere(House):
    def line(self, *words, options=()):
        return [str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), "run", "shop", "--here", *options, "--", *words]

    def person(self, *words, options=(), size=None):
        """The command on a terminal of its own, with the owner's yes given."""
        if not self.owner:
            self.open().furnish()
        person = Terminal(self.line(*words, options=options), self.environment(), size=size)
        self.reply("y", "shop", "every value", words[0])
        return person

    def piped(self, *words, options=(), **more):
        if not self.owner:
            self.open().furnish()
        process = subprocess.Popen(self.line(*words, options=options), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   env=self.environment(), **{"stdin": subprocess.DEVNULL, **more})
        self.reply("y")
        return process

    def shell(self):
        """An interactive shell, which puts its jobs into groups of their own."""
        self.open().furnish()
        shell = Terminal(["/bin/sh", "-i"], self.environment() | {"PS1": "READY> "})
        shell.wait_for("READY> $")
        return shell

    def test_coloursPassAndAValueIsMaskedHoweverItIsWritten(self):
        person = self.person("sh", "-c", r'printf "\033[31mred\033[0m %s|" "$SHOP_KEY"; printf made-up-; sleep 0.4; echo "${SHOP_KEY#made-up-}|made-up house"')
        self.assertEqual(person.end(None), 0)
        self.assertIn(f"\x1b[31mred\x1b[0m {MASK}|{MASK}|made-up house\r\n".encode(), person.raw())
        self.assertNotIn(VALUE, person.text())
        self.assertNotIn("4fT9", person.text())

    def test_aPromptAndWhatIsTypedAreShownAtOnce(self):
        person = self.person("sh", "-c", 'printf "your name, m"; read name; echo "hello $name"; exit 9')
        person.wait_for("your name, m$")
        person.type("ada\n")
        person.wait_for("hello ada")
        self.assertEqual(person.end(None), 9)

    def test_theCommandHasATerminalOfTheSizeOfOurs(self):
        person = self.person("sh", "-c", f"test -t 0 && test -t 2 && stty size; trap 'stty size; exit 4' WINCH; echo waits; {LOOP}",
                             size=(33, 77))
        person.wait_for("33 77\n[^$]*waits")
        person.resize(50, 120)
        person.wait_for("50 120")
        self.assertEqual(person.end(None), 4)

    def test_ctrlCReachesTheCommandOnlyAndSoDoesASignalToUs(self):
        person = self.person("sh", "-c", f"trap 'echo caught' INT; trap 'echo asked to end; exit 6' TERM; echo waits; {LOOP}")
        person.wait_for("waits")
        self.assertFalse(person.echoes())
        person.type("\x03")
        person.wait_for("caught")
        os.kill(person.pid, signal.SIGTERM)
        person.wait_for("asked to end")
        self.assertEqual(person.end(None), 6)

    def test_ctrlZStopsTheJobInItsShellAndFgGoesOn(self):
        shell = self.shell()
        # A command that starts no others: a shell that is just starting one cannot be stopped.
        shell.type(" ".join(self.line("cat", "-u")) + "\n")
        self.reply("y")
        wait_until(lambda: not shell.echoes(), "the command has the terminal")
        shell.type("typed\n")
        shell.wait_for("^typed\n+typed\n")
        shell.type("\x1a")
        shell.wait_for("READY> $")
        wait_until(shell.echoes, "the shell has its terminal as it was")
        shell.type("fg\n")
        wait_until(lambda: not shell.echoes(), "the command has it again")
        shell.type("more\n")
        shell.wait_for("^more\n+more\n")
        shell.type("\x1c")
        shell.wait_for("READY> $")
        wait_until(shell.echoes, "the terminal is as it was after the end, too")
        shell.type("echo after=$?\n")
        shell.wait_for(f"after={128 + signal.SIGQUIT}")
        shell.type("exit\n")
        shell.end(None)

    def test_aTerminalThatGoesAwayEndsTheCommand(self):
        mark = self.folder / "hung-up"
        person = self.person("sh", "-c", f"trap 'touch {mark}; exit' HUP; echo waits; {LOOP}")
        person.wait_for("waits")
        self.assertEqual(person.end(signal.SIGHUP), 128 + signal.SIGHUP)
        wait_until(mark.exists, "the command was told")

    def test_theExitStatusIsTheCommandsAndASentenceSaysWhyItDidNotStart(self):
        plain = self.folder / "plain"
        plain.write_text("no program")
        cases = [(("sh", "-c", "exit 3"), 3, ""), (("sh", "-c", "kill -9 $$"), 128 + 9, ""),
                 (("no-such-program",), 127, "was not found"), ((str(plain),), 126, "cannot be run")]
        for words, status, sentence in cases:
            with self.subTest(words=words):
                person = self.person(*words)
                self.assertEqual(person.end(None), status, person.text())
                self.assertIn(sentence, person.text())
                process = self.piped(*words)
                self.assertIn(sentence, process.communicate(timeout=30)[1])
                self.assertEqual(process.returncode, status)

    def test_withoutATerminalBothPipesAreMaskedApartAndInputIsHandedOn(self):
        process = self.piped("sh", "-c", 'cat; echo "$SHOP_KEY"; printf %s "$SHOP_KEY" | base64 >&2; test -t 1 || exit 8', stdin=subprocess.PIPE)
        out, err = process.communicate("handed on\n", timeout=30)
        self.assertEqual((process.returncode, out), (8, f"handed on\n{MASK}\n"))
        self.assertIn(MASK, err)
        self.assertNotIn("bWFkZS11c", err)  # how the value begins in base64

    def test_aReaderThatGoesAwayEndsTheWriter(self):
        process = self.piped("sh", "-c", "trap '' TERM; yes; echo $? > status; exit 5", options=("--directory", str(self.folder)))
        process.stdout.read(100)
        process.stdout.close()
        process.stderr.read()
        self.assertEqual(process.wait(timeout=30), 5)
        self.assertEqual((self.folder / "status").read_text(), f"{128 + signal.SIGPIPE}\n")
        process.stderr.close()

    def test_valuesOfManyKindsArriveWhole(self):
        value = "line one $HOME \"quoted\" `x` \\ back\n\ttab 'single' # no comment\r\nü=end\n"
        self.open().furnish(value)
        process = self.piped("sh", "-c", 'printf %s "$SHOP_KEY" > got', options=("--directory", str(self.folder)))
        process.communicate(timeout=30)
        self.assertEqual((self.folder / "got").read_bytes().decode(), value)

    def test_aVariableThatChangesHowProgramsRunNeedsItsBindingsLeave(self):
        self.open().furnish()
        for variable, more in (("PYTHONPATH", {}), ("NODE_OPTIONS", {"runControl": "true"})):
            self.act("environmentBind", name="shop", variable=variable, secret="shop key", answer="y", **more)
        out, err = self.piped("sh", "-c", 'echo "${PYTHONPATH-none} $NODE_OPTIONS"').communicate(timeout=30)
        self.assertEqual(out, f"none {MASK}\n")
        self.assertIn("PYTHONPATH: left out", err)

    def test_withNoMaskTheCommandTakesOurPlaceAndShowsItsValues(self):
        process = self.piped("sh", "-c", 'echo "$$ $SHOP_KEY"', options=("--no-mask",))
        out, _ = process.communicate(timeout=30)
        self.assertEqual((process.returncode, out), (0, f"{process.pid} {VALUE}\n"))

    def test_aRefusalRunsNothing(self):
        self.open().furnish()
        process = subprocess.Popen(self.line("touch", str(self.folder / "ran")), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   env=self.environment())
        self.reply("")
        self.assertIn("approval denied", process.communicate(timeout=30)[1])
        self.assertEqual(process.returncode, 77)
        self.assertFalse((self.folder / "ran").exists())
