#!/usr/bin/env python3
"""A second reader and writer of backup files, written from docs/backup-format.md alone.

  backup_peer.py make FOLDER   writes the golden files and the fault kit, the same bytes every time
  backup_peer.py open FILE     reads {"passphrase": ..} or {"recoveryKey": ..} from standard input and prints the payload

Every value and key in it is made up. Needs python3-cryptography; Argon2id comes from python3-argon2 or a newer cryptography."""
import base64, hashlib, hmac, json, pathlib, sys, unicodedata
from cryptography.hazmat.primitives.ciphers.aead import AESGCM

ASSOCIATED = b"sorvane-backup:2:encrypted"
PASSPHRASE = "correct horse caf\u00e9 battery"
RECOVERY_BYTES = bytes(range(7, 27))


def argon2id(passphrase, salt, memory, iterations):
    secret = unicodedata.normalize("NFC", passphrase).encode()
    try:
        from argon2.low_level import Type, hash_secret_raw
        return hash_secret_raw(secret, salt, iterations, memory, 1, 32, Type.ID)
    except ImportError:
        from cryptography.hazmat.primitives.kdf.argon2 import Argon2id
        return Argon2id(salt=salt, length=32, iterations=iterations, lanes=1, memory_cost=memory).derive(secret)


def hkdf(key, salt, info=b"", size=32):
    pseudo, out, block = hmac.digest(salt, key, "sha256"), b"", b""
    while len(out) < size:
        block = hmac.digest(pseudo, block + info + bytes([len(out) // 32 + 1]), "sha256")
        out += block
    return out[:size]


def recovery_text(key):
    digits = base64.b32encode(key).decode().rstrip("=")
    return "-".join(digits[i:i + 5] for i in range(0, len(digits), 5))


def recovery_wrapping_key(text):
    digits = "".join(c for c in text.upper() if c.isalnum())
    return hkdf(base64.b32decode(digits + "=" * (-len(digits) % 8)), b"sorvane.recovery.v1")


def canonical(value):
    return json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=False)


def b64(data):
    return base64.b64encode(data).decode()


class Chance:
    """Bytes that look random and are the same in every run."""

    def __init__(self, seed):
        self.seed, self.count = seed, 0

    def bytes(self, size):
        self.count += 1
        return hashlib.shake_256(f"{self.seed}/{self.count}".encode()).digest(size)


def seal(chance, key, plain, associated):
    nonce = chance.bytes(12)
    return nonce + AESGCM(key).encrypt(nonce, plain, associated)


def unseal(key, box, associated):
    return AESGCM(key).decrypt(box[:12], box[12:], associated)


def local_payload(payload):
    limited = any("allowedDeploymentTargets" in v for s in payload["secrets"] for v in s["versions"])
    return {"format": "deployment-policy-v1", "payload": payload} if limited else payload


def encrypted(payload, version=2, passphrase=PASSPHRASE, recovery=RECOVERY_BYTES, cost=(8, 1), rounds=10, seed="", raw=None,
              associated=ASSOCIATED, key_size=32, wrap_associated=None):
    chance = Chance(f"{version}/{seed}")
    if version == 1 and associated is ASSOCIATED:
        associated = None
    if wrap_associated is None:
        wrap_associated = associated
    key = chance.bytes(32)
    text = canonical(local_payload(payload)).encode() if raw is None else raw
    file = {"format": "sorvane-backup", "version": version, "protection": "encrypted",
            "payload": b64(seal(chance, key, text, associated))}
    wrapped = (key + b"\0" * 8)[:key_size]
    salt = chance.bytes(16)
    if version == 1:
        file.update(salt=b64(salt), iterations=rounds)
        passphrase_key = hashlib.pbkdf2_hmac("sha256", (passphrase or "").encode(), salt, rounds, 32)
    elif passphrase:
        file.update(salt=b64(salt), kdf="argon2id", argon2MemoryKiB=cost[0], argon2Iterations=cost[1])
        passphrase_key = argon2id(passphrase, salt, *cost)
    if passphrase:
        file["passphraseWrap"] = b64(seal(chance, passphrase_key, wrapped, wrap_associated or None))
    if recovery:
        recovery_key = hkdf(recovery, b"sorvane.recovery.v1")
        file["recoveryWrap"] = b64(seal(chance, recovery_key, wrapped, wrap_associated or None))
    return file


def plain(payload, checksum_text=None):
    text = canonical(local_payload(payload))
    digest = hashlib.sha256((checksum_text or text).encode()).digest()
    return {"format": "sorvane-backup", "version": 2, "protection": "none", "plaintext": local_payload(payload),
            "checksum": b64(digest)}


def cloud(payload, kinds=("passphrase", "recovery", "account")):
    chance = Chance("cloud")
    params = {"passphrase": {"kdf": "argon2id", "salt": b64(chance.bytes(16)), "memoryKiB": 65536, "iterations": 3,
                             "parallelism": 1},
              "recovery": {"kdf": "hkdf-sha256", "salt": b64(chance.bytes(16)), "info": "sorvane-backup/v3/recovery-wrap",
                           "encoding": "recovery-kit-base32"},
              "account": {"scheme": "x25519-hkdf-sha256-aes-256-gcm"}}
    return {"vaultId": "made-up-vault", "parent": None, "payload": b64(seal(chance, chance.bytes(32), b"{}", None)),
            "wraps": [{"kind": k, "params": params[k], "ct": b64(chance.bytes(60))} for k in kinds],
            "signer": {"kind": "ed25519", "publicKey": b64(chance.bytes(32))}, "signature": b64(chance.bytes(64))}


def open_file(text, secret):
    file = json.loads(text)
    assert file["format"] == "sorvane-backup" and file["version"] in (1, 2)
    if file.get("protection") == "none":
        assert hashlib.sha256(canonical(file["plaintext"]).encode()).digest() == base64.b64decode(file["checksum"])
        return file["plaintext"]
    associated = ASSOCIATED if file["version"] == 2 else None
    if "passphrase" in secret:
        salt = base64.b64decode(file["salt"])
        if file["version"] == 2:
            key = argon2id(secret["passphrase"], salt, file["argon2MemoryKiB"], file["argon2Iterations"])
        else:
            key = hashlib.pbkdf2_hmac("sha256", secret["passphrase"].encode(), salt, file["iterations"], 32)
        wrap = file["passphraseWrap"]
    else:
        key, wrap = recovery_wrapping_key(secret["recoveryKey"]), file["recoveryWrap"]
    data_key = unseal(key, base64.b64decode(wrap), associated)
    return json.loads(unseal(data_key, base64.b64decode(file["payload"]), associated))


def sample(limited=False):
    version = {"version": 1, "createdAt": "2026-01-02T03:04:05Z", "status": "retired", "retiredAt": "2026-02-03T00:00:00Z",
               "label": "first / old"}
    second = {"version": 2, "createdAt": "2026-02-03T00:00:00Z", "status": "active", "expiresAt": "2027-01-01T00:00:00Z"}
    if limited:
        second["allowedDeploymentTargets"] = ["development", "staging"]
    ids = ["sec_" + f"{i:032x}" for i in (1, 2)]
    return {
        "exportedAt": "2026-11-21T09:30:00Z",
        "secrets": [
            {"id": ids[0], "name": "MADE_UP_KEY", "description": "a \"quoted\" / slashed \u00fcml\u00e4ut \U0001f511",
             "tags": ["one", "two/three"], "icon": "key", "isFavorite": True, "currentVersion": 2,
             "versions": [version, second], "createdAt": "2026-01-02T03:04:05Z", "updatedAt": "2026-02-03T00:00:00Z"},
            {"id": ids[1], "name": "Second", "description": "", "tags": [], "isFavorite": False, "currentVersion": 2,
             "versions": [{"version": 1, "createdAt": "2026-01-05T00:00:00Z", "status": "purged"},
                          {"version": 2, "createdAt": "2026-01-06T00:00:00Z", "status": "active"}],
             "createdAt": "2026-01-05T00:00:00Z", "updatedAt": "2026-01-06T00:00:00Z"}],
        "projects": [{"id": "proj_" + "a" * 32, "name": "Shop", "description": "notes", "rootPath": "/srv/shop",
                      "bindings": [{"envVarName": "MADE_UP_KEY", "secretId": ids[0]},
                                   {"envVarName": "OLD", "secretId": ids[0], "pinVersion": 1, "allowsRunControl": False}],
                      "deploymentTarget": "staging", "createdAt": "2026-01-07T00:00:00Z",
                      "updatedAt": "2026-01-08T00:00:00Z"}],
        "audit": [{"id": "7B1F2A34-0C5D-4E6F-8A9B-0C1D2E3F4A5B", "actor": "the person", "tool": "reveal", "source": "menu",
                   "at": "2026-03-01T12:00:00Z", "secretId": ids[0], "version": 2}],
        "values": [{"secretId": ids[0], "version": 1, "value": "made-up/old\\value\u0001\t\"x\""},
                   {"secretId": ids[0], "version": 2, "value": "made-up new value \u2028 \u00e9"},
                   {"secretId": ids[1], "version": 2, "value": "x"}]}


if __name__ == "__main__":
    if sys.argv[1] == "open":
        print(canonical(open_file(pathlib.Path(sys.argv[2]).read_text(encoding="utf-8"), json.load(sys.stdin))))
    else:
        from backup_faults import write_all
        write_all(pathlib.Path(sys.argv[2]))
