"""Commands run for agents, with the owner at the terminal."""
import json
import os

from house import VALUE, House, Timeout, processes_with, wait_until


class AgentCommand(House):
    def test_anAllowedCommandGetsTheValueAndItsOutputIsMasked(self):
        self.open().furnish()
        token = self.grant(environment="shop")
        request = self.run_for_agent(token, "/bin/sh", "-c", 'echo "key=$SHOP_KEY"; echo lost >&2; exit 7')
        self.reply("y", "Test agent", "the test", "/bin/sh", "echo", str(self.folder))
        answer = request.answer()
        self.assertTrue(answer["ok"], answer)
        self.assertEqual(answer["value"], "key=‹redacted›\nlost\n")
        result = json.loads(answer["document"])
        self.assertEqual((result["exitCode"], result["started"]), (7, True))
        event = self.log()[-1]
        self.assertEqual((event["actor"], event["secret"], event["version"]), ("Test agent", "shop key", 1))
        self.assertNotIn(VALUE, self.owner.text())
        self.close()
        for path in self.support.rglob("*"):
            if path.is_file():
                self.assertNotIn(VALUE.encode(), path.read_bytes(), path.name)
                self.assertEqual(path.stat().st_mode & 0o077, 0, path.name)

    def test_enterAloneMeansNoAndWhatWasTypedBeforeDoesNotCount(self):
        self.open().furnish()
        token = self.grant()
        events = len(self.log())
        self.owner.type("y\ny\n")
        marker = self.folder / "ran"
        request = self.run_for_agent(token, "/usr/bin/touch", str(marker))
        self.reply("")
        answer = request.answer()
        self.assertEqual((answer["ok"], answer["error"]), (False, "approval denied"))
        self.assertFalse(marker.exists())
        self.assertEqual(len(self.log()), events)

    def test_aClientThatGoesAwayWithdrawsItsQuestion(self):
        self.open().furnish()
        token = self.grant()
        marker = self.folder / "ran"
        request = self.run_for_agent(token, "/usr/bin/touch", str(marker))
        self.owner.wait_for(r"\[y/N\]")
        request.hang_up()
        self.owner.wait_for("The request was withdrawn.")
        # The terminal is free for the next question, and a late yes belongs to nothing.
        self.owner.type("y\n")
        following = self.ask("getSecret", token, arg="shop key").answer()
        self.assertFalse(following["ok"])
        self.assertFalse(marker.exists())

    def test_aClientThatGoesAwayStopsItsCommandAndAllThatItStarted(self):
        self.open().furnish()
        token = self.grant()
        mark = f"{os.getpid()}.4321"
        request = self.run_for_agent(token, "/bin/sh", "-c", f"setsid sleep {mark} & sleep {mark}")
        self.reply("y")
        wait_until(lambda: len(processes_with(f"sleep\0{mark}")) == 2, "the command and what it started run")
        request.hang_up()
        wait_until(lambda: not processes_with(mark), "nothing of it runs any more")

    def test_aKilledApplicationLeavesNoCommandBehind(self):
        self.open().furnish()
        token = self.grant()
        mark = f"{os.getpid()}.8765"
        request = self.run_for_agent(token, "/bin/sleep", mark)
        self.reply("y")
        wait_until(lambda: processes_with(f"sleep\0{mark}"), "the command runs")
        self.close(number=9)
        request.raw()
        wait_until(lambda: not processes_with(mark), "the command was ended")

    def test_aRawValueIsRefusedWithoutAskingUnlessTheGrantMayReveal(self):
        self.open().furnish()
        token = self.grant()
        answer = self.ask("getSecret", token, arg="shop key").answer()
        self.assertFalse(answer["ok"])
        with self.assertRaises(Timeout):
            self.owner.wait_for(r"\[y/N\]", 0.3)
        lines = self.ask("renderEnv", token, environment="shop").answer()
        self.assertEqual(lines["lines"][1:], ["SHOP_KEY=‹redacted›"])
        self.act("agentEdit", label="Test agent", allowReveal="true", answer="y")
        request = self.ask("getSecret", token, arg="shop key")
        self.reply("y", "shop key")
        self.assertEqual(request.answer()["value"], VALUE)

    def test_aTimeLimitEndsTheCommandAndSaysSo(self):
        self.open().furnish()
        token = self.grant()
        request = self.run_for_agent(token, "/bin/sh", "-c", "echo begun; exec sleep 60", timeoutSeconds="1")
        self.reply("y")
        answer = request.answer()
        self.assertIn("begun", answer["value"])
        self.assertIn("…[command stopped or timed out after at most 1s]", answer["value"])
