#!/usr/bin/env python3
"""Measures sorvaned: the time from its start to its first answer, and its private memory with the vault open and idle.

Usage: bench/start_bench.py BUILD_FOLDER [SECRETS]. Uses a throwaway support folder and the embedded store."""
import pathlib, statistics, sys, tempfile, time

from opened import Sorvaned


def start(build, folder):
    """The running program, and the milliseconds until it answered for the first time, with its vault locked still."""
    began = time.perf_counter()
    running = Sorvaned(build, folder)
    while True:
        try:
            running.owner("status")
            return running, (time.perf_counter() - began) * 1000
        except OSError:
            time.sleep(0.0005)


def private_kilobytes(pid):
    lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return {line.split(":")[0]: int(line.split()[1]) for line in lines if line.startswith("Private_")}


def main():
    build = sys.argv[1]
    secrets = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    with tempfile.TemporaryDirectory(prefix="sorvane-bench-") as temporary:
        folder = pathlib.Path(temporary) / "support"
        running = Sorvaned(build, folder).open()
        for number in range(secrets):
            payload = {"action": "secretAdd", "name": f"SECRET_{number}"}
            answer = running.ask("manageVault", payload=payload, value=f"made-up-value-{number}")
            assert answer["ok"], answer
        running.stop()
        times, memory = [], {}
        for _ in range(20):
            running, milliseconds = start(build, folder)
            times.append(milliseconds)
            running.open()
            time.sleep(0.2)
            memory = private_kilobytes(running.pid)
            running.stop()
    print(f"start to the first answer, {secrets} secrets, 20 starts: median {statistics.median(times):.1f} ms, "
          f"worst {max(times):.1f} ms (limit 50 ms)")
    print(f"idle private memory with the vault open: {sum(memory.values()) / 1024:.1f} MB (limit 15 MB), "
          f"of which dirty {memory['Private_Dirty'] / 1024:.1f} MB")


main()
