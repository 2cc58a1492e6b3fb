"""Installs the packages of others that a test of tests/peers runs, at the versions that its lock file pins."""
import hashlib
import shutil
import subprocess
import unittest

NPM = shutil.which("npm")
UNREACHABLE = ("ENOTFOUND", "EAI_AGAIN", "ECONNREFUSED", "ECONNRESET", "ETIMEDOUT", "ENETUNREACH", "E403", "E404", "E50")
PINNED = ("package.json", "package-lock.json")


def install(source, target):
    """Puts the packages that `source` pins into `target`, once per lock file, and its scripts beside them. Raises SkipTest when
    the registry cannot be reached."""
    digest = hashlib.sha256(b"".join((source / name).read_bytes() for name in PINNED)).hexdigest()
    mark = target / "installed"
    if not mark.is_file() or mark.read_text() != digest:
        shutil.rmtree(target, ignore_errors=True)
        target.mkdir(parents=True)
        for name in (*PINNED, ".npmrc"):
            shutil.copy2(source / name, target)
        done = subprocess.run([NPM, "ci"], cwd=target, capture_output=True, text=True, timeout=400)
        if done.returncode != 0 and any(word in done.stderr for word in UNREACHABLE):
            raise unittest.SkipTest("the registry of npm's packages cannot be reached: " + done.stderr[-400:])
        if done.returncode != 0:
            raise RuntimeError("npm ci failed:\n" + done.stderr[-4000:])
        mark.write_text(digest)
    for script in source.glob("*.mjs"):
        shutil.copy2(script, target)
