#!/usr/bin/env python3
"""Official clients of model providers through the local proxy, compared with the same clients straight at the provider.

The providers are a stub that keeps its own account of what its answers cost. Installs the clients, at the versions that
proxy/package-lock.json pins, into the folder of the build. Exits 77 when npm is missing."""
import base64
import http.client
import json
import os
import pathlib
import re
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE / "proxy")]
sys.dont_write_bytecode = True
from npm import NPM, install  # noqa: E402
from stage import BASES, Stage  # noqa: E402

PROGRAMS = pathlib.Path(os.environ.get("SORVANE_PROGRAMS", "build/dev-release")).resolve()
INSTALLED = PROGRAMS / "peers" / "proxy"
CENT = 10_000
CLAUDES = ("anthropic", "anthropic-before")
# What may reach a provider. Nothing else of the client's does, whatever it sent.
PASSED = {"host", "user-agent", "accept", "accept-encoding", "content-type", "content-length", "anthropic-version", "anthropic-beta",
          "idempotency-key", "x-client-request-id", ":method", ":path", ":scheme", ":authority"}
# The scenes that fail, and the class that each client has for it: the newest of Anthropic's has more of them than the others.
ERRORS = {"bad": "BadRequestError", "unauthorized": "AuthenticationError", "unpaid": "APIError", "forbidden": "PermissionDeniedError",
          "missing": "NotFoundError", "large": "APIError", "unprocessable": "UnprocessableEntityError", "busy": "RateLimitError",
          "broken": "InternalServerError", "crowded": "InternalServerError"}
NEWER = {402: "PaymentRequiredError", 413: "ContentTooLargeError", 504: "GatewayTimeoutError", 529: "OverloadedError"}


def not_thinking(kind):
    """Where a model may think unseen, a broken stream costs its whole maximum, and the stub's account would not know."""
    return {"thinking": {"type": "disabled"}} if kind in CLAUDES else {}


def ends_of(kind, record):
    """The package of OpenAI hangs up at "[DONE]", which may be before the provider ends its stream."""
    return ("completed", "clientAborted") if kind in ("openai", "openrouter") and record["streamed"] else ("completed",)


def class_of(kind, status, usual):
    return NEWER.get(status, usual) if kind == "anthropic" else usual


def anthropic(text, **more):
    return {"model": "claude-sonnet-5", "max_tokens": 400, "messages": [{"role": "user", "content": text}], **more}


def chat(text, **more):
    return {"model": "gpt-5.4", "max_completion_tokens": 400, "messages": [{"role": "user", "content": text}], **more}


def routed(text, **more):
    return {"model": "deepseek/deepseek-v4-pro", "max_tokens": 400, "messages": [{"role": "user", "content": text}], **more}


def responses(text, **more):
    return {"model": "gpt-5.1", "max_output_tokens": 400, "input": text, **more}


TOOL = {"name": "weather", "description": "The weather of a city", "input_schema": {"type": "object", "properties": {}}}
FUNCTION = {"type": "function", "function": {"name": "weather", "parameters": {"type": "object", "properties": {}}}}
FLAT_FUNCTION = {"type": "function", "name": "weather", "parameters": {"type": "object", "properties": {}}, "strict": False}
USAGE = {"stream_options": {"include_usage": True}}


def kinds_of_calls():
    """Every kind of call that is to succeed: client, act, scene and the body for a text."""
    for kind in CLAUDES:
        for act, stream in (("messages", {}), ("messages", {"stream": True}), ("message", {})):
            for scene in ("plain", "tool", "thinking", "split", "slow", "big"):
                yield kind, act, scene, lambda text, s=stream: anthropic(text, tools=[TOOL], **s)
        yield kind, "beta", "plain", lambda text: anthropic(text, betas=["made-up-2026-01-01", "other-2026-01-02"])
        # Long enough for the dearer of the model's two prices.
        yield kind, "messages", "tier", lambda text: anthropic(text + " x" * 60_000, model="claude-haiku-5-5")
    for scene in ("plain", "tool", "split", "slow", "big"):
        for stream in ({}, {"stream": True}, {"stream": True, **USAGE}):
            yield "openai", "chat", scene, lambda text, s=stream: chat(text, tools=[FUNCTION], **s)
            yield "openrouter", "chat", scene, lambda text, s=stream: routed(text, tools=[FUNCTION], **s)
        yield "openai", "chatHelper", scene, lambda text: chat(text, stream=True)
    yield "openai", "chat", "plain", lambda text: chat(text, model="gpt-6-sol")
    yield "openrouter", "chat", "byok", lambda text: routed(text, stream=True)
    for scene in ("plain", "tool"):
        for stream in ({}, {"stream": True}):
            yield "openai", "responses", scene, lambda text, s=stream: responses(text, tools=[FLAT_FUNCTION], **s)
    for more in ({}, {"encoding_format": "float"}, {"input": ["one", "two"]}):
        yield "openai", "embeddings", "plain", lambda text, m=more: {"model": "text-embedding-3-small", "input": text, **m}


BODIES = {"anthropic": ("messages", anthropic), "anthropic-before": ("messages", anthropic), "openai": ("chat", chat),
          "openrouter": ("chat", routed)}


@unittest.skipUnless(NPM, "npm is missing, which installs the official clients")
class OfficialClients(unittest.TestCase):
    PROTOCOL = "h2"

    @classmethod
    def setUpClass(cls):
        install(HERE / "proxy", INSTALLED)
        folder = tempfile.TemporaryDirectory(prefix="sorvane-peers-")
        cls.addClassCleanup(folder.cleanup)
        cls.stage = Stage(pathlib.Path(folder.name), INSTALLED, PROGRAMS / "test_proxy_main", cls.PROTOCOL)
        for party in cls.stage.parties:
            cls.addClassCleanup(party.kill)
        cls.texts = 0

    def setUp(self):
        self.stage.provider_saw(0), self.records(0)  # what a test that failed left
        self.grants = []
        self.key = self.issue()

    def issue(self, **limits):
        grant = self.stage.proxy.ask(act="issue", **limits)
        self.grants.append(grant)
        return grant["token"]

    def text(self, scene):
        type(self).texts += 1
        return f"scene {scene} number {self.texts}"

    def spend(self):
        return [self.stage.proxy.ask(act="spend", lookupId=grant["lookupId"]) for grant in self.grants]

    def records(self, count):
        return self.stage.proxy.ask(act="records", count=count)["records"]

    def both(self, kind, act, body, attempts=1, **more):
        """The same call straight at the provider and through the proxy: it must come out the same. What it came out as."""
        self.stage.provider_saw(0), self.records(0)  # what a call that failed left
        twin = json.loads(json.dumps(body).replace("number", "direct"))  # a request of its own to the stub, as long
        direct = self.stage.call(kind, act, twin, **more)
        self.assertEqual(len(self.stage.provider_saw(attempts)), attempts)
        proxied = self.stage.call(kind, act, body, key=self.key, **more)
        if "error" not in proxied and kind == "openai" and act.startswith("chat") and body.get("stream") and "stream_options" not in body:
            # That usage was asked for shows in every event: as null, which means none.
            for told in proxied.get("events") or [proxied["result"]]:
                self.assertIsNone(told.pop("usage", None))
        self.assertEqual(direct, proxied)
        return proxied

    def settled(self, count=1):
        """The providers' bills and the proxy's records of the last calls, which must agree in every one."""
        billed, records = self.stage.provider_saw(count), self.records(count)
        self.assertEqual((len(billed), len(records)), (count, count))
        for call, record in zip(billed, records):
            self.assertTrue(call["keyIsReal"])
            self.assertEqual(call["version"], "2.0" if self.PROTOCOL == "h2" else "1.1")
            self.assertEqual(set(call["headers"]) - PASSED, set())
            self.assertRegex(call["headers"]["user-agent"], r"^sorvane-local-proxy/\d")
            self.assertEqual(record["provider"], call["provider"])
        return billed, records

    def test_answers_and_events_are_the_providers_own_and_cost_what_it_bills(self):
        bill = 0
        for kind, act, scene, body in kinds_of_calls():
            with self.subTest(kind=kind, act=act, scene=scene):
                outcome = self.both(kind, act, body(self.text(scene)))
                self.assertNotIn("error", outcome)
                [call], [record] = self.settled()
                bill += int(call["charged"])
                self.assertGreater(int(call["charged"]), 0)
                self.assertIn(record["outcome"], ends_of(kind, record))
                self.assertEqual(record["status"], 200)
                self.assertEqual(record["chargedMicros"], int(call["charged"]))
                self.assertLessEqual(record["chargedMicros"], record["reservedMicros"])
                self.assertFalse(record["discrepancy"])
        [spent] = self.spend()
        self.assertEqual((spent["spentMicros"], spent["reservedMicros"]), (bill, 0))
        self.assertEqual(spent["calls"], len(list(kinds_of_calls())))

    def test_each_error_has_the_class_that_the_client_gives_it(self):
        for kind, (act, body) in BODIES.items():
            for scene, name in ERRORS.items():
                for stream in (False, True):
                    with self.subTest(kind=kind, scene=scene, stream=stream):
                        outcome = self.both(kind, act, body(self.text(scene), stream=stream))
                        self.assertEqual(outcome["error"]["class"], class_of(kind, outcome["error"]["status"], name))
                        self.assertRegex(outcome["error"]["requestId"], f"^req_{scene}_1$")
                        [call], [record] = self.settled()
                        self.assertEqual((record["outcome"], record["chargedMicros"]), ("completed", 0))
                        self.assertEqual(record["status"], outcome["error"]["status"])
                        if scene == "busy":
                            self.assertEqual(outcome["exchanges"][0]["headers"]["retry-after"], "7")
        self.assertEqual(self.spend()[0]["spentMicros"], 0)

    def test_clients_try_again_as_the_provider_asks(self):
        for kind, (act, body) in BODIES.items():
            for scene, statuses in (("flaky", [500, 500, 200]), ("limited", [429, 200]), ("conflict", [409, 200])):
                with self.subTest(kind=kind, scene=scene):
                    outcome = self.both(kind, act, body(self.text(scene)), attempts=len(statuses), options={"maxRetries": 2})
                    self.assertEqual([exchange["status"] for exchange in outcome["exchanges"]], statuses)
                    billed, records = self.settled(len(statuses))
                    self.assertEqual([int(call["charged"]) for call in billed], [r["chargedMicros"] for r in records])
                    self.assertEqual([call["attempt"] for call in billed], list(range(1, len(statuses) + 1)))

    def test_a_client_that_goes_away_pays_for_what_it_saw(self):
        for kind, (act, body) in BODIES.items():
            with self.subTest(kind=kind, what="aborts a stream"):
                text = self.text("hang")
                # The last that the stub sends; the clients keep pings and comments to themselves.
                last = 9 if kind == "openai" else 8
                outcome = self.both(kind, act, body(text, stream=True, **not_thinking(kind)), abortAfter=last)
                self.assertEqual(len(outcome["events"]), last)
                [call], [record] = self.settled()
                self.assertEqual((call["whole"], record["outcome"]), (False, "clientAborted"))
                self.assertPartCharged(call, record)
            with self.subTest(kind=kind, what="aborts before an answer"):
                number = self.stage.begin(kind, act, body(self.text("silent")), key=self.key, abortAfter=0)
                self.stage.stub.ask(act="asked", count=1)
                self.stage.client.tell(act="abort", id=number)
                self.assertEqual(self.stage.end(number)["error"]["class"], "APIUserAbortError")
                [call], [record] = self.settled()
                self.assertEqual((record["outcome"], record["chargedMicros"]), ("clientAborted", record["reservedMicros"]))
            with self.subTest(kind=kind, what="has waited long enough"):
                outcome = self.stage.call(kind, act, body(self.text("silent")), key=self.key, options={"timeout": 4000})
                self.assertEqual(outcome["error"]["class"], "APIConnectionTimeoutError")
                [call], [record] = self.settled()
                self.assertEqual(record["outcome"], "clientAborted")
        self.assertEqual(self.spend()[0]["reservedMicros"], 0)

    def assertPartCharged(self, call, record):
        """A provider that tells its input first gets that to the micro, and for output the bytes that went on: those of its text
        at least, those of its events at most. The others' streams tell nothing until their end."""
        if call["provider"] == "anthropic":
            self.assertTrue(int(call["charged"]) <= record["chargedMicros"] <= int(call["atMost"]), (record, call["charged"], call["atMost"]))
        else:
            self.assertTrue(0 < record["chargedMicros"] <= record["reservedMicros"], record)

    def test_an_answer_that_breaks_off_is_seen_as_broken(self):
        for kind, (act, body) in BODIES.items():
            for scene in ("cut", "overloaded"):
                with self.subTest(kind=kind, scene=scene):
                    outcome = self.stage.call(kind, act, body(self.text(scene), stream=True, **not_thinking(kind)), key=self.key)
                    self.assertIn("error", outcome)
                    self.assertGreater(len(outcome["events"]), 3)
                    [call], [record] = self.settled()
                    self.assertPartCharged(call, record)
                    # A client that is told of an error hangs up, which may be before the provider ends its stream.
                    self.assertIn(record["outcome"], ("failed",) if scene == "cut" else ("completed", "clientAborted"))
            with self.subTest(kind=kind, scene="cut, not streamed"):
                outcome = self.stage.call(kind, act, body(self.text("cut")), key=self.key)
                self.assertIn("error", outcome)
                [call], [record] = self.settled()
                self.assertEqual((record["outcome"], record["chargedMicros"]), ("failed", record["reservedMicros"]))

    def refused(self, name, status, kind="openai", act=None, body=None, key=None, **more):
        """A call that the proxy itself refuses, in the client's own class. Nothing reached a provider."""
        usual, make = BODIES[kind]
        outcome = self.stage.call(kind, act or usual, body or make(self.text("plain")), key=key or self.key, **more)
        self.assertEqual((outcome["error"]["class"], outcome["error"].get("status")), (class_of(kind, status, name), status), outcome)
        self.assertEqual(self.stage.stub.ask(act="asked", count=0), {"asked": 0})
        return outcome

    def test_the_proxys_own_refusals_have_the_clients_classes(self):
        for kind in BODIES:
            with self.subTest(kind):
                act, body = BODIES[kind]
                provider = BASES[kind][0]
                stranger = self.key[:-1] + ("a" if self.key[-1] != "a" else "b")
                self.refused("AuthenticationError", 401, kind, key=stranger)
                others = [name for name in self.stage.keys if name != provider]
                self.refused("PermissionDeniedError", 403, kind, key=self.issue(providers=others))
                self.refused("PermissionDeniedError", 403, kind, key=self.issue(models={provider: ["another-model"]}))
                outcome = self.refused("APIError", 402, kind, key=self.issue(budgetMicros=1), options={"maxRetries": 2})
                self.assertEqual(len(outcome["exchanges"]), 1)
                self.assertIn("Nothing was sent.", outcome["error"]["message"])
                self.refused("RateLimitError", 429, kind, key=self.issue(requestsPerMinute=0))
                self.refused("APIError", 413, kind, key=self.issue(maxBodyBytes=1024), body=body("scene plain" + " x" * 600))
                self.refused("BadRequestError", 400, kind, body=body("scene plain") | {"model": "a-model-without-a-price"})
                ended = self.issue()
                self.stage.proxy.ask(act="end", lookupId=self.grants[-1]["lookupId"])
                self.refused("AuthenticationError", 401, kind, key=ended)
        self.refused("NotFoundError", 404, "openai", act="models")

    def test_a_call_over_the_rate_is_told_when_to_come_again(self):
        for kind, (act, body) in BODIES.items():
            key = self.issue(requestsPerMinute=1)
            self.assertIn("result", self.stage.call(kind, act, body(self.text("plain")), key=key))
            self.settled()
            outcome = self.refused("RateLimitError", 429, kind, key=key)
            self.assertTrue(1 <= int(outcome["exchanges"][0]["headers"]["retry-after"]) <= 60, outcome)

    def test_a_grant_that_ends_or_a_call_that_takes_too_long_is_cut(self):
        for kind, (act, body) in BODIES.items():
            with self.subTest(kind):
                key = self.issue()
                number = self.stage.begin(kind, act, body(self.text("hang"), stream=True), key=key)
                self.stage.stub.ask(act="asked", count=1)
                self.stage.proxy.ask(act="end", lookupId=self.grants[-1]["lookupId"])
                self.assertIn("error", self.stage.end(number))
                self.assertEqual(self.settled()[1][0]["outcome"], "cut")
                key = self.issue(callTimeoutSeconds=4)
                outcome = self.stage.call(kind, act, body(self.text("silent")), key=key)
                self.assertEqual((outcome["error"]["class"], outcome["error"]["status"]),
                                 (class_of(kind, 504, "InternalServerError"), 504))
                [record] = self.settled()[1]
                self.assertEqual((record["outcome"], record["chargedMicros"]), ("timedOut", record["reservedMicros"]))

    def test_a_provider_that_reports_more_than_was_reserved_stops_the_grant(self):
        for kind in CLAUDES:
            key = self.issue(budgetMicros=100 * CENT)
            self.assertIn("result", self.stage.call(kind, "messages", anthropic(self.text("greedy")), key=key))
            [call], [record] = self.settled()
            self.assertEqual((record["discrepancy"], record["chargedMicros"]), (True, int(call["charged"])))
            outcome = self.refused("APIError", 402, kind, key=key)
            self.assertIn("spend limit is reached", outcome["error"]["message"])

    def test_the_real_key_never_comes_back(self):
        for kind, (act, body) in BODIES.items():
            for stream in (False, True):
                with self.subTest(kind=kind, stream=stream):
                    outcome = self.stage.call(kind, act, body(self.text("echo"), stream=stream), key=self.key)
                    self.assertNotIn("error", outcome)
                    self.assertIn("You", json.dumps(outcome))
                    self.assertNotIn(self.stage.keys[BASES[kind][0]], json.dumps(outcome))
                    self.settled()

    def raw(self, kind, body, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.stage.port, timeout=60)
        path = BASES[kind][1] + {"messages": "/v1/messages", "chat": "/chat/completions"}[BODIES[kind][0]]
        connection.request("POST", path, json.dumps(body),
                           {"content-type": "application/json", "authorization": f"Bearer {self.key}", **headers})
        answer = connection.getresponse()
        self.addCleanup(connection.close)
        return answer, answer.read()

    def test_what_a_page_in_a_browser_sends_is_refused(self):
        for kind, (_, body) in BODIES.items():
            for marks in ({"origin": "null"}, {"user-agent": "a program", "sec-fetch-mode": "cors", "sec-fetch-site": "cross-site"}):
                answer, said = self.raw(kind, body("scene plain"), **marks)
                self.assertEqual((answer.status, b"does not answer browser requests" in said), (403, True))
        self.assertEqual(self.stage.stub.ask(act="asked", count=0), {"asked": 0})

    def test_bytes_are_the_providers_but_for_the_usage_that_the_proxy_asked_for(self):
        for kind, (_, body) in BODIES.items():
            for scene in ("plain", "tool", "split", "big", "thinking"):
                for more in ({}, {"stream": True}, {"stream": True, **USAGE}):
                    if scene == "thinking" and kind not in CLAUDES or more.keys() > {"stream"} and kind != "openai":
                        continue
                    with self.subTest(kind=kind, scene=scene, **more):
                        answer, got = self.raw(kind, body(self.text(scene), **more))
                        [call], _ = self.settled()
                        sent = base64.b64decode(call["sent"])
                        if kind == "openai" and more == {"stream": True}:  # the event asked for, and what asking adds to the others
                            sent = re.sub(rb'data: [^\n]*"choices":\[\],[^\n]*\n\n', b"", sent)
                        self.assertEqual(got, sent)
                        if more:
                            self.assertEqual(answer.headers["content-type"], "text/event-stream; charset=utf-8")
                        self.assertIsNone(answer.headers["set-cookie"])
                        self.assertRegex(answer.headers["x-sorvane-request-id"], r"^[A-Za-z0-9_-]+$")


def main():
    loader = unittest.defaultTestLoader
    chosen = [f"OfficialClients.{name}" for name in sys.argv[1:]] or ["OfficialClients"]
    result = unittest.TextTestRunner(verbosity=2).run(loader.loadTestsFromNames(chosen, sys.modules[__name__]))
    if not result.wasSuccessful():
        return 1
    if result.skipped:
        return 77
    return 0 if result.testsRun else 1


if __name__ == "__main__":
    sys.exit(main())
