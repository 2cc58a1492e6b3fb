// stub.mjs KEY CERTIFICATE PROTOCOL: three providers of model APIs over TLS, with "h2" over HTTP/2 for those that offer it and over
// HTTP/1.1 for others, else over HTTP/1.1 alone. Each has a port of its own. Prints the
// ports as one JSON line. Commands come as JSON lines: {"act":"calls","count":n} waits for n calls that ended and tells what was
// asked and billed; {"act":"asked","count":n} waits until n calls are being answered.
import { readFileSync } from "node:fs";
import { createSecureServer, constants } from "node:http2";
import { createServer } from "node:https";
import { createInterface } from "node:readline";
import { charge } from "./account.mjs";
import * as scenes from "./scenes.mjs";

const [keyFile, certificateFile, newest] = process.argv.slice(2);
const say = (message) => process.stdout.write(JSON.stringify(message) + "\n");
const KEYS = { anthropic: "made-up-anthropic-7Qh2vLx9TzR4wKc8", openai: "made-up-openai-3Jd8sMn5PfY6bGq1",
  openrouter: "made-up-openrouter-9Wk4tZv2HxE7uCa5" };
const attempts = new Map();
let calls = [];
let asked = 0; // calls that came and have not ended
let waiting = []; // commands that wait for a call to come or to end

function underway(step) {
  asked += step;
  const told = waiting;
  waiting = [];
  told.forEach((tell) => tell());
}

function lastText(body) {
  const content = typeof body.input === "string" ? body.input : (body.input ?? body.messages).at(-1);
  const text = typeof content === "string" ? content : content.content;
  return typeof text === "string" ? text : text.at(-1).text;
}
const frame = ({ event, data, done, comment }) => comment ? `: ${comment}\n\n`
  : `${event ? `event: ${event}\n` : ""}data: ${done ?? JSON.stringify(data)}\n\n`;

function keyOf(headers) {
  return headers["x-api-key"] ?? (headers.authorization ?? "").replace(/^Bearer /, "");
}

/** The plain answer, the events of the same answer, and what both report as used. */
function answerOf(provider, path, body, scene, id, key) {
  if (path.endsWith("/embeddings")) {
    const whole = scenes.embeddings(body.model, [body.input].flat(), body.encoding_format);
    return { whole, usage: whole.usage };
  }
  if (path.endsWith("/messages")) {
    const whole = scenes.anthropicMessage(scene, id, body.model, key);
    return { whole, events: scenes.anthropicEvents(whole), usage: whole.usage };
  }
  if (path.endsWith("/responses")) {
    const whole = scenes.responseObject(scene, id, body.model, key);
    return { whole, events: scenes.responseEvents(whole), usage: whole.usage };
  }
  const whole = scenes.chatCompletion(scene, id, body.model, key, provider);
  const told = provider === "openrouter" || body.stream_options?.include_usage === true;
  return { whole, events: scenes.chatEvents(whole, told, provider), usage: whole.usage };
}

/** What a broken stream had told: the input of its first event, and for output the bytes that `bytesOf` finds in each event. */
function usageOfPart(provider, usage, told, bytesOf) {
  if (provider !== "anthropic") return undefined; // which tells its input at the end alone
  const bytes = told.reduce((sum, event) => sum + bytesOf(event), 0);
  return { ...usage, output_tokens: Math.max(1, bytes) };
}
const shownBytes = ({ text }) => Buffer.byteLength(text ?? "");
const carriedBytes = ({ data }) => Buffer.byteLength(JSON.stringify(data?.delta ?? data?.content_block ?? ""));

function heads(provider, requestId) {
  const limits = provider === "anthropic"
    ? { "request-id": requestId, "anthropic-ratelimit-requests-remaining": "41", "anthropic-organization-id": "org-made-up" }
    : { "x-request-id": requestId, "openai-processing-ms": "12", "x-ratelimit-reset-tokens": "6s", "openai-version": "2020-10-01" };
  return { ...limits, "set-cookie": "made=up; HttpOnly", server: "stub" };
}

class Call {
  constructor(provider, request, response) {
    Object.assign(this, { provider, request, response, sent: [], bytes: [] });
    this.gone = new Promise((resolve) => response.once("close", resolve));
    this.record = { provider, path: request.url, version: request.httpVersion, charged: "0", scene: "?", whole: false,
      headers: Object.fromEntries(Object.entries(request.headers).filter(([name]) => !/key|authorization/.test(name))),
      keyIsReal: keyOf(request.headers) === KEYS[provider] };
  }
  write(bytes) {
    this.bytes.push(Buffer.from(bytes));
    return new Promise((resolve) => this.response.write(bytes, () => resolve()));
  }
  bill(model, usage) { this.record.charged = String(charge(this.provider, model, usage)); }
  finish() {
    this.record.sent = Buffer.concat(this.bytes).toString("base64");
    calls.push(this.record);
    underway(-1);
  }
  breakOff() {
    if (this.response.stream) this.response.stream.close(constants.NGHTTP2_INTERNAL_ERROR);
    else this.request.socket.destroy();
  }

  async serve() {
    const parts = [];
    for await (const part of this.request) parts.push(part);
    const body = JSON.parse(Buffer.concat(parts));
    const path = this.request.url.split("?")[0];
    const words = path.endsWith("/embeddings") ? "scene plain" : lastText(body);
    const scene = words.match(/^scene (\S+)/)?.[1] ?? "?";
    const attempt = path.endsWith("/embeddings") ? 1 : (attempts.get(words) ?? 0) + 1;
    attempts.set(words, attempt);
    const requestId = `req_${scene}_${attempt}`;
    Object.assign(this.record, { scene, attempt, body });
    if (!scenes.isScene(scene)) throw new Error(`no scene "${scene}"`);
    const known = scenes.FIRST[scene];
    underway(1);
    if (scene === "silent") return this.gone;
    if (known && attempt <= known[1]) return this.fail(known[0], requestId, known[2]);
    if (scenes.isError(scene)) return this.fail(scene, requestId, scene === "busy" ? { "retry-after": "7" } : {});
    const answer = answerOf(this.provider, path, body, scene, `id_${scene}`, keyOf(this.request.headers));
    if (body.stream) return this.stream(answer, body.model, scene, requestId);
    const text = JSON.stringify(answer.whole);
    this.response.writeHead(200, { ...heads(this.provider, requestId), "content-type": "application/json",
      "content-length": Buffer.byteLength(text) });
    if (scene === "cut") {
      await this.write(text.slice(0, 40));
      return this.breakOff();
    }
    this.bill(body.model, answer.usage);
    this.record.whole = true;
    this.bytes.push(Buffer.from(text));
    this.response.end(text);
  }

  fail(name, requestId, more) {
    const [status, body] = scenes.errorOf(name, this.provider, requestId);
    const text = JSON.stringify(body);
    this.response.writeHead(status, { ...heads(this.provider, requestId), "content-type": "application/json", ...more });
    this.bytes.push(Buffer.from(text));
    this.record.whole = true;
    this.response.end(text);
  }

  async stream({ events, usage }, model, scene, requestId) {
    this.response.writeHead(200, { ...heads(this.provider, requestId), "content-type": "text/event-stream" });
    const stops = { cut: 9, hang: 9, overloaded: 6 };
    const told = events.slice(0, stops[scene]);
    this.bill(model, stops[scene] ? usageOfPart(this.provider, usage, told, shownBytes) : usage);
    if (stops[scene]) this.record.atMost = String(charge(this.provider, model, usageOfPart(this.provider, usage, told, carriedBytes)));
    if (scene === "overloaded") told.push(scenes.streamError(this.provider));
    for (const event of told) {
      const bytes = Buffer.from(frame(event));
      const step = scene === "split" ? 11 : bytes.length;
      for (let at = 0; at < bytes.length; at += step) await this.write(bytes.subarray(at, at + step));
      if (scene === "slow") await new Promise((resolve) => setTimeout(resolve, 5));
    }
    if (scene === "cut") return this.breakOff();
    if (scene === "hang") return this.gone;
    this.record.whole = true;
    this.response.end();
  }
}

function listen(provider) {
  const options = { key: readFileSync(keyFile), cert: readFileSync(certificateFile), allowHTTP1: true };
  const server = (newest === "h2" ? createSecureServer : createServer)(options, (request, response) => {
    const call = new Call(provider, request, response);
    call.serve().catch((error) => {
      if (error.code !== "ECONNRESET" && error.code !== "ERR_STREAM_PREMATURE_CLOSE") say({ trouble: String(error.stack) });
      call.breakOff();
    }).then(() => call.finish());
  });
  return new Promise((resolve) => server.listen(0, "127.0.0.1", () => resolve(server.address().port)));
}

const ports = {};
for (const provider of Object.keys(KEYS)) ports[provider] = await listen(provider);
say({ ports, keys: KEYS });

const changed = () => new Promise((resolve) => waiting.push(resolve));

async function obey({ act, count }) {
  if (act === "asked") {
    while (asked < count) await changed();
    return say({ asked });
  }
  while (calls.length < count) await changed();
  say({ calls });
  calls = [];
}
for await (const line of createInterface({ input: process.stdin })) await obey(JSON.parse(line));
process.exit(0);
