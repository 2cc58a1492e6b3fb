"""The parties of a proof: three providers over TLS, the proxy between, and official clients that reach either."""
import json
import os
import queue
import subprocess
import threading

BASES = {"anthropic": ("anthropic", "/anthropic", ""), "anthropic-before": ("anthropic", "/anthropic", ""),
         "openai": ("openai", "/openai/v1", "/v1"), "openrouter": ("openrouter", "/openrouter/api/v1", "/api/v1")}


class Party:
    """A program that is told and tells JSON lines."""

    def __init__(self, command, folder=None, **environment):
        self._process = subprocess.Popen([str(word) for word in command], cwd=folder, stdin=subprocess.PIPE, text=True,
                                         stdout=subprocess.PIPE, env={"PATH": os.environ["PATH"], **environment})
        self._heard = queue.Queue()
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()
        self.pid = self._process.pid

    def _collect(self):
        for line in self._process.stdout:
            self._heard.put(json.loads(line))
        self._heard.put(None)

    def heard(self, seconds=120):
        message = self._heard.get(timeout=seconds)
        if message is None or "trouble" in message:
            raise AssertionError(f"{self._process.args[0]}: {message}")
        return message

    def tell(self, **command):
        self._process.stdin.write(json.dumps(command) + "\n")
        self._process.stdin.flush()

    def ask(self, **command):
        self.tell(**command)
        return self.heard()

    def kill(self):
        self._process.kill()

    def close(self):
        self._process.stdin.close()
        try:
            return self._process.wait(timeout=30)
        finally:
            self._process.kill()
            self._reader.join(timeout=30)
            self._process.stdout.close()


def make_authority(folder):
    """A certificate authority of this run alone, and a certificate for 127.0.0.1 that it signed."""
    def openssl(*words):
        subprocess.run(["openssl", *words], cwd=folder, check=True, capture_output=True, timeout=60)

    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
    openssl("req", "-x509", *key, "-keyout", "authority.key", "-out", "authority.pem", "-days", "2", "-subj", "/CN=A made-up authority",
            "-addext", "basicConstraints=critical,CA:TRUE")
    openssl("req", *key, "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=A made-up provider")
    (folder / "names").write_text("subjectAltName=IP:127.0.0.1\n")
    openssl("x509", "-req", "-in", "server.csr", "-CA", "authority.pem", "-CAkey", "authority.key", "-CAcreateserial", "-days", "2",
            "-extfile", "names", "-out", "server.pem")
    return folder / "authority.pem"


class Stage:
    def __init__(self, folder, packages, proxy_program, protocol):
        node = packages / "node_modules" / ".bin" / "node"
        authority = make_authority(folder)
        self.parties = []
        self.stub = self._add(Party([node, "stub.mjs", folder / "server.key", folder / "server.pem", protocol], packages))
        told = self.stub.heard()
        self.ports, self.keys = told["ports"], told["keys"]
        self.client = self._add(Party([node, "client.mjs"], packages, NODE_EXTRA_CA_CERTS=str(authority)))
        self.client.heard()
        self.proxy = self._add(Party([proxy_program]))
        origins = {provider: f"https://127.0.0.1:{port}" for provider, port in self.ports.items()}
        self.port = self.proxy.ask(origins=origins, keys=self.keys, authority=authority.read_text())["port"]
        self._next = 0

    def _add(self, party):
        self.parties.append(party)
        return party

    def close(self):
        return [party.close() for party in reversed(self.parties)]

    def begin(self, kind, act, body, key=None, **more):
        """Starts a call: with a stand-in through the proxy, without one straight to the provider. Its number."""
        provider, path, own_path = BASES[kind]
        base = f"http://127.0.0.1:{self.port}{path}" if key else f"https://127.0.0.1:{self.ports[provider]}{own_path}"
        self._next += 1
        self.client.tell(id=self._next, kind=kind, act=act, body=body, base=base, key=key or self.keys[provider], **more)
        return self._next

    def end(self, number):
        outcome = self.client.heard()
        if outcome.pop("id") != number:
            raise AssertionError(f"another call came out first: {outcome}")
        return outcome

    def call(self, *words, **more):
        return self.end(self.begin(*words, **more))

    def provider_saw(self, count):
        """The next `count` calls that came to an end at the providers."""
        return self.stub.ask(act="calls", count=count)["calls"]
