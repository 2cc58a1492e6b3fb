#!/usr/bin/env python3
"""Measures whole commands: `sorvane run` of `true` with 20 variables, against `env … true` and a wrapper from npm that reads .env
files, in turn. The owner's answer is typed at once by this program on sorvaned's terminal, and its time counts.

Usage: bench/run_bench.py BUILD_FOLDER"""
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from opened import Sorvaned

build = pathlib.Path(sys.argv[1]).resolve()
folder = pathlib.Path(tempfile.mkdtemp(prefix="sorvane-bench-"))
environment = {"PATH": os.environ["PATH"], "HOME": str(folder), "TERM": "dumb"}
sorvaned = Sorvaned(build, folder / "s").open()


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
sorvaned.stop()
shutil.rmtree(folder)
