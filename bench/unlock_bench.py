#!/usr/bin/env python3
"""Measures the lock: an unlock, from the passphrase sent to the first answered request of an agent, against the bare Argon2id call
of libsodium with the same cost; and a lock with 32 task sessions and 64 connections to the proxy live.

Usage: bench/unlock_bench.py BUILD_FOLDER. Uses a throwaway support folder and the embedded store."""
import ctypes
import ctypes.util
import json
import pathlib
import socket
import statistics
import sys
import tempfile
import time

from opened import PASSPHRASE, Sorvaned

ROUNDS, LOCKS, SESSIONS, CONNECTIONS = 15, 10, 32, 64
MEMORY, ITERATIONS, ARGON2ID = 64 * 1024 * 1024, 3, 2


def milliseconds(work):
    began = time.perf_counter()
    work()
    return (time.perf_counter() - began) * 1000


def bare_derivation():
    sodium = ctypes.CDLL(ctypes.util.find_library("sodium"))
    assert sodium.sodium_init() >= 0
    key, password, salt = ctypes.create_string_buffer(32), PASSPHRASE.encode(), bytes(16)
    derive = sodium.crypto_pwhash
    derive.argtypes = [ctypes.c_char_p, ctypes.c_ulonglong, ctypes.c_char_p, ctypes.c_ulonglong, ctypes.c_char_p, ctypes.c_ulonglong,
                       ctypes.c_size_t, ctypes.c_int]

    def work():
        assert derive(key, 32, password, len(password), salt, ITERATIONS, MEMORY, ARGON2ID) == 0

    return work


def unlock(sorvaned):
    answer = sorvaned.owner("unlock", passphrase=PASSPHRASE)
    assert answer["outcome"] == "done", answer
    sorvaned.until_served()


def furnish(sorvaned):
    """What a lock has to end: sessions with a stand-in for a protected key, and connections to the proxy."""
    for action, payload, value in (
            ("secretAdd", {"name": "OPENAI_API_KEY"}, "sk-proj-bench-made-up-8Jw3xLq5Vz2Rk7Tn"),
            ("environmentAdd", {"name": "bench"}, None),
            ("environmentBind", {"name": "bench", "variable": "OPENAI_API_KEY", "secret": "OPENAI_API_KEY"}, None),
            ("proxyProtect", {"name": "OPENAI_API_KEY"}, None)):
        fields = {"payload": {"action": action, **payload}} | ({"value": value} if value else {})
        answer = sorvaned.ask("manageVault", **fields)
        assert answer["ok"], (action, answer)


def busy(sorvaned):
    for _ in range(SESSIONS):
        answer = sorvaned.ask("beginTaskSession", environment="bench", durationSeconds=3600, payload={"client": "local_proxy_v1"})
        assert answer["ok"], answer
    status = json.loads(sorvaned.ask("manageVault", payload={"action": "proxyStatus"})["document"])
    connections = []
    for _ in range(CONNECTIONS):
        connection = socket.create_connection(("127.0.0.1", status["port"]))
        connection.sendall(b"POST /openai/v1/responses HTTP/1.1\r\n")
        connections.append(connection)
    return connections


def main():
    with tempfile.TemporaryDirectory(prefix="sorvane-bench-") as temporary:
        sorvaned = Sorvaned(sys.argv[1], pathlib.Path(temporary) / "support").open()
        try:
            derive, unlocks, derivations = bare_derivation(), [], []
            derive()
            for _ in range(ROUNDS):
                sorvaned.owner("lock")
                derivations.append(milliseconds(derive))
                unlocks.append(milliseconds(lambda: unlock(sorvaned)))
            furnish(sorvaned)
            locks = []
            for _ in range(LOCKS):
                connections = busy(sorvaned)
                locks.append(milliseconds(lambda: sorvaned.owner("lock")))
                for connection in connections:
                    connection.close()
                unlock(sorvaned)
        finally:
            sorvaned.stop()
    middle = statistics.median
    print(f"unlock to the first answered request, {ROUNDS} rounds: median {middle(unlocks):.1f} ms, the bare derivation "
          f"{middle(derivations):.1f} ms: {middle(unlocks) / middle(derivations):.2f} times (limit 1.2)")
    print(f"lock with {SESSIONS} sessions and {CONNECTIONS} connections to the proxy, {LOCKS} locks: median {middle(locks):.1f} ms, "
          f"worst {max(locks):.1f} ms (limit 50 ms)")


main()
