"""What foreign clients may send, and what they may leave undone."""
import json
import os
import resource
import socket

from house import House, Request


class Input(House):
    def test_everyBadRequestIsRefusedWithItsSentenceAndTheNextOneWorks(self):
        self.open().furnish()
        token = self.endpoint()["token"]

        def request(**fields):
            return json.dumps({"token": token, **fields}).encode()

        loop = self.folder / "loop"
        loop.symlink_to(loop)
        padding = 65536 - len(request(op="listEnvironments", arg=""))
        run = {"op": "runEnv", "environment": "shop"}
        words = json.dumps(["/bin/true"])
        cases = [
            (b"", "bad request"),
            (b"\xff\xfe{}", "bad request"),
            (b"[" * 60000, "bad request"),
            (request(op="noSuchOperation"), "bad request"),
            (b'{"op":"listEnvironments"}', "bad request"),
            (f'{{"token":"{token}","token":"{token}","op":"listEnvironments"}}'.encode(), "bad request"),
            (request(op="listEnvironments", arg=7), "bad request"),
            (request(op="createEnvironment", arg="a\0b"), "bad request"),
            (request(op="listEnvironments", arg="x" * (padding + 1)), "request too large"),
            (request(op="createEnvironment"), "createEnvironment needs a name"),
            (request(op="deleteEnvironment"), "deleteEnvironment needs a name"),
            (request(op="addToEnvironment"), "addToEnvironment needs a secret name and an environment"),
            (request(op="captureSecret", arg="a"), "captureSecret needs a name and a non-empty value (≤4 KB)"),
            (request(op="renderEnv"), "no environment named. Pass the environment name; list_environments shows the names."),
            (request(**run, payload={"command": "[]"}), "Enter a valid command."),
            *[(request(**run, directory=folder, payload={"command": words}),
               "Project folder is missing. Choose an existing absolute directory.")
              for folder in ("relative", "/etc/passwd", str(loop), "/" + "x" * 5000)],
        ]
        for sent, sentence in cases:
            with self.subTest(sent=sent[:80]):
                answer = Request(self.endpoint(), sent).answer()
                self.assertEqual((answer["ok"], answer.get("error")), (False, sentence))
        self.assertEqual(Request(self.endpoint(), request(op="listEnvironments", arg="x" * padding)).answer()["names"], ["shop"])

    def test_aThousandSilentConnectionsKeepNobodyOut(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, hard), hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.open().furnish()
        endpoint = self.endpoint()
        silent = []
        for _ in range(1000):
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            connection.connect(endpoint["socketPath"])  # without a time-out it waits for its place in the queue
            silent.append(connection)
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])
        with open(f"/proc/{self.owner.pid}/status") as status:
            resident = next(int(line.split()[1]) for line in status if line.startswith("RssAnon"))
        self.assertLess(resident, 64 * 1024, "kB of private memory with a thousand connections")
        for connection in silent:
            connection.close()
        self.assertEqual(self.ask("listEnvironments").answer()["names"], ["shop"])

    def test_aPeerThatNeverReadsItsAnswerDoesNotHoldUpOthers(self):
        self.open()
        for number in range(40):
            self.act("secretAdd", name=f"secret {number}", value="made-up-value", description="d" * 4000)
        endpoint = self.endpoint()
        deaf = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        deaf.connect(endpoint["socketPath"])
        deaf.sendall(json.dumps({"token": endpoint["token"], "op": "manageVault", "payload": {"action": "secretList"}}).encode())
        deaf.shutdown(socket.SHUT_WR)
        self.assertTrue(self.ask("listEnvironments").answer()["ok"])
        deaf.close()
        self.assertTrue(self.ask("listEnvironments").answer()["ok"])
