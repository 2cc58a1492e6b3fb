#!/usr/bin/env python3
"""Measures `sorvane mcp`: the time from its start to the first answer of tools/list, and a call of list_environments beside
the bare exchange on sorvaned's socket, taken in turn by the same Python client.

Usage: bench/mcp_bench.py BUILD_FOLDER. Uses a throwaway support folder and the embedded store."""
import json, os, pathlib, statistics, subprocess, sys, tempfile, time

from opened import Sorvaned, exchange

STARTS, WARM, CALLS = 40, 200, 3000
LIST = b'{"jsonrpc":"2.0","id":1,"method":"tools/list"}\n'
CALL = b'{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_environments","arguments":{}}}\n'


def milliseconds(work):
    began = time.perf_counter()
    work()
    return (time.perf_counter() - began) * 1000


def bare(info, request):
    return exchange(info["socketPath"], request)


def ask(running, line):
    os.write(running.stdin.fileno(), line)
    answer = b""
    while not answer.endswith(b"\n"):
        answer += os.read(running.stdout.fileno(), 65536)
    return json.loads(answer)["result"]


def serve(program, folder, token):
    return subprocess.Popen([program, "mcp", "--support-dir", folder], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
                            env={"SORVANE_MCP_TOKEN": token})


def end(running):
    running.stdin.close()
    assert running.wait() == 0


def first_answer(program, folder, token):
    running = []

    def work():
        running.append(serve(program, folder, token))
        assert len(ask(running[0], LIST)["tools"]) > 10

    taken = milliseconds(work)
    end(running[0])
    return taken


def main():
    build = pathlib.Path(sys.argv[1])
    program = str(build / "sorvane")
    with tempfile.TemporaryDirectory(prefix="sorvane-bench-") as temporary:
        folder = pathlib.Path(temporary) / "support"
        sorvaned = Sorvaned(build, folder).open()
        info = sorvaned.endpoint()
        request = json.dumps({"token": info["token"], "op": "listEnvironments"}).encode()
        for number in range(10):
            payload = {"action": "environmentAdd", "name": f"Environment {number}"}
            assert bare(info, json.dumps({"token": info["token"], "op": "manageVault", "payload": payload}).encode())["ok"]
        floors, starts = [], []
        for _ in range(STARTS):  # a program that does nothing shows what of the time is the start of any
            floors.append(milliseconds(lambda: subprocess.run(["/bin/true"], check=True)))
            starts.append(first_answer(program, folder, info["token"]))
        running = serve(program, folder, info["token"])
        exchanges, calls = [], []
        for _ in range(WARM + CALLS):
            exchanges.append(milliseconds(lambda: bare(info, request)))
            calls.append(milliseconds(lambda: ask(running, CALL)))
        assert len(ask(running, CALL)["structuredContent"]["environments"]) == 10
        end(running)
        sorvaned.stop()
    middle = statistics.median
    print(f"start to the first tools/list answer, {STARTS} starts: median {middle(starts):.2f} ms, worst {max(starts):.2f} ms "
          f"(limit 30 ms); /bin/true takes {middle(floors):.2f} ms")
    call, exchange = middle(calls[WARM:]), middle(exchanges[WARM:])
    print(f"list_environments, {CALLS} calls: {call * 1000:.0f} µs, the bare exchange {exchange * 1000:.0f} µs: "
          f"{call / exchange:.2f} times (limit 3)")


main()
