#!/usr/bin/env python3
"""A second writer of the link to a phone, from docs/phone-link.md alone: keys, digests, proofs, boxes and whole recorded links.

  link_vectors.py FILE   writes the vectors, the same bytes every time

Every key and text in it is made up. Needs python3-cryptography."""
import base64, hashlib, hmac, json, struct, sys
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, utils
from cryptography.hazmat.primitives.asymmetric.x25519 import X25519PrivateKey, X25519PublicKey
from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305
from cryptography.hazmat.primitives.kdf.hkdf import HKDF

NOW = 815999400
RAW = (serialization.Encoding.Raw, serialization.PublicFormat.Raw)
count = 0


def chance(size=32):
    """Bytes that look random and are the same in every run."""
    global count
    count += 1
    return hashlib.shake_256(f"phone link/{count}".encode()).digest(size)


def b64(data):
    return base64.b64encode(data).decode()


def compact(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def hkdf(key, salt, info):
    return HKDF(hashes.SHA256(), 32, salt, info).derive(key)


# P-256 by hand, so that a signature is the same in every run; each is verified by the library before it is written.
N = 0xFFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551


def sign(scalar, message):
    private = ec.derive_private_key(scalar, ec.SECP256R1())
    k = int.from_bytes(hashlib.shake_256(b"nonce" + message).digest(32), "big") % N
    r = ec.derive_private_key(k, ec.SECP256R1()).public_key().public_numbers().x % N
    digest = int.from_bytes(hashlib.sha256(message).digest(), "big")
    s = pow(k, -1, N) * (digest + r * scalar) % N
    signature = utils.encode_dss_signature(r, s)
    private.public_key().verify(signature, message, ec.ECDSA(hashes.SHA256()))
    return signature


class Side:
    def __init__(self):
        self.secret = chance()
        self.private = X25519PrivateKey.from_private_bytes(self.secret)
        self.public = self.private.public_key().public_bytes(*RAW)

    def channel(self, peer):
        shared = self.private.exchange(X25519PublicKey.from_public_bytes(peer))
        return hkdf(shared, b"sorvane-channel-v2", b"sorvane-channel")


def field(value):
    if value is None:
        return b"\xff\xff\xff\xff"
    if isinstance(value, str):
        value = value.encode()
    elif isinstance(value, int):
        value = struct.pack(">q", value)
    elif isinstance(value, dict):
        value = [text for key in sorted(value, key=str.encode) for text in (key, value[key])]
    if isinstance(value, list):
        value = struct.pack(">I", len(value)) + b"".join(field(item) for item in value)
    return struct.pack(">I", len(value)) + value


def over(domain, values):
    return domain.encode() + b"\0" + b"".join(field(value) for value in values)


def raw(record, key):
    return base64.b64decode(record[key])


def approval_digest(request):
    details = request["details"]
    return hashlib.sha256(over("sorvane-approval-v2", [
        request["id"], raw(request, "nonce"), request["issuedAt"], request["expiresAt"], *[details.get(key) for key in (
            "kind", "reason", "requestor", "subject", "version", "allowedTargets", "declaredTarget")],
        request["macName"]])).digest()


def key_approval_digest(ask):
    return hashlib.sha256(over("sorvane-key-approval-v1", [ask["id"], raw(ask, "nonce")] + [ask.get(key) for key in (
        "fields", "workspaceName", "connectionName", "macName", "expiresAt", "sessionId")])).digest()


def registration_digest(ask):
    return hashlib.sha256(over("sorvane-approver-register-v1", [ask["id"], raw(ask, "nonce")] + [ask.get(key) for key in (
        "workspaceId", "workspaceName", "userId", "label", "macName", "expiresAt")])).digest()


def presence_message(digest):
    return b"sorvane-presence-v3\0" + digest


def request(identity, details):
    return {"id": identity, "nonce": b64(chance()), "details": details, "macName": "Büro 7", "issuedAt": NOW,
            "expiresAt": NOW + 120}


def response(asked, approved, scalar=None):
    digest = approval_digest(asked)
    answer = {"id": asked["id"], "nonce": asked["nonce"], "digest": b64(digest), "approved": approved}
    if scalar:
        answer["presenceSignature"] = b64(sign(scalar, presence_message(digest)))
    return answer


class Link:
    """One link's frames in their order, with what stands in them."""

    def __init__(self, mac, phone):
        self.key, self.frames, self.records = mac.channel(phone.public), [], []

    def seal(self, label, sender, record):
        text = compact(record)
        nonce, direction = chance(12), "mac>phone" if sender == "mac" else "phone>mac"
        associated = f"sorvane-approver-v4|{label}|{direction}".encode()
        box = nonce + ChaCha20Poly1305(self.key).encrypt(nonce, text.encode(), associated)
        self.records.append({"label": label, "from": sender, "json": text, "box": b64(box)})
        return b64(box)

    def send(self, sender, kind, **rest):
        body = compact({"v": 4, "kind": kind, **rest}).encode()
        self.frames.append({"from": sender, "kind": kind, "frame": (struct.pack(">I", len(body)) + body).hex()})


def hello(link, mac, phone, features=None):
    challenge, phone_challenge = chance(), chance()
    link.send("mac", "challenge", peerPublicKey=b64(mac.public), challenge=b64(challenge), macName="Büro 7")
    proof = {"challenge": b64(challenge), "phonePublicKey": b64(phone.public), "phoneChallenge": b64(phone_challenge)}
    if features is not None:
        proof["features"] = features
    link.send("phone", "hello", peerPublicKey=b64(phone.public), sealed=link.seal("hello-proof", "phone", proof))
    link.send("mac", "helloAck", ok=True, sealed=link.seal("mac-proof", "mac", {
        "phoneChallenge": b64(phone_challenge), "challenge": b64(challenge), "macPublicKey": b64(mac.public)}))


def approvals(mac, phone, scalar):
    link = Link(mac, phone)
    hello(link, mac, phone, ["approvals", "größer"])
    full = {"kind": "useEnvironment", "reason": "Run “make deploy” in shop", "requestor": "agent\n7", "subject": "shop",
            "version": -3, "allowedTargets": ["development", "staging"], "declaredTarget": "staging"}
    plain = {"kind": "readSecret", "reason": "", "requestor": "agent 8"}
    for identity, details in (("req_1", full), ("req_2", plain), ("req_3", plain)):
        asked = request(identity, details)
        link.send("mac", "approvalRequest", sealed=link.seal("approval-request", "mac", asked))
        if identity == "req_3":
            link.send("mac", "cancel", sealed=link.seal("approval-cancel", "mac", {"id": identity}))
            continue
        approved = identity == "req_1"
        answer = response(asked, approved, scalar if approved else None)
        link.send("phone", "approvalResponse", sealed=link.seal("approval-response", "phone", answer))
    return link


def pairing(mac, phone, presence):
    link, code, challenge = Link(mac, phone), "GEZDGNBVGY3TQOJQ", chance()
    link.send("mac", "challenge", peerPublicKey=b64(mac.public), challenge=b64(challenge), macName="Büro 7")
    key = hkdf(code.encode(), b"sorvane-pairing-v1", mac.public + phone.public)
    proof = b64(hmac.digest(key, over("sorvane-pairing-v1", [mac.public, phone.public, challenge, presence]), "sha256"))
    confirm = {"phonePublicKey": b64(phone.public), "presenceKey": b64(presence), "hardwarePresenceKey": True,
               "deviceName": "Änne’s pocket", "proof": proof}
    link.send("phone", "pair", pairRequest={"phonePublicKey": b64(phone.public),
                                            "sealedConfirm": link.seal("pair-confirm", "phone", confirm)})
    link.send("mac", "paired", ok=True, sealed=link.seal("mac-proof", "mac", {
        "phoneChallenge": b64(hashlib.sha256(proof.encode()).digest()), "challenge": b64(challenge),
        "macPublicKey": b64(mac.public)}))
    return link, {"code": code, "challenge": b64(challenge), "proof": proof}


def others(mac, phone):
    """The records that no approval needs, each with every optional key, and the end of a pairing from either side."""
    link = Link(mac, phone)
    ask = {"id": "key_1", "nonce": b64(chance()), "fields": {"zone": "eu", "a": "", "é": "x"}, "workspaceName": "Shop",
           "connectionName": "relay", "macName": "Büro 7", "expiresAt": NOW + 120, "sessionId": "s1"}
    link.send("mac", "keyApproval", sealed=link.seal("keyApproval", "mac", dict(ask, fields=dict(sorted(
        ask["fields"].items(), key=lambda item: item[0].encode())))))
    link.send("phone", "keyApprovalAnswer", sealed=link.seal("keyApprovalAnswer", "phone", {
        "id": "key_1", "nonce": ask["nonce"], "digest": b64(key_approval_digest(ask)), "approved": True,
        "signature": b64(chance(70))}))
    register = {"id": "reg_1", "nonce": b64(chance()), "workspaceId": "w1", "workspaceName": "Shop", "userId": "u1",
                "label": "the phone", "macName": "Büro 7", "expiresAt": NOW + 120}
    link.send("mac", "approverRegister", sealed=link.seal("approverRegister", "mac", register))
    link.send("phone", "approverRegisterAnswer", sealed=link.seal("approverRegisterAnswer", "phone", {
        "id": "reg_1", "nonce": register["nonce"], "accepted": True, "publicKey": "a made-up key",
        "signature": b64(chance(70))}))
    for sender in ("phone", "mac"):
        link.send(sender, "unpair", sealed=link.seal("unpair", sender, {"phonePublicKey": b64(phone.public)}))
    return link, ask, register


def digest_cases(asks):
    """Each differs from its neighbours in where one thing ends and the next begins, or in absent against empty."""
    base = {"kind": "other", "reason": "ab", "requestor": "c"}
    details = [base, dict(base, reason="a", requestor="bc"), dict(base, subject=""), dict(base, declaredTarget=""),
               dict(base, allowedTargets=[]), dict(base, allowedTargets=[""]), dict(base, allowedTargets=["ab", "c"]),
               dict(base, allowedTargets=["a", "bc"]), dict(base, version=0), dict(base, version=2**63 - 1),
               dict(base, version=-2**63), dict(base, kind="unlock"), dict(base, kind="taskSession", reason="größer ‘’ 𝄞")]
    fixed, cases = request("req", base), []
    for each in details:
        cases.append(("approval", dict(fixed, details=each)))
    for change in ({"id": "re"}, {"macName": ""}, {"issuedAt": -1}, {"expiresAt": NOW + 121}, {"nonce": b64(bytes(32))}):
        cases.append(("approval", dict(fixed, **change)))
    ask, register = asks
    for change in ({}, {"fields": {}}, {"fields": {"a": "bc"}}, {"fields": {"ab": "c"}}, {"workspaceName": ""}):
        cases.append(("keyApproval", dict(ask, **change)))
    cases.append(("keyApproval", {key: ask[key] for key in ("id", "nonce", "fields", "macName", "expiresAt")}))
    cases.append(("registration", register))
    cases.append(("registration", {key: register[key] for key in register if key != "workspaceName"}))
    make = {"approval": approval_digest, "keyApproval": key_approval_digest, "registration": registration_digest}
    return [{"of": of, "json": compact(record), "digest": make[of](record).hex()} for of, record in cases]


def main(path):
    mac, phone, other = Side(), Side(), Side()
    scalar = int.from_bytes(chance(), "big") % (N - 1) + 1
    presence = ec.derive_private_key(scalar, ec.SECP256R1()).public_key().public_bytes(
        serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    assert mac.channel(phone.public) == phone.channel(mac.public)
    session, (pair, pairing_facts), (rest, *asks) = approvals(mac, phone, scalar), pairing(mac, phone, presence), others(
        mac, phone)
    digests = digest_cases(asks)
    assert len({case["digest"] for case in digests}) == len(digests)
    first = hashlib.sha256(b"a made-up digest").digest()
    vectors = {
        "now": NOW,
        "mac": {"secret": mac.secret.hex(), "public": mac.public.hex()},
        "phone": {"secret": phone.secret.hex(), "public": phone.public.hex()},
        "stranger": {"secret": other.secret.hex(), "public": other.public.hex()},
        "presence": {"scalar": scalar.to_bytes(32, "big").hex(), "public": presence.hex(), "digest": first.hex(),
                     "message": presence_message(first).hex(),
                     "signature": sign(scalar, presence_message(first)).hex(),
                     "signatureOfVersion2": sign(scalar, b"sorvane-presence-v2\0" + first).hex()},
        "pairing": dict(pairing_facts, frames=pair.frames),
        "session": session.frames,
        "others": rest.frames,
        "records": pair.records + session.records + rest.records,
        "digests": digests,
    }
    with open(path, "w", encoding="utf-8") as out:
        out.write(json.dumps(vectors, indent=1, ensure_ascii=False) + "\n")


if __name__ == "__main__":
    main(sys.argv[1])
