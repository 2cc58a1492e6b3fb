"""A first session: the owner at one terminal, the command line at another."""
import subprocess

from house import PROGRAMS, VALUE, House
from terminal import Terminal


class FirstSession(House):
    def line(self, *words):
        return [str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), *words]

    def sorvane(self, *words, answer=None, value=None):
        """Runs the command line; returns its status, standard output and standard error."""
        process = subprocess.Popen(self.line(*words), stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True, env=self.environment())
        if answer is not None:
            if value is not None:
                process.stdin.write(value)
            process.stdin.close()
            process.stdin = None
            self.reply(answer)
        out, err = process.communicate(value if answer is None else None, timeout=60)
        return process.returncode, out, err

    def test_aValueTypedWithoutEchoReachesACommandAndNobodyElse(self):
        self.open()
        person = Terminal(self.line("secret", "add", "SHOP_KEY"), self.environment())
        for prompt in ("Value of SHOP_KEY", "Once more"):
            person.wait_for(prompt + "[^\n]*: ?")
            self.assertFalse(person.echoes())
            person.type(VALUE + "\n")
        self.assertEqual(person.end(None), 0, person.text())
        self.assertNotIn(VALUE, person.text())
        self.assertEqual(self.sorvane("env", "create", "Development", "--folder", str(self.folder))[0], 0)
        self.assertEqual(self.sorvane("env", "bind", "Development", "SHOP_KEY", "SHOP_KEY", answer="y")[0], 0)
        status, out, _ = self.sorvane("run", "Development", "--", "sh", "-c", 'echo "key: $SHOP_KEY ${#SHOP_KEY}"; exit 3', answer="y")
        self.assertEqual((status, out), (3, f"key: ‹redacted› {len(VALUE)}\n"))
        self.assertIn("agent_run_env", self.sorvane("log")[1])

    def test_theExitStatusTellsWhatKindOfFailureItWas(self):
        self.assertEqual(self.sorvane("status")[0], 69)
        self.open().furnish()
        denied = self.sorvane("env", "unbind", "shop", "SHOP_KEY", answer="")
        self.assertEqual(denied[:2], (77, ""))
        self.assertNotIn(VALUE, denied[2])
        self.assertEqual(self.sorvane("secret", "no-such-command")[0], 2)
        self.assertEqual(self.sorvane("secret", "show", "nothing of that name")[0], 1)
        self.assertEqual(self.sorvane("run", "shop", "--", "sh", "-c", "kill -9 $$", answer="y")[0], 128 + 9)
        self.assertEqual(self.sorvane("run", "shop", "--", "no-such-program", answer="y")[0], 127)
