// Official clients of model providers, driven by JSON lines: {id, kind, base, key, act, body, options, abortAfter}. KIND is
// "anthropic" (sends its key as authorization), "anthropic-before" (sends it as x-api-key), "openai" or "openrouter" (the
// package of OpenAI with another base). One JSON line says how each call came out, as a program that uses the client sees it.
import { createInterface } from "node:readline";

const packages = { anthropic: "@anthropic-ai/sdk", "anthropic-before": "anthropic-before", openai: "openai", openrouter: "openai" };
const loaded = {};
for (const [kind, name] of Object.entries(packages)) loaded[kind] = await import(name);
const say = (message) => process.stdout.write(JSON.stringify(message) + "\n");
const TOLD = /^(content-type|retry-after|retry-after-ms|x-should-retry|request-id|x-request-id|openai-processing-ms|.*ratelimit.*)$/;

// The provider's answers as they came, one for each attempt, before the client makes sense of them.
function watched(exchanges) {
  return async (url, init) => {
    const response = await fetch(url, init);
    const headers = Object.fromEntries([...response.headers].filter(([name]) => TOLD.test(name)));
    headers["content-type"] &&= headers["content-type"].split(";")[0];
    exchanges.push({ status: response.status, headers });
    return response;
  };
}

const ACTS = {
  messages: (client, body, options) => client.messages.create(body, options),
  beta: (client, body, options) => client.beta.messages.create(body, options),
  message: (client, body, options) => client.messages.stream(body, options).finalMessage(),
  chat: (client, body, options) => client.chat.completions.create(body, options),
  chatHelper: (client, body, options) => client.chat.completions.stream(body, options).finalChatCompletion(),
  responses: (client, body, options) => client.responses.create(body, options),
  embeddings: (client, body, options) => client.embeddings.create(body, options),
  models: (client) => client.models.list(),
};

async function run({ id, kind, base, key, act, body, options, abortAfter }) {
  const { default: Client, ...classes } = loaded[kind];
  const exchanges = [], events = [];
  const abort = new AbortController();
  const client = new Client({ baseURL: base, apiKey: key, maxRetries: 0, fetch: watched(exchanges), logLevel: "off", ...options });
  const outcome = { id };
  try {
    const pending = ACTS[act](client, body, { signal: abort.signal });
    if (abortAfter === 0) aborts.set(id, abort);
    const result = await pending;
    if (result?.[Symbol.asyncIterator] && body.stream) {
      for await (const event of result) {
        events.push(event);
        if (events.length === abortAfter) abort.abort();
      }
      outcome.events = events;
    } else {
      outcome.result = result;
      outcome.requestId = result._request_id;
    }
  } catch (error) {
    const known = Object.entries(classes).find(([, made]) => made === error.constructor);
    outcome.events = events;
    outcome.error = { class: known?.[0] ?? error.constructor.name, status: error.status, message: error.message,
      type: error.type, code: error.code, requestId: error.requestID };
  }
  say({ ...outcome, exchanges });
}

const aborts = new Map();
say({ ready: process.version });
for await (const line of createInterface({ input: process.stdin })) {
  const command = JSON.parse(line);
  if (command.act === "abort") aborts.get(command.id).abort();
  else run(command);
}
