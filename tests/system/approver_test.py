"""The program of the second device, as a person runs it, against a computer that the test plays from docs/phone-link.md."""
import base64
import json
import os
import pathlib
import signal
import socket
import struct
import sys
import time

from house import PASSPHRASE, PROGRAMS, House
from terminal import Terminal

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "peers" / "phone"))
try:
    import link_vectors as wire
    from cryptography.hazmat.primitives import hashes
    from cryptography.hazmat.primitives.asymmetric import ec
    from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305
except ImportError:
    wire = None

CODE = "ABCDEFGHIJKLMN27"
NAME = "stu\x1b[2Jdio"  # what would clear the screen
ALLOW = r"\[y/n\] $"


class Computer:
    """Listens on the loopback interface; one link at a time. Everything that it waits for has a limit."""

    def __init__(self):
        self.side, self.listener = wire.Side(), socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(20)
        self.port, self.link, self.phone, self.presence = self.listener.getsockname()[1], None, None, None

    def pairing_link(self, key=None):
        key = base64.urlsafe_b64encode(key or self.side.public).decode().rstrip("=")
        code = "-".join(CODE[i:i + 4] for i in range(0, 16, 4))
        return f"sorvane://pair?v=4&key={key}&host=127.0.0.1&port={self.port}&code={code}"

    def close(self):
        self.hang_up()
        self.listener.close()

    def hang_up(self):
        if self.link:
            self.link.close()
        self.link = None

    def greet(self):
        self.hang_up()
        self.link, _ = self.listener.accept()
        self.link.settimeout(20)
        self.challenge = os.urandom(32)
        self.send("challenge", peerPublicKey=wire.b64(self.side.public), challenge=wire.b64(self.challenge), macName=NAME)

    def send(self, kind, **rest):
        body = wire.compact({"v": 4, "kind": kind, **rest}).encode()
        self.link.sendall(struct.pack(">I", len(body)) + body)

    def receive(self, kind):
        size, = struct.unpack(">I", self._exactly(4))
        envelope = json.loads(self._exactly(size))
        assert (envelope["v"], envelope["kind"]) == (4, kind), envelope
        return envelope

    def _exactly(self, size):
        got = b""
        while len(got) < size:
            piece = self.link.recv(size - len(got))
            if not piece:
                raise EOFError
            got += piece
        return got

    def has_ended(self):
        try:
            return self.link.recv(1) == b""
        except ConnectionResetError:
            return True

    def seal(self, label, record):
        nonce = os.urandom(12)
        cipher = ChaCha20Poly1305(self.side.channel(self.phone))
        associated = f"sorvane-approver-v4|{label}|mac>phone".encode()
        return wire.b64(nonce + cipher.encrypt(nonce, wire.compact(record).encode(), associated))

    def open(self, label, box):
        box, associated = base64.b64decode(box), f"sorvane-approver-v4|{label}|phone>mac".encode()
        return json.loads(ChaCha20Poly1305(self.side.channel(self.phone)).decrypt(box[:12], box[12:], associated))

    def prove(self, kind, phone_challenge):
        self.send(kind, ok=True, sealed=self.seal("mac-proof", {
            "phoneChallenge": wire.b64(phone_challenge), "challenge": wire.b64(self.challenge),
            "macPublicKey": wire.b64(self.side.public)}))

    def pair(self):
        self.greet()
        asked = self.receive("pair")["pairRequest"]
        self.phone = base64.b64decode(asked["phonePublicKey"])
        confirm = self.open("pair-confirm", asked["sealedConfirm"])
        self.presence = base64.b64decode(confirm["presenceKey"])
        key = wire.hkdf(CODE.encode(), b"sorvane-pairing-v1", self.side.public + self.phone)
        message = wire.over("sorvane-pairing-v1", [self.side.public, self.phone, self.challenge, self.presence])
        assert confirm["proof"] == wire.b64(wire.hmac.digest(key, message, "sha256"))
        assert confirm["hardwarePresenceKey"] is False
        self.prove("paired", wire.hashlib.sha256(confirm["proof"].encode()).digest())
        return confirm["deviceName"]

    def hello(self):
        self.greet()
        envelope = self.receive("hello")
        assert base64.b64decode(envelope["peerPublicKey"]) == self.phone
        proof = self.open("hello-proof", envelope["sealed"])
        assert base64.b64decode(proof["challenge"]) == self.challenge
        self.prove("helloAck", base64.b64decode(proof["phoneChallenge"]))

    def ask(self, identity, reason, life=120):
        now = int(time.time()) - 978307200
        request = {"id": identity, "nonce": wire.b64(os.urandom(32)), "details": {
            "kind": "readSecret", "reason": reason, "requestor": "agent", "subject": "STRIPE_KEY", "version": 3},
            "macName": NAME, "issuedAt": now, "expiresAt": now + life}
        self.send("approvalRequest", sealed=self.seal("approval-request", request))
        return request

    def answer_to(self, request):
        """What the phone said, once it is seen to be an answer to this and, for a yes, signed."""
        answer = self.open("approval-response", self.receive("approvalResponse")["sealed"])
        digest = wire.approval_digest(request)
        assert (answer["id"], answer["nonce"], answer["digest"]) == (request["id"], request["nonce"], wire.b64(digest))
        assert ("presenceSignature" in answer) == answer["approved"]
        if answer["approved"]:
            key = ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), self.presence)
            key.verify(base64.b64decode(answer["presenceSignature"]), wire.presence_message(digest), ec.ECDSA(hashes.SHA256()))
        return answer["approved"]


class Approver(House):
    def setUp(self):
        super().setUp()
        if wire is None:
            self.skipTest("needs python3-cryptography")
        self.keys = self.folder / "keys-folder" / "keys"
        self.computer = Computer()
        self.addCleanup(self.computer.close)

    def run_approver(self, *words):
        device = Terminal([str(PROGRAMS / "sorvane-approver"), "--keys", str(self.keys), *words], self.environment())
        self.addCleanup(device.end, signal.SIGKILL)
        return device

    def pair(self, *words):
        device = self.run_approver("pair", self.computer.pairing_link(), "--name", "tablet", *words)
        for prompt in (r"^New passphrase[^\n]*: $", "^The same again: $"):
            device.wait_for(prompt)
            self.assertFalse(device.echoes())
            device.type(PASSPHRASE + "\n")
        self.assertEqual(self.computer.pair(), "tablet")
        device.wait_for(r"^Paired with stu\\x1b\[2Jdio as tablet\.$")
        return device

    def wait(self):
        device = self.run_approver()
        device.wait_for(r"^Passphrase[^\n]*: $")
        device.type(PASSPHRASE + "\n")
        self.computer.hello()
        device.wait_for(r"^Connected to stu\\x1b\[2Jdio\.$")
        return device

    def test_pairs_and_answers_only_what_was_shown_before_the_answer(self):
        device, computer = self.pair(), self.computer
        self.assertEqual(self.keys.stat().st_mode & 0o777, 0o600)
        device.wait_for("from now on")
        device.type("y\ny")  # before anything is asked
        first = computer.ask("one", "read\x1b[2Jme\n[y/n] ")
        shown = device.wait_for(ALLOW)
        for words in (r'"read\x1b[2Jme"', '"[y/n] "', "STRIPE_KEY", "agent", '"3"', "Time left"):
            self.assertIn(words, shown)
        second = computer.ask("two", "the second")
        device.wait_for(r"1 more waits[^[]*\[y/n\] $")
        device.type("\n")
        device.wait_for(ALLOW)
        device.type("y\n")
        self.assertTrue(computer.answer_to(first))  # the first answer that comes at all
        device.wait_for(r"the second[\s\S]*\[y/n\] $")
        device.type("n\n")
        self.assertFalse(computer.answer_to(second))
        computer.ask("three", "the third")
        device.wait_for(r"the third[\s\S]*\[y/n\] $")
        computer.send("cancel", sealed=computer.seal("approval-cancel", {"id": "three"}))
        device.wait_for("Nothing was answered here.")
        computer.ask("four", "the fourth", life=2)
        device.wait_for(r"the fourth[\s\S]*\[y/n\] $")
        device.wait_for("The time for this is over.")
        computer.ask("one", "the first again")
        device.wait_for("a second time")
        device.type("y\n")
        device.type("\x03")
        device.wait_for("^Stopped")
        self.assertEqual(device.end(None), 130)
        self.assertTrue(computer.has_ended())
        self.assertNotIn(b"\x1b[2J", device.raw())

    def test_waits_connects_again_and_ends_with_the_pairing(self):
        self.assertEqual(self.pair("--once").end(None), 0)
        device, computer = self.wait(), self.computer
        request = computer.ask("one", "the first")
        device.wait_for(ALLOW)
        computer.hang_up()
        device.wait_for("The link ended before this was answered.")
        computer.hello()
        device.wait_for(r"^Connected to")
        device.type("y\n")  # to nothing
        computer.send("approvalRequest", sealed=computer.seal("approval-request", request))
        device.wait_for(ALLOW)
        device.type("n\n")
        self.assertFalse(computer.answer_to(request))
        # What cannot be opened ends the link, and the next one is as good as the first.
        computer.send("approvalRequest", sealed=wire.b64(os.urandom(99)))
        self.assertTrue(computer.has_ended())
        computer.hello()
        device.wait_for(r"^Connected to")
        computer.send("unpair", sealed=computer.seal("unpair", {"phonePublicKey": wire.b64(computer.phone)}))
        device.wait_for("ended the pairing")
        self.assertEqual(device.end(None), 0)
        self.assertFalse(self.keys.exists())
        self.assertEqual(self.run_approver().end(None), 78)

    def test_gives_keys_to_no_wrong_passphrase_and_code_to_no_other_computer(self):
        other = self.run_approver("pair", self.computer.pairing_link(key=wire.Side().public))
        for _ in range(2):
            other.wait_for(": $")
            other.type(PASSPHRASE + "\n")
        self.computer.greet()
        other.wait_for("Another computer answered")
        self.assertTrue(self.computer.has_ended())
        self.assertEqual(other.end(None), 77)
        self.assertFalse(self.keys.exists())
        short = self.run_approver("pair", self.computer.pairing_link())
        short.wait_for(": $")
        short.type("elevenchars\n")
        short.wait_for("at least 12 characters")
        self.assertEqual(short.end(None), 2)

        self.assertEqual(self.pair("--once").end(None), 0)
        device = self.run_approver("wait")
        for _ in range(3):
            device.wait_for(r"^Passphrase[^\n]*: $")
            device.type("made-up and wrong\n")
        self.assertEqual(device.end(None), 77)
        telling = self.run_approver("forget", "--tell")
        telling.wait_for(r"^Passphrase[^\n]*: $")
        telling.type(PASSPHRASE + "\n")
        self.computer.hello()
        notice = self.computer.open("unpair", self.computer.receive("unpair")["sealed"])
        self.assertEqual(base64.b64decode(notice["phonePublicKey"]), self.computer.phone)
        self.computer.hang_up()
        telling.wait_for("The computer was told")
        self.assertEqual(telling.end(None), 0)
        self.assertFalse(self.keys.exists())
