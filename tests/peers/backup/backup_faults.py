"""The golden files and the fault kit: each case is one file, what is entered for it, and the sentence that refuses it."""
import base64, hashlib, json
from backup_peer import (ASSOCIATED, PASSPHRASE, RECOVERY_BYTES, b64, canonical, cloud, encrypted, plain,
                         recovery_text, sample)

NOT = "Check that this is an sorvane backup file."
MALFORMED = "the backup file is corrupt or not an sorvane backup"
NEWER = "this backup was made by a newer version of sorvane; update sorvane to open it"
WRONG = "wrong passphrase or recovery key"
BAD_KEY = "that doesn't look like a valid recovery key"
UNTRUSTED = "this backup is not signed by your sorvane account, so it may have been altered"
ACCOUNT = "This backup can only be opened with your sorvane account."
NO_PASSPHRASE, NO_KEY = "This backup has no passphrase.", "This backup has no recovery key."
ENTER = {"passphrase": PASSPHRASE}
KEY = {"recoveryKey": recovery_text(RECOVERY_BYTES)}
KEYS = ["argon2Iterations", "argon2MemoryKiB", "checksum", "format", "iterations", "kdf", "passphraseWrap", "payload", "plaintext",
        "protection", "recoveryWrap", "salt", "version"]


def changed(file, **changes):
    out = dict(file)
    for key, value in changes.items():
        if value is ...:
            out.pop(key, None)
        else:
            out[key] = value
    return out


def recoded(text, change):
    return b64(change(base64.b64decode(text)))


def faults():
    both, old, bare = encrypted(sample()), encrypted(sample(), version=1), plain(sample())

    def case(name, file, expected, entered=ENTER):
        raw = file if isinstance(file, bytes) else canonical(file).encode()
        return {"name": name, "file": b64(raw), "entered": entered, "expected": expected}

    missing = {"format": NOT, "version": NOT, "passphraseWrap": NO_PASSPHRASE, "recoveryWrap": NO_KEY}
    for label, file in (("v2", both), ("v1", old), ("none", bare)):
        for key in file:
            if (label, key) == ("v1", "protection"):
                continue  # may be left out there
            entered = {} if label == "none" else KEY if key == "recoveryWrap" else ENTER
            expected = missing.get(key, MALFORMED)
            yield case(f"{label} without {key}", changed(file, **{key: ...}), expected, entered)
            yield case(f"{label} with null for {key}", changed(file, **{key: None}), expected, entered)
            wrong = 7 if not isinstance(file[key], int) else str(file[key])
            for kind, value in (("another type", wrong), ("a list", [file[key]]), ("a Boolean", True)):
                yield case(f"{label} with {kind} for {key}", changed(file, **{key: value}), NOT, entered)
            twice = canonical(file)[:-1] + "," + canonical({key: file[key]})[1:]
            yield case(f"{label} with {key} twice", twice.encode(), NOT, entered)
    # Bounds, each one past; no derivation may run.
    for memory in (7, 4, 0, -1, 1048577, 2**31, 2**32 + 8, 2**63 - 1):
        yield case(f"memory {memory}", changed(both, argon2MemoryKiB=memory), MALFORMED)
    for rounds in (0, -1, 11, 2**32 + 1, 2**63 - 1):
        yield case(f"iterations {rounds}", changed(both, argon2Iterations=rounds), MALFORMED)
    for memory, rounds in ((262144, 4), (65536, 12), (786433, 1), (78644, 10), (1048576, 1)):
        yield case(f"product {memory} x {rounds}", changed(both, argon2MemoryKiB=memory, argon2Iterations=rounds), MALFORMED)
    for rounds in (0, -1, 10000001, 2**63 - 1):
        yield case(f"v1 iterations {rounds}", changed(old, iterations=rounds), MALFORMED)
    for number in (2**63, -2**63 - 1, 1.5, 1e3):
        yield case(f"no integer {number}", changed(both, argon2Iterations=number), NOT)
    for size in (0, 1, 15, 17, 32):
        yield case(f"salt of {size}", changed(both, salt=b64(bytes(size))), MALFORMED)
        yield case(f"v1 salt of {size}", changed(old, salt=b64(bytes(size))), MALFORMED)
    for version in (0, -1, 3, 4, 2**63 - 1):
        yield case(f"version {version}", changed(both, version=version), MALFORMED)
    for word in ("sorvane-backups", "Sorvane-Backup", "", "sorvane-backup\0", "backup"):
        yield case(f"format {word!r}", changed(both, format=word), MALFORMED)
    for word in ("argon2i", "ARGON2ID", "", "pbkdf2"):
        yield case(f"kdf {word!r}", changed(both, kdf=word), MALFORMED)
    for word in ("none", "None", "Encrypted", "", "passphrase"):
        yield case(f"protection {word!r}", changed(both, protection=word), MALFORMED)
        yield case(f"v1 protection {word!r}", changed(old, protection=word), MALFORMED)
    # Members that do not belong together.
    yield case("v2 with iterations", changed(both, iterations=10), MALFORMED)
    yield case("v1 with kdf", changed(old, kdf="argon2id", argon2MemoryKiB=8, argon2Iterations=1), MALFORMED)
    yield case("v1 with Argon2 fields", changed(old, argon2MemoryKiB=8, argon2Iterations=1), MALFORMED)
    yield case("v1 as v2", changed(old, version=2), MALFORMED)
    yield case("v2 as v1", changed(both, version=1), MALFORMED)
    only_key = encrypted(sample(), passphrase=None, seed="key")
    yield case("key only with salt", changed(only_key, salt=b64(bytes(16))), MALFORMED, KEY)
    yield case("key only with iterations", changed(only_key, iterations=10), MALFORMED, KEY)
    yield case("key only with kdf", changed(only_key, kdf="argon2id"), MALFORMED, KEY)
    yield case("key only and a passphrase", only_key, NO_PASSPHRASE)
    only_pass = encrypted(sample(), recovery=None, seed="pass")
    yield case("passphrase only and a key", only_pass, NO_KEY, KEY)
    yield case("a wrap that nothing derives the key of", changed(only_key, passphraseWrap=both["passphraseWrap"]), MALFORMED)
    yield case("no wrap", changed(only_key, recoveryWrap=...), MALFORMED, {})
    yield case("encrypted with plaintext", changed(both, plaintext=bare["plaintext"]), MALFORMED)
    for key in ("payload", "salt", "kdf", "passphraseWrap", "recoveryWrap", "argon2MemoryKiB", "argon2Iterations"):
        yield case(f"none with {key}", changed(bare, **{key: both[key]}), MALFORMED, {})
    yield case("none with iterations", changed(bare, iterations=10), MALFORMED, {})
    # Secrets.
    yield case("nothing entered", both, "This backup is encrypted. Enter its passphrase or recovery key.", {})
    yield case("no passphrase entered", only_pass, "This backup needs its passphrase.", {})
    yield case("no key entered", only_key, "This backup needs its recovery key.", {})
    yield case("both entered", both, "Use one unlock method at a time.", {**ENTER, **KEY})
    for word in ("", "wrong", PASSPHRASE + " ", PASSPHRASE.upper(), "caf\u00e9"):
        yield case(f"passphrase {word!r}", both, WRONG, {"passphrase": word})
        yield case(f"v1 passphrase {word!r}", old, WRONG, {"passphrase": word})
    other = recovery_text(bytes(20))
    text = KEY["recoveryKey"]
    for name, typed, expected in (("other", other, WRONG), ("of 15 bytes", recovery_text(bytes(15)), BAD_KEY), ("empty", "", BAD_KEY),
                                  ("with a 1", text.replace(text[0], "1", 1), BAD_KEY), ("short", text[:-2], BAD_KEY), ("a whole byte short", text[:-1], WRONG),
                                  ("long", text + "A", BAD_KEY), ("with a letter", text + "\u00e9", BAD_KEY),
                                  ("of 21 digits past a byte", "A" * 28 + "B", BAD_KEY), ("of 16 bytes", "A" * 26, WRONG)):
        yield case(f"recovery key {name}", both, expected, {"recoveryKey": typed})
    # Boxes.
    flip = lambda at: lambda box: box[:at] + bytes([box[at] ^ 1]) + box[at + 1:]
    box_changes = [("cut", lambda b: b[:-1]), ("extended", lambda b: b + b"\0"), ("empty", lambda b: b""), ("of 27 bytes", lambda b: b[:27]),
                   ("with another nonce", flip(0)), ("with another text", flip(12)), ("with another tag", flip(-2)),
                   ("doubled", lambda b: b + b)]
    for label, file in (("v2", both), ("v1", old)):
        for name, change in box_changes:
            yield case(f"{label} payload {name}", changed(file, payload=recoded(file["payload"], change)), MALFORMED)
            yield case(f"{label} passphrase wrap {name}", changed(file, passphraseWrap=recoded(file["passphraseWrap"], change)), WRONG)
            yield case(f"{label} recovery wrap {name}", changed(file, recoveryWrap=recoded(file["recoveryWrap"], change)), WRONG, KEY)
        swapped = changed(file, passphraseWrap=file["recoveryWrap"], recoveryWrap=file["passphraseWrap"])
        yield case(f"{label} swapped wraps, passphrase", swapped, WRONG)
        yield case(f"{label} swapped wraps, key", swapped, WRONG, KEY)
        alien = encrypted(sample(), version=file["version"], seed="alien")
        yield case(f"{label} payload of another file", changed(file, payload=alien["payload"]), MALFORMED)
        yield case(f"{label} wrap of another file", changed(file, passphraseWrap=alien["passphraseWrap"]), WRONG)
        yield case(f"{label} key wrap of another file", changed(file, recoveryWrap=alien["recoveryWrap"]), MALFORMED, KEY)
        for size in (31, 33, 16):
            yield case(f"{label} key of {size} bytes", encrypted(sample(), version=file["version"], key_size=size), MALFORMED)
        for key in ("payload", "passphraseWrap", "recoveryWrap", "salt"):
            for name, bad in (("unpadded", lambda t: t.rstrip("=") if "=" in t else t[:-1]), ("with a line feed", lambda t: t[:4] + "\n" + t[4:]),
                              ("URL-safe", lambda t: "-_" + t[2:]), ("with text behind", lambda t: t + "====")):
                yield case(f"{label} {key} {name}", changed(file, **{key: bad(file[key])}), MALFORMED)
    yield case("no associated data", encrypted(sample(), associated=b""), WRONG)
    yield case("foreign associated data", encrypted(sample(), associated=b"sorvane-backup:3:encrypted"), WRONG)
    yield case("payload alone without associated data", encrypted(sample(), associated=b"", wrap_associated=ASSOCIATED), MALFORMED)
    yield case("v1 with associated data", encrypted(sample(), version=1, associated=b"sorvane-backup:1:encrypted"), WRONG)
    # What is inside.
    def inside(name, raw, expected=MALFORMED):
        raw = raw if isinstance(raw, bytes) else canonical(raw).encode()
        return case(f"payload {name}", encrypted(sample(), raw=raw), expected)
    payload = sample()
    for key in payload:
        yield inside(f"without {key}", changed(payload, **{key: ...}))
        for kind, value in (("null", None), ("a number", 7), ("an object", {}), ("a list of null", [None])):
            yield inside(f"with {kind} for {key}", changed(payload, **{key: value}))
        yield inside(f"with {key} twice", (canonical(payload)[:-1] + "," + canonical({key: payload[key]})[1:]).encode())
    for part in ("secrets", "projects", "audit", "values"):
        for key in payload[part][0]:
            if key in ("icon", "rootPath", "deploymentTarget", "label") or (part == "audit" and key in ("secretId", "version")):
                continue
            yield inside(f"with a record of {part} without {key}", changed(payload, **{part: [changed(payload[part][0], **{key: ...})]}))
            yield inside(f"with a record of {part} with a list for {key}",
                         changed(payload, **{part: [changed(payload[part][0], **{key: [[]]})]}))
    for date in ("2026-02-30T00:00:00Z", "2026-11-21", "2026-11-21T09:30:00+01:00", "2026-11-21T09:30:00.5Z", ""):
        yield inside(f"with the date {date!r}", changed(payload, exportedAt=date))
    for marker in ("deployment-policy-v2", "", 7, None, ["deployment-policy-v1"]):
        yield inside(f"under the marker {marker!r}", {"format": marker, "payload": payload}, NEWER)
    yield inside("under a marker and bare", {**payload, "format": "other"}, NEWER)
    yield inside("under its marker without payload", {"format": "deployment-policy-v1"})
    yield inside("that is empty", b"")
    yield inside("that is a list", b"[]")
    yield inside("that is no UTF-8", canonical(payload).encode().replace(b"Second", b"Sec\xff\xfe"))
    yield inside("with text behind", canonical(payload).encode() + b"x")
    yield inside("with a trailing comma", canonical(payload).encode()[:-1] + b",}")
    yield inside("with a lone surrogate", canonical(payload).encode().replace(b'"value":"x"', b'"value":"\\ud800"'))
    yield inside("nested too deep", changed(payload, cloudCache=json.loads('{"a":' * 40 + "1" + "}" * 40)))
    yield inside("with a list as cloudCache", changed(payload, cloudCache=[]))
    name_of = lambda name: changed(payload, projects=[changed(payload["projects"][0], bindings=[{"envVarName": name, "secretId": "sec_x"}])])
    for name, shown in (("1A", "1A"), ("A-B", "A-B"), ("A.B", "A.B"), ("", ""), ("A B", "A B"), ("\u00c4", "\u00c4"), ("A\x1b[2J", "A\\x1b[2J"), ("A\n", "A\\n")):
        yield inside(f"with the variable {name!r}", name_of(name),
                     f"This backup has a variable name sorvane does not accept, {shown}, in Shop. Names use letters, digits and "
                     "underscores. Nothing was restored.")
    # Without encryption.
    edited = json.loads(canonical(bare).replace("made-up new value", "somebody's value"))
    yield case("plain, edited", edited, MALFORMED, {})
    yield case("plain, another checksum", changed(bare, checksum=b64(bytes(32))), MALFORMED, {})
    yield case("plain, checksum in hexadecimal", changed(bare, checksum=hashlib.sha256(b"x").hexdigest()), MALFORMED, {})
    yield case("plain, checksum over pretty text", plain(sample(), json.dumps(sample(), sort_keys=True, indent=1)), MALFORMED, {})
    text = canonical(sample())
    yield case("plain, checksum with one slash escaped", plain(sample(), text.replace("/", "\\/", 1)), MALFORMED, {})
    yield case("plain, checksum in another order", plain(sample(), json.dumps(sample(), separators=(",", ":"), ensure_ascii=False)),
               MALFORMED, {})
    yield case("plain, checksum over ASCII", plain(sample(), json.dumps(sample(), sort_keys=True, separators=(",", ":"))), MALFORMED, {})
    yield case("plain, foreign marker", changed(bare, plaintext={"format": "deployment-policy-v9", "payload": sample()}), NEWER, {})
    yield case("plain, empty", changed(bare, plaintext={}), MALFORMED, {})
    # No backup at all.
    text = canonical(both).encode()
    for name, raw in (("empty", b""), ("white space", b" \n"), ("a list", b"[]"), ("null", b"null"), ("a text", b'"sorvane-backup"'),
                      ("an empty object", b"{}"), ("text behind", text + b"x"), ("two files", text + text), ("cut", text[:-1]),
                      ("cut in a text", text[:40]), ("a byte-order mark", b"\xef\xbb\xbf" + text), ("a NUL behind", text + b"\0"),
                      ("no UTF-8", text.replace(b"encrypted", b"encrypt\xff")), ("UTF-16", text.decode().encode("utf-16")),
                      ("single quotes", text.replace(b'"', b"'")), ("a comment", b"// a comment\n" + text), ("a deep list", b"[" * 5000),
                      ("a deep object", b'{"a":' * 5000), ("a deep member", text[:-1] + b',"x":' + b"[" * 40 + b"]" * 40 + b"}"),
                      ("a bad escape", text.replace(b"encrypted", b"\\xencrypted")), ("a line feed in a text", text.replace(b"encrypted", b"encry\npted")),
                      ("NaN", text.replace(b'"version":2', b'"version":NaN')), ("a leading zero", text.replace(b'"version":2', b'"version":02')),
                      ("a plus sign", text.replace(b'"version":2', b'"version":+2'))):
        yield case(f"no backup: {name}", raw, NOT)
    # From the cloud.
    up = cloud(sample())
    yield case("cloud", up, UNTRUSTED)
    yield case("cloud with its marks", {**up, "format": "sorvane-backup", "version": 3}, UNTRUSTED)
    yield case("cloud unsigned", changed(up, signer=...), UNTRUSTED)
    yield case("cloud, account only", cloud(sample(), ("account",)), ACCOUNT)
    yield case("cloud of another version", {**up, "version": 4}, NOT)
    yield case("cloud of another format", {**up, "format": "other"}, NOT)
    for key in ("vaultId", "payload", "wraps", "signature"):
        yield case(f"cloud without {key}", changed(up, **{key: ...}), NOT)
        yield case(f"cloud with a number for {key}", changed(up, **{key: 7}), NOT)
    for index, params in enumerate(wrap["params"] for wrap in up["wraps"]):
        for key in params:
            wraps = [dict(w) for w in up["wraps"]]
            wraps[index]["params"] = changed(params, **{key: "other" if isinstance(params[key], str) and key != "salt" else []})
            yield case(f"cloud wrap {index} with another {key}", changed(up, wraps=wraps), NOT)
    yield case("cloud wrap of another kind", changed(up, wraps=[{**up["wraps"][0], "kind": "other"}]), NOT)
    yield case("cloud with 65 wraps", changed(up, wraps=up["wraps"][:1] * 65), NOT)
    yield case("cloud with another signer", changed(up, signer={"kind": "p256", "publicKey": ""}), NOT)


def golden():
    """Every kind of file, with what opens it; `limited` tells which payload is inside."""
    escaped = canonical(sample()).replace("/", "\\/")
    slashes = canonical(plain(sample(), escaped)).replace("/", "\\/")
    cost = (65536, 3)
    unknown = dict(encrypted(sample(), seed="unknown"), future={"kept": [1, 2.5, None, True]})
    rows = [("v2-passphrase", encrypted(sample(), recovery=None, cost=cost), [ENTER]),
            ("v2-recovery", encrypted(sample(), passphrase=None), [KEY]), ("v2-both", encrypted(sample()), [ENTER, KEY]),
            ("v2-limited", encrypted(sample(True)), [ENTER, KEY]), ("v2-largest-cost", encrypted(sample(), cost=(262144, 3)), [ENTER]),
            ("v2-unknown-member", unknown, [ENTER]), ("v1-passphrase", encrypted(sample(), version=1, recovery=None, rounds=1000), [ENTER]),
            ("v1-recovery", encrypted(sample(), version=1, passphrase=None), [KEY]), ("v1-both", encrypted(sample(), version=1), [ENTER, KEY]),
            ("v1-protection-left-out", changed(encrypted(sample(), version=1, seed="left"), protection=...), [ENTER]),
            ("v2-none", plain(sample()), [{}]), ("v2-none-escaped-slashes", slashes, [{}]), ("v2-none-cloud-cache",
             plain({**sample(), "cloudCache": {"secrets": [], "environments": [{"b": 1, "a": "x/y"}]}}), [{}])]
    small = {"exportedAt": "2026-11-21T09:30:00Z", "secrets": [], "projects": [], "audit": [], "values": []}
    (yield "v1-flip", canonical(changed(encrypted(small, version=1, recovery=None, seed="flip"), protection=...)), [ENTER], None)
    (yield "v2-flip", canonical(encrypted(small, recovery=None, seed="flip")), [ENTER], None)
    for name, file, entered in rows:
        yield name, file if isinstance(file, str) else canonical(file), entered, "limited" in name
    pretty = json.dumps(encrypted(sample(), seed="pretty"), indent=2).replace("/", "\\/")
    yield "v2-both-pretty-escaped-slashes", pretty, [ENTER, KEY], False


def write_all(folder):
    folder.mkdir(parents=True, exist_ok=True)
    index = []
    for name, text, entered, limited in golden():
        (folder / f"{name}.sorvane-backup").write_text(text, encoding="utf-8")
        if limited is not None:
            index.append({"name": name, "entered": entered, "payload": "payload-limited" if limited else "payload"})
    (folder / "golden.json").write_text(json.dumps(index, indent=1) + "\n", encoding="utf-8")
    (folder / "payload.json").write_text(canonical(sample()) + "\n", encoding="utf-8")
    (folder / "payload-limited.json").write_text(canonical({"format": "deployment-policy-v1", "payload": sample(True)}) + "\n",
                                                 encoding="utf-8")
    lines = [json.dumps(case) for case in faults()]
    (folder / "faults.jsonl").write_text("\n".join(lines) + "\n", encoding="utf-8")
    print(len(index), "golden files,", len(lines), "faults")
