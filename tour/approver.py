#!/usr/bin/env python3
"""approver.py COMMAND...: runs sorvaned on a pseudo-terminal and answers its questions there as the owner would.

First it sets the passphrase that a new vault is offered. Then one JSON object a line. Read from standard input: {"expect":
[word, ...]}, what the next question must hold to be answered yes. Written to standard output: {"ready": true} once the vault is
open; {"question": text, "answer": "yes" or "no"}; at the end {"ended": status, "shown": all text}. A question that nobody
announced, or that holds something else, is answered with Enter, which means no.
It belongs to the tour alone: it is not installed, and sorvaned cannot tell it from a person.
"""
import json
import os
import pathlib
import queue
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "support"))
from terminal import QUESTION, Terminal, Timeout  # noqa: E402


PASSPHRASE = "a throwaway passphrase"


def say(message):
    print(json.dumps(message), flush=True)


def main():
    expected = queue.Queue()
    finished = threading.Event()

    def listen():
        for line in sys.stdin:
            expected.put(json.loads(line)["expect"])
        finished.set()

    owner = Terminal(sys.argv[1:], dict(os.environ))
    threading.Thread(target=listen, daemon=True).start()
    for prompt in ("New passphrase[^:\n]*: ", "The same again: "):
        owner.wait_for(prompt)
        owner.type(PASSPHRASE + "\n")
    owner.wait_for(r"\[app\] the vault is open")
    say({"ready": True})
    while not finished.is_set() and not owner.ended():
        try:
            question = owner.wait_for(QUESTION, 0.2)
        except Timeout:
            continue
        words = expected.get_nowait() if not expected.empty() else None
        yes = words is not None and all(word in question for word in words)
        owner.type("y\n" if yes else "\n")
        say({"question": question, "answer": "yes" if yes else "no"})
    say({"ended": owner.end(), "shown": owner.text()})


if __name__ == "__main__":
    main()
