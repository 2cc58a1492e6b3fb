#!/usr/bin/env python3
"""Measures whole commands: `sorvane run` of `true` with 20 variables, against `env … true` and a wrapper from npm that reads .env
files, in turn. The owner's answer is typed at once by this program on sorvaned's terminal, and its time counts.

Usage: bench/run_bench.py BUILD_FOLDER"""
import os
import pathlib
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

build = pathlib.Path(sys.argv[1]).resolve()
folder = pathlib.Path(tempfile.mkdtemp(prefix="sorvane-bench-"))
environment = {"PATH": os.environ["PATH"], "HOME": str(folder), "TERM": "dumb"}
pid, terminal = os.forkpty()
if pid == 0:
    os.execve(build / "sorvaned", ["sorvaned", "--support-dir", str(folder / "s")], environment)
ready = threading.Event()


def answer():
    shown = b""
    while True:
        try:
            shown = (shown + os.read(terminal, 4096))[-4096:]
        except OSError:
            return
        if b"ready" in shown:
            ready.set()
        if shown.endswith(b"[y/N] "):
            shown = b""
            os.write(terminal, b"y\n")


threading.Thread(target=answer, daemon=True).start()
ready.wait(20)


def sorvane(*words, value=""):
    subprocess.run([build / "sorvane", *words[:2], "--support-dir", folder / "s", *words[2:]], input=value, text=True, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment)


values = {f"VARIABLE_{i}": f"made-up-value-{i}-of-some-length" for i in range(20)}
sorvane("env", "create", "Bench")
for name, value in values.items():
    sorvane("secret", "add", name, value=value)
    sorvane("env", "bind", "Bench", name, name)

commands = {
    "env … true": ["env", *(f"{n}={v}" for n, v in values.items()), "true"],
    "sorvane run": [str(build / "sorvane"), "run", "Bench", "--support-dir", str(folder / "s"), "--directory", "/", "--", "true"],
}
if shutil.which("npm"):
    (folder / "package.json").write_text("{}")
    installed = subprocess.run(["npm", "install", "--silent", "dotenv-cli"], cwd=folder, env=environment, capture_output=True)
    if installed.returncode == 0:
        (folder / ".env").write_text("".join(f"{n}={v}\n" for n, v in values.items()))
        commands["npm dotenv-cli"] = [str(folder / "node_modules/.bin/dotenv"), "-e", str(folder / ".env"), "--", "true"]

times = {name: [] for name in commands}
for _ in range(60):
    for name, command in commands.items():
        start = time.perf_counter()
        subprocess.run(command, check=True, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        times[name].append((time.perf_counter() - start) * 1000)
floor = statistics.median(times["env … true"])
for name, taken in times.items():
    print(f"{name:16} {statistics.median(taken):8.2f} ms   {statistics.median(taken) / floor:5.2f} times env")
os.kill(pid, signal.SIGTERM)
os.waitpid(pid, 0)
shutil.rmtree(folder)
