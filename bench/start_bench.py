#!/usr/bin/env python3
"""Measures sorvaned: the time from its start to the first answered request, and its private memory when idle.

Usage: bench/start_bench.py BUILD_FOLDER [SECRETS]. Uses a throwaway support folder and the embedded store."""
import json, pathlib, signal, socket, statistics, subprocess, sys, tempfile, time


def ask(folder, request):
    info = json.loads((folder / "agent.json").read_text())
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(info["socketPath"])
        connection.sendall(json.dumps(request | {"token": info["token"]}).encode())
        connection.shutdown(socket.SHUT_WR)
        answer = b""
        while piece := connection.recv(65536):
            answer += piece
    return json.loads(answer)


def start(program, folder):
    """The running program, and the milliseconds until it answered for the first time."""
    began = time.perf_counter()
    running = subprocess.Popen([program, "--support-dir", folder], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while True:
        try:
            if ask(folder, {"op": "listEnvironments"})["ok"]:
                return running, (time.perf_counter() - began) * 1000
        except (OSError, ValueError):
            pass
        if running.poll() is not None:
            sys.exit("sorvaned ended before it answered")
        time.sleep(0.0005)


def stop(running):
    running.send_signal(signal.SIGTERM)
    running.wait()


def private_kilobytes(pid):
    lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return {line.split(":")[0]: int(line.split()[1]) for line in lines if line.startswith("Private_")}


def main():
    program = str(pathlib.Path(sys.argv[1]) / "sorvaned")
    secrets = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    with tempfile.TemporaryDirectory(prefix="sorvane-bench-") as temporary:
        folder = pathlib.Path(temporary) / "support"
        running, _ = start(program, folder)
        for number in range(secrets):
            payload = {"action": "secretAdd", "name": f"SECRET_{number}"}
            answer = ask(folder, {"op": "manageVault", "payload": payload, "value": f"made-up-value-{number}"})
            assert answer["ok"], answer
        stop(running)
        times, memory = [], {}
        for _ in range(20):
            running, milliseconds = start(program, folder)
            times.append(milliseconds)
            time.sleep(0.2)
            memory = private_kilobytes(running.pid)
            stop(running)
    print(f"start to first answer, {secrets} secrets, 20 starts: median {statistics.median(times):.1f} ms, "
          f"worst {max(times):.1f} ms (limit 50 ms)")
    print(f"idle private memory: {sum(memory.values()) / 1024:.1f} MB (limit 15 MB), "
          f"of which dirty {memory['Private_Dirty'] / 1024:.1f} MB")


main()
