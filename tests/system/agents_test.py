"""A project's keys are imported, an agent client is connected, and its agent works through a task session."""
import json
import re
import subprocess

from house import PROGRAMS, VALUE, House, wait_until
from terminal import Terminal


class Agent:
    """The program that a client starts as its entry says, spoken to in the handshake's era."""

    def __init__(self, entry, environment):
        self.process = subprocess.Popen([entry["command"], *entry["args"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, env=environment | entry.get("env", {}))
        self.next = 0
        self.call("initialize", protocolVersion="2025-11-25", capabilities={}, clientInfo={"name": "editor", "version": "1"})
        self.say({"method": "notifications/initialized"})

    def say(self, message):
        self.process.stdin.write(json.dumps({"jsonrpc": "2.0"} | message) + "\n")
        self.process.stdin.flush()

    def begin(self, method, **params):
        self.next += 1
        self.say({"id": self.next, "method": method, "params": params})

    def answer(self):
        reply = json.loads(self.process.stdout.readline())
        return reply["result"] if "result" in reply else reply

    def call(self, method, **params):
        self.begin(method, **params)
        return self.answer()

    def tool(self, name, **arguments):
        return self.call("tools/call", name=name, arguments=arguments)

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        return self.process.wait(20)


def text_of(result):
    return "".join(part["text"] for part in result["content"])


class Agents(House):
    def setUp(self):
        super().setUp()
        self.project = self.folder / "shop"
        self.project.mkdir()
        (self.project / ".env").write_text(f"PORT=3000\nSHOP_TOKEN={VALUE}\n")
        (self.folder / ".claude").mkdir()
        self.config = self.folder / ".claude.json"

    def sorvane(self, *words, answer=None):
        process = subprocess.Popen([str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), *words],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   env=self.environment(), cwd=self.project)
        if answer is not None:
            self.reply(answer)
        out, err = process.communicate(timeout=60)
        return process.returncode, out + err

    def connected(self):
        """The agent of a client that was connected, after the folder was imported."""
        self.open()
        self.assertEqual(self.sorvane("import", ".", answer="y")[0], 0)
        self.assertEqual(self.sorvane("agent", "connect", "claude-code", "--env", "shop", answer="y")[0], 0)
        entry = json.loads(re.sub(r" // mine", "", self.config.read_text()))["mcpServers"]["sorvane"]
        agent = Agent(entry, self.environment())
        self.addCleanup(agent.process.kill)
        return agent

    def test_anAgentRunsCommandsForAnHourAfterOneQuestionAndNeverSeesAValue(self):
        agent = self.connected()
        self.assertIn("shop", text_of(agent.tool("list_environments")))
        agent.begin("tools/call", name="begin_task_session", arguments={"environment": "shop", "durationSeconds": 3600})
        self.reply("y", "for 1 hour without asking again")
        begun = agent.answer()
        self.assertFalse(begun.get("isError"), begun)
        session = agent.tool("list_task_sessions")["structuredContent"]["sessions"][0]["id"]
        for _ in range(2):
            ran = agent.tool("run_with_env", taskSession=session, command=["sh", "-c", 'echo "got $SHOP_TOKEN ${#SHOP_TOKEN}"'])
            self.assertIn(f"got ‹redacted› {len(VALUE)}", text_of(ran))
        self.assertNotIn("get_secret", json.dumps(agent.call("tools/list")))
        # The owner changes what the session may use: it ends, and the agent is told what to do.
        self.act("environmentUnbind", name="shop", variable="SHOP_TOKEN", answer="y")
        refused = agent.tool("run_with_env", taskSession=session, command=["true"])
        self.assertTrue(refused["isError"])
        self.assertIn("Ask the user to start a new session.", text_of(refused))
        self.assertEqual(agent.end(), 0)
        # Disconnecting leaves the client's files as they were: it had none.
        status, shown = self.sorvane("agent", "disconnect", "claude-code", answer="y")
        self.assertEqual(status, 0, shown)
        self.assertFalse(self.config.exists())

    def test_theOwnersSessionServesTheCommandLineAndEndsWhatRunsUnderIt(self):
        self.connected()
        status, shown = self.sorvane("session", "begin", "shop", "--for", "90m", answer="y")
        self.assertEqual(status, 0, shown)
        session = shown.split("\n")[0]
        self.assertEqual(self.sorvane("run", "shop", "--session", session, "--", "sh", "-c", "echo $SHOP_TOKEN; exit 4"),
                         (4, "‹redacted›\n"))
        self.assertIn(f"SHOP_TOKEN={VALUE}", self.sorvane("session", "env", session)[1])
        self.assertIn(session[:8], self.sorvane("session", "list")[1])
        mark = self.folder / "running"
        running = subprocess.Popen([str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), "run", "shop", "--session",
                                    session, "--", "sh", "-c", f"touch {mark}; sleep 60"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.environment())
        wait_until(mark.exists, "the command began")
        self.assertEqual(self.sorvane("session", "end", session[:8])[0], 0)
        out, _ = running.communicate(timeout=20)
        self.assertIn("[command stopped or timed out", out)
        status, shown = self.sorvane("run", "shop", "--session", session, "--", "true")
        self.assertEqual(status, 1)
        self.assertIn("Task session expired, ended, or unavailable to this client.", shown)
        self.assertEqual(self.sorvane("session", "begin", "shop", "--for", "soon")[0], 2)

    def test_everyChangeIsTakenBackWhenSorvaneLeaves(self):
        self.config.write_text('{\n  "theme": "dark" // mine\n}\n')
        self.connected()
        cursor = self.project / ".cursor/mcp.json"
        self.assertEqual(self.sorvane("agent", "connect", "cursor", "--project", answer="y")[0], 0)
        self.assertNotIn("svt", cursor.read_text())
        self.assertIn("shop", self.sorvane("agent", "status")[1])
        self.assertIn("Take the entry of Cursor (shop) out", self.sorvane("uninstall", "--dry-run")[1])
        status, shown = self.sorvane("uninstall", answer="y")
        self.assertEqual(status, 0, shown)
        self.assertIn("The vault was kept.", shown)
        self.assertEqual(self.config.read_text(), '{\n  "theme": "dark" // mine\n}\n')
        self.assertFalse(cursor.exists())
        self.assertEqual(list((self.support / "clients").iterdir()), [])
        self.assertIn("No agent is connected.", self.sorvane("agent", "list")[1])
        self.assertEqual(self.sorvane("uninstall", "--with-vault")[0], 2, "nobody could type the word")

    def test_theVaultIsDeletedOnlyAfterTheWordWasTyped(self):
        self.connected()
        aside = self.support / "set-aside.20010101T000000Z"
        (aside / "vault").mkdir(parents=True)
        line = [str(PROGRAMS / "sorvane"), "--support-dir", str(self.support), "uninstall", "--with-vault"]
        person = Terminal(line, self.environment())
        person.wait_for("to go on: ")
        person.type("yes\n")
        self.assertEqual(person.end(None), 1)
        self.assertTrue((self.support / "vault").exists())
        person = Terminal(line, self.environment())
        person.wait_for("to go on: ")
        person.type("delete\n")
        self.reply("y", "delete the vault")
        self.assertEqual(person.end(None), 0)
        self.assertIn("The vault was deleted.", person.text())
        self.assertEqual(self.close(None), 0, "sorvaned ends by itself")
        self.assertFalse((self.support / "vault").exists())
        self.assertFalse(aside.exists())
        self.assertFalse(self.config.exists())
