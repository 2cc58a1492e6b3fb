#!/usr/bin/env python3
"""Official clients of the model-context-protocol against the real programs: both eras, and the inspector's command line.

Installs the clients, at the versions that mcp/package-lock.json pins, into the folder of the build. Exits 77 when npm is
missing."""
import json
import os
import pathlib
import queue
import subprocess
import sys
import threading
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system"))
sys.dont_write_bytecode = True
from house import PROGRAMS, VALUE, House, words_of  # noqa: E402
from npm import NPM, install  # noqa: E402

INSTALLED = PROGRAMS / "peers" / "mcp"
NODE = INSTALLED / "node_modules" / ".bin" / "node"
SORVANE = str(PROGRAMS / "sorvane")
ERAS = {"handshake-v1": "2025-11-25", "handshake": "2025-11-25", "stateless": "2026-07-28", "auto": "2026-07-28"}


class Peer:
    """One official client that runs `sorvane mcp`."""

    def __init__(self, kind, support, token):
        command = [str(NODE), "client.mjs", kind, SORVANE, "mcp", "--support-dir", str(support)]
        self._process = subprocess.Popen(command, cwd=INSTALLED, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                         env={"PATH": os.environ["PATH"], "SORVANE_MCP_TOKEN": token})
        self._heard = queue.Queue()
        threading.Thread(target=self._collect, daemon=True).start()
        self.connected = self.heard()

    def _collect(self):
        for line in self._process.stdout:
            self._heard.put(json.loads(line))
        self._heard.put(None)

    def heard(self):
        message = self._heard.get(timeout=60)
        if message is None or "trouble" in message:
            raise AssertionError(f"the client gave up: {message}")
        return message

    def tell(self, number, act, tool=None, **arguments):
        self._process.stdin.write(json.dumps({"id": number, "act": act, "tool": tool, "args": arguments}) + "\n")
        self._process.stdin.flush()

    def call(self, number, tool, **arguments):
        self.tell(number, "call", tool, **arguments)

    def ask(self, tool, **arguments):
        self.call(0, tool, **arguments)
        return self.heard()

    def close(self):
        self._process.stdin.close()
        try:
            return self._process.wait(timeout=30)
        finally:
            self._process.stdout.close()


@unittest.skipUnless(NPM, "npm is missing, which installs the official clients")
class OfficialClients(House):
    @classmethod
    def setUpClass(cls):
        install(HERE / "mcp", INSTALLED)

    def setUp(self):
        super().setUp()
        self.open().furnish()
        self.token = self.grant()

    def peer(self, kind):
        peer = Peer(kind, self.support, self.token)
        self.addCleanup(peer._process.kill)
        return peer

    def test_each_client_runs_a_command_and_never_sees_the_value(self):
        for kind, version in ERAS.items():
            with self.subTest(kind):
                # A connection of its own: three refusals in a minute would be too many for one.
                self.token = self.act("agentAdd", label=kind, answer="y")["value"]
                peer = self.peer(kind)
                self.assertEqual(peer.connected["server"]["name"], "sorvane")
                if kind != "handshake-v1":  # which does not tell
                    self.assertEqual(peer.connected["version"], version)
                peer.tell(1, "list")
                tools = {tool["name"]: tool for tool in peer.heard()["result"]["tools"]}
                self.assertIn("run_with_env", tools)
                self.assertNotIn("get_secret", tools)
                self.assertTrue(tools["list_environments"]["annotations"]["readOnlyHint"])
                self.assertEqual(peer.ask("list_environments")["result"]["structuredContent"], {"environments": ["shop"]})
                peer.call(2, "run_with_env", environment="shop", command=["sh", "-c", 'printf "%s" "$SHOP_KEY"; exit 3'])
                self.reply("y", f"sorvane-peer {kind}")
                result = peer.heard()["result"]
                self.assertEqual(result["structuredContent"]["exitCode"], 3)
                self.assertIn("redacted", result["content"][0]["text"])
                self.assertNotIn(VALUE, json.dumps(result))
                peer.call(3, "create_environment", name="new")
                self.reply("n")
                result = peer.heard()["result"]
                self.assertTrue(result["isError"])
                self.assertEqual(result["structuredContent"]["errorCode"], "approval_denied")
                self.assertTrue(peer.ask("list_secrets")["result"]["isError"])
                self.assertEqual(peer.ask("no_such_tool")["code"], -32602)
                self.assertEqual(peer.close(), 0)

    def test_a_task_session_is_asked_for_once(self):
        peer = self.peer("stateless")
        peer.call(1, "begin_task_session", environment="shop", durationSeconds=60)
        self.reply("y", "1 minute")
        session = peer.heard()["result"]["structuredContent"]["session"]
        listed = peer.ask("list_task_sessions")["result"]["structuredContent"]["sessions"]
        self.assertEqual([session], listed)
        ran = peer.ask("run_with_env", taskSession=session["id"], command=["sh", "-c", 'test -n "$SHOP_KEY"'])
        self.assertEqual(ran["result"]["structuredContent"]["exitCode"], 0)
        refused = peer.ask("write_key_env_file", taskSession=session["id"])["result"]
        self.assertTrue(refused["content"][0]["text"].startswith("no_keys: "), refused)
        self.assertFalse(peer.ask("end_task_session", taskSession=session["id"])["result"]["isError"])
        self.assertTrue(peer.ask("run_with_env", taskSession=session["id"], command=["true"])["result"]["isError"])
        project = self.folder / "project"
        project.mkdir()
        (project / ".env").write_text(f"PAY_SECRET_KEY={VALUE}{VALUE}\n")
        report = peer.ask("import_project", directory=str(project), dryRun=True)["result"]
        self.assertEqual(report["structuredContent"]["files"][0]["keys"][0]["name"], "PAY_SECRET_KEY")
        self.assertNotIn(VALUE, json.dumps(report))

    def test_progress_is_told_and_a_cancellation_withdraws_the_question(self):
        peers = [self.peer(kind) for kind in ("handshake-v1", "stateless")]
        for peer in peers:
            peer.call(1, "create_environment", name="new")
        for peer in peers:  # both wait while the owner reads one question after the other
            told = peer.heard()
            self.assertGreater(told["progress"]["progress"], 0)
            self.assertIn("owner", told["progress"]["message"])
        for peer in peers:
            peer.tell(1, "abort")
            self.assertIn("error", peer.heard())
        self.owner.wait_for("The request was withdrawn.")
        for peer in peers:
            self.assertEqual(peer.ask("list_environments")["result"]["structuredContent"], {"environments": ["shop"]})

    def test_a_server_that_is_started_again_is_found_again(self):
        peer = self.peer("stateless")
        self.close()
        result = peer.ask("list_environments")["result"]
        self.assertEqual(result["structuredContent"], {"errorCode": "not_running"})
        self.open()
        self.assertFalse(peer.ask("list_environments")["result"]["isError"])

    def inspect(self, era, *words):
        command = [str(NODE), str(INSTALLED / "node_modules" / ".bin" / "mcp-inspector"), "--cli", "--protocol-era", era,
                   "--format", "json", "-e", f"SORVANE_MCP_TOKEN={self.token}", *words,
                   "--", SORVANE, "mcp", "--support-dir", str(self.support)]
        environment = {"PATH": f"{NODE.parent}:{os.environ['PATH']}", "HOME": str(self.folder)}
        done = subprocess.run(command, capture_output=True, text=True, timeout=60, env=environment, cwd=self.folder)
        self.assertEqual(done.returncode, 0, done.stdout + words_of(done.stderr))
        return json.loads(done.stdout)

    def test_the_inspector_finds_nothing_wrong(self):
        for era in ("legacy", "modern"):
            with self.subTest(era):
                listed = json.dumps(self.inspect(era, "--strict", "--method", "tools/list"))
                self.assertIn("begin_task_session", listed)
                called = json.dumps(self.inspect(era, "--method", "tools/call", "--tool-name", "list_secrets",
                                                 "--tool-arg", "environment=shop"))
                self.assertIn("SHOP_KEY", called)


def main():
    result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromTestCase(OfficialClients))
    if not result.wasSuccessful():
        return 1
    if result.skipped:
        return 77
    return 0 if result.testsRun else 1


if __name__ == "__main__":
    sys.exit(main())
