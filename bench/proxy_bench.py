#!/usr/bin/env python3
"""Measures the local proxy beside nginx as a streaming reverse proxy and a gateway from npm, in turn, over the same TLS provider.

Usage: bench/proxy_bench.py BUILD_FOLDER [ROUNDS]. Every call is a client's new connection; the proxies keep theirs to the provider.
A peer that is not installed is left out and named."""
import json
import os
import pathlib
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "peers"))
sys.dont_write_bytecode = True
from npm import NPM, install  # noqa: E402

KEY = "made-up-openai-3Jd8sMn5PfY6bGq1"
STREAMS, RATE, EVENTS = 64, 200, 1000
NGINX = """
worker_processes auto; daemon off; pid nginx.pid; error_log error.log error;
events {{ worker_connections 1024; }}
http {{
  access_log off; client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path a; uwsgi_temp_path b; scgi_temp_path c;
  upstream provider {{ server 127.0.0.1:{provider}; keepalive 64; }}
  server {{
    listen 127.0.0.1:{port}; client_body_buffer_size 64k; client_max_body_size 32m;
    location /openai/ {{
      proxy_pass https://provider/; proxy_http_version 1.1; proxy_buffering off; proxy_set_header Connection "";
      proxy_set_header Authorization "Bearer {key}"; proxy_set_header Accept-Encoding identity;
      proxy_ssl_verify on; proxy_ssl_trusted_certificate authority.pem; proxy_ssl_name 127.0.0.1; proxy_ssl_session_reuse on;
    }}
  }}
}}
"""


class Party:
    """A program of ours that is told and tells JSON lines."""

    def __init__(self, command):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def heard(self):
        return json.loads(self.process.stdout.readline())

    def ask(self, **command):
        self.process.stdin.write(json.dumps(command) + "\n")
        self.process.stdin.flush()
        return self.heard()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(port, process):
    for _ in range(1000):
        if process.poll() is not None:
            sys.exit(f"{process.args[0]} did not start")
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.01)
    sys.exit(f"{process.args[0]} does not listen")


def family(pid):
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [pid, *(int(child) for child in children)]


def memory(pid):
    """Private and resident kB of a program and its children."""
    sums = {"private": 0, "Rss": 0}
    for each in family(pid):
        for line in pathlib.Path(f"/proc/{each}/smaps_rollup").read_text().splitlines()[1:]:
            name, amount = line.split()[:2]
            if name.startswith("Private_"):
                sums["private"] += int(amount)
            elif name == "Rss:":
                sums["Rss"] += int(amount)
    return sums


class Peak:
    """The most that a program holds while something else runs."""

    def __init__(self, pid):
        self._pid, self._over = pid, threading.Event()
        self.before, self.most = memory(pid), {"private": 0, "Rss": 0}
        self._thread = threading.Thread(target=self._watch)

    def _watch(self):
        while not self._over.wait(0.05):
            now = memory(self._pid)
            self.most = {name: max(self.most[name], now[name]) for name in now}

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self._thread.join()


def request(port, path, key, text, stream, **headers):
    body = json.dumps({"model": "gpt-5.4", "max_completion_tokens": 400, "messages": [{"role": "user", "content": text}],
                       **({"stream": True} if stream else {})})
    named = {"host": f"127.0.0.1:{port}", "accept": "application/json", "content-type": "application/json", "connection": "close",
             "user-agent": "bench", "authorization": f"Bearer {key}", "content-length": len(body), **headers}
    return f"POST {path} HTTP/1.1\r\n" + "".join(f"{name}: {value}\r\n" for name, value in named.items()) + "\r\n" + body


class Peer:
    def __init__(self, name, pid, port, path, key, **headers):
        self.name, self.pid, self.port = name, pid, port
        self.small = request(port, path, key, "Say something small.", False, **headers)
        self.first = request(port, path, key, "events=4 rate=100", True, **headers)
        self.steady = request(port, path, key, f"events={EVENTS} rate={RATE}", True, **headers)


def start_all(build, folder, cleanup):
    stub = Party([build / "proxy_stub_driver"])
    told = stub.heard()
    (folder / "authority.pem").write_text(told["authority"])
    proxy = Party([build / "test_proxy_main"])
    cleanup += [stub.process, proxy.process]
    origin = f"https://127.0.0.1:{told['port']}"
    port = proxy.ask(origins={"openai": origin}, keys={"openai": KEY}, authority=told["authority"], records=False)["port"]
    token = proxy.ask(act="issue", budgetMicros=10**15, requestsPerMinute=10**9, maxConcurrentCalls=1000)["token"]
    peers = [Peer("sorvane", proxy.process.pid, port, "/openai/v1/chat/completions", token)]
    missing = []
    if nginx := shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"):
        port = free_port()
        (folder / "nginx.conf").write_text(NGINX.format(provider=told["port"], port=port, key=KEY))
        process = subprocess.Popen([nginx, "-p", folder, "-c", "nginx.conf", "-e", "error.log"])
        cleanup.append(process)
        wait_for(port, process)
        peers.append(Peer("nginx", process.pid, port, "/openai/v1/chat/completions", KEY))
    else:
        missing.append("nginx")
    if NPM:
        packages = build / "peers" / "gateway"
        install(HERE / "proxy", packages)
        port = free_port()
        process = subprocess.Popen(["node", "node_modules/@portkey-ai/gateway/build/start-server.js", f"--port={port}", "--headless"],
                                   cwd=packages, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env={"PATH": os.environ["PATH"], "NODE_EXTRA_CA_CERTS": str(folder / "authority.pem"),
                                        "NODE_ENV": "production", "TRUSTED_CUSTOM_HOSTS": "127.0.0.1"})
        cleanup.append(process)
        wait_for(port, process)
        peers.append(Peer("npm gateway", process.pid, port, "/v1/chat/completions", KEY,
                          **{"x-portkey-provider": "openai", "x-portkey-custom-host": f"{origin}/v1"}))
    else:
        missing.append("npm gateway")
    return peers, missing


def load(loader, peer, text, clients, calls):
    told = loader.ask(port=peer.port, request=text, clients=clients, calls=calls)
    if told["statuses"] != {"200": calls}:
        sys.exit(f"{peer.name} answered {told['statuses']}")
    return told


def rounds_of(loader, peers, text_of, clients, calls, rounds, what):
    """What each peer took, in turn, the first round left out."""
    taken = {peer.name: [] for peer in peers}
    for turn in range(rounds + 1):
        for peer in peers:
            told = load(loader, peer, text_of(peer), clients, calls)
            if turn > 0:
                taken[peer.name] += what(told)
    return {name: statistics.median(values) for name, values in taken.items()}


def show(title, unit, values, form="{:.0f}"):
    ratio = f"; sorvane/nginx {values['sorvane'] / values['nginx']:.2f}" if "nginx" in values else ""
    if "npm gateway" in values:
        ratio += f", sorvane/npm gateway {values['sorvane'] / values['npm gateway']:.1f}"
    print(f"{title}: " + ", ".join(f"{name} {form.format(value)}" for name, value in values.items()) + f" {unit}{ratio}", flush=True)


def full_house(build, loader, peers):
    """STREAMS streams at once through each peer; beside sorvane's, one connection more."""
    for peer in peers:
        with Peak(peer.pid) as peak:
            extra = {}

            def one_more():
                with Party([build / "proxy_load_driver"]).process as process:
                    time.sleep(EVENTS / RATE / 2)
                    question = json.dumps({"port": peer.port, "request": peer.small, "clients": 1, "calls": 1})
                    extra.update(json.loads(process.communicate(question + "\n")[0]))

            thread = threading.Thread(target=one_more)
            thread.start()
            told = load(loader, peer, peer.steady, STREAMS, STREAMS)
            thread.join()
        held = sorted(told["held"])
        print(f"{STREAMS} streams of {RATE} events a second, {peer.name}: {len(held)} events held {held[len(held) // 2] / 1000:.2f} ms at the "
              f"median, {held[len(held) * 99 // 100] / 1000:.2f} at the 99th, {held[-1] / 1000:.1f} at most; "
              f"resident {peak.most['Rss']} kB, private {peak.most['private']} kB; one more was answered {extra['statuses']}", flush=True)


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 15
    cleanup = []
    with tempfile.TemporaryDirectory(prefix="sorvane-proxy-") as temporary:
        folder = pathlib.Path(temporary)
        try:
            peers, missing = start_all(build, folder, cleanup)
            loader = Party([build / "proxy_load_driver"])
            cleanup.append(loader.process)
            added = {}
            for peer in peers:  # what a first full load adds to each
                load(loader, peer, peer.small, 1, 1)
                with Peak(peer.pid) as peak:
                    load(loader, peer, peer.small, 16, 3000)
                added[peer.name] = peak.most["private"] - peak.before["private"]
            show("private memory added by 16 clients, 3,000 calls", "kB", added)
            show("small call, 1 client, median", "µs",
                 rounds_of(loader, peers, lambda p: p.small, 1, 200, rounds, lambda told: told["whole"]))
            show("first streamed byte, 1 client, median", "µs",
                 rounds_of(loader, peers, lambda p: p.first, 1, 20, rounds, lambda told: told["first"]))
            show("16 clients, calls a second, median of rounds", "a second",
                 rounds_of(loader, peers, lambda p: p.small, 16, 1600, rounds, lambda told: [1600 / told["seconds"]]))
            full_house(build, loader, peers)
            if missing:
                print("not installed: " + ", ".join(missing))
        finally:
            for process in cleanup:
                process.send_signal(signal.SIGTERM)
            for process in cleanup:
                process.wait(timeout=20)


main()
