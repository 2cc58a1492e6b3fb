// What the stub answers. A request's last text is "scene NAME" and words that make it unlike every other request; NAME chooses
// here what comes back. An answer is a message of the provider's own form and, for a stream, the events that spell it.

const TEXT = "Grüße — “quoted” 漢字 🙂, {\"json\":\"inside\"}\n\ndata: not an event";
const pieces = (text) => text.match(text.length > 10_000 ? /[\s\S]{1,5000}/gu : /[\s\S]{1,7}/gu);
const SUCCEED = ["plain", "split", "slow", "cut", "hang", "overloaded", "flaky", "limited", "conflict", "tool", "thinking", "big",
  "echo", "tier", "greedy", "byok", "silent"];

const anthropicUsage = {
  input_tokens: 21, cache_creation_input_tokens: 300, cache_read_input_tokens: 400, output_tokens: 57,
  cache_creation: { ephemeral_5m_input_tokens: 200, ephemeral_1h_input_tokens: 100 },
  server_tool_use: null, service_tier: "standard", inference_geo: null,
};

export function anthropicMessage(name, id, model, key) {
  const contents = {
    tool: [{ type: "text", text: "Looking." },
      { type: "tool_use", id: "toolu_madeup1", name: "weather", input: { city: "Zürich", days: [1, 2] } }],
    thinking: [{ type: "thinking", thinking: "Let me see, step by step.", signature: "bWFkZS11cA==" },
      { type: "text", text: TEXT }],
    big: [{ type: "text", text: "0123456789abcdef".repeat(20_000) }],
    echo: [{ type: "text", text: `You sent ${key} to me.` }],
  };
  const usage = { ...anthropicUsage };
  if (name === "tier") Object.assign(usage, { input_tokens: 101_000 });
  if (name === "greedy") Object.assign(usage, { input_tokens: 900_000, output_tokens: 90_000 });
  return { id, type: "message", role: "assistant", model, content: contents[name] ?? [{ type: "text", text: TEXT }],
    stop_reason: name === "tool" ? "tool_use" : "end_turn", stop_sequence: null, usage };
}

function anthropicDeltas(block) {
  if (block.type === "tool_use") {
    return pieces(JSON.stringify(block.input)).map((partial_json) => ({ type: "input_json_delta", partial_json }));
  }
  if (block.type === "thinking") {
    return [...pieces(block.thinking).map((thinking) => ({ type: "thinking_delta", thinking })),
      { type: "signature_delta", signature: block.signature }];
  }
  return pieces(block.text).map((text) => ({ type: "text_delta", text }));
}

const EMPTY = { text: { text: "" }, thinking: { thinking: "", signature: "" }, tool_use: { input: {} } };

export function anthropicEvents(message) {
  const begun = { ...message, content: [], stop_reason: null, usage: { ...message.usage, output_tokens: 1 } };
  const events = [{ type: "message_start", message: begun }, { type: "ping" }];
  message.content.forEach((block, index) => {
    events.push({ type: "content_block_start", index, content_block: { ...block, ...EMPTY[block.type] } });
    for (const delta of anthropicDeltas(block)) events.push({ type: "content_block_delta", index, delta });
    events.push({ type: "content_block_stop", index });
  });
  const { input_tokens, cache_creation_input_tokens, cache_read_input_tokens, output_tokens } = message.usage;
  events.push({ type: "message_delta", delta: { stop_reason: message.stop_reason, stop_sequence: null },
    usage: { input_tokens, cache_creation_input_tokens, cache_read_input_tokens, output_tokens } });
  events.push({ type: "message_stop" });
  return events.map((event) => ({ event: event.type, data: event, text: textOf(event.delta) }));
}
const textOf = (delta) => delta?.text ?? delta?.thinking ?? delta?.partial_json ?? "";

export function chatCompletion(name, id, model, key, provider) {
  const calls = [{ id: "call_madeup1", type: "function", function: { name: "weather", arguments: '{"city":"Zürich"}' } }];
  const texts = { big: "0123456789abcdef".repeat(20_000), echo: `You sent ${key} to me.` };
  const message = name === "tool" ? { role: "assistant", content: null, refusal: null, tool_calls: calls }
    : { role: "assistant", content: texts[name] ?? TEXT, refusal: null };
  const usage = { prompt_tokens: 700, completion_tokens: 57, total_tokens: 757,
    prompt_tokens_details: { cached_tokens: 400, cache_write_tokens: model === "gpt-6-sol" ? 100 : 0 },
    completion_tokens_details: { reasoning_tokens: 11 } };
  if (provider === "openrouter") {
    Object.assign(usage, name === "byok"
      ? { cost: 0.00095, is_byok: true, cost_details: { upstream_inference_cost: 0.0019 } }
      : { cost: 0.0001234567, is_byok: false, cost_details: { upstream_inference_cost: null } });
  }
  return { id, object: "chat.completion", created: 1795000000, model,
    choices: [{ index: 0, message, logprobs: null, finish_reason: name === "tool" ? "tool_calls" : "stop" }],
    usage, service_tier: "default" };
}

export function chatEvents(completion, withUsage, provider) {
  const { usage, choices: [{ message, finish_reason }], ...rest } = completion;
  const chunk = (delta, finish = null) => ({ ...rest, object: "chat.completion.chunk",
    choices: [{ index: 0, delta, logprobs: null, finish_reason: finish }], ...(withUsage ? { usage: null } : {}) });
  const events = [chunk({ role: "assistant", content: message.content === null ? null : "" })];
  for (const content of pieces(message.content ?? "") ?? []) events.push(chunk({ content }));
  (message.tool_calls ?? []).forEach((call, index) => {
    const { arguments: text, name } = call.function;
    events.push(chunk({ tool_calls: [{ ...call, index, function: { name, arguments: "" } }] }));
    for (const piece of pieces(text)) events.push(chunk({ tool_calls: [{ index, function: { arguments: piece } }] }));
  });
  events.push(chunk({}, finish_reason));
  if (withUsage) events.push({ ...rest, object: "chat.completion.chunk", choices: [], usage });
  const framed = events.map((data) => ({ data, text: data.choices[0]?.delta.content ?? "" }));
  if (provider === "openrouter") framed.unshift({ comment: "OPENROUTER PROCESSING", text: "" });
  return [...framed, { done: "[DONE]", text: "" }];
}

export function responseObject(name, id, model, key) {
  const text = name === "echo" ? `You sent ${key} to me.` : TEXT;
  const output = name === "tool"
    ? [{ type: "function_call", id: "fc_madeup1", call_id: "call_madeup1", name: "weather", arguments: '{"city":"Zürich"}',
      status: "completed" }]
    : [{ type: "message", id: "msg_madeup1", role: "assistant", status: "completed",
      content: [{ type: "output_text", text, annotations: [], logprobs: [] }] }];
  const usage = { input_tokens: 700, input_tokens_details: { cached_tokens: 400 }, output_tokens: 57,
    output_tokens_details: { reasoning_tokens: 11 }, total_tokens: 757 };
  return { id, object: "response", created_at: 1795000000, status: "completed", error: null, incomplete_details: null,
    instructions: null, metadata: {}, model, output, parallel_tool_calls: true, temperature: 1, tool_choice: "auto",
    tools: [], top_p: 1, service_tier: "default", usage };
}

export function responseEvents(response) {
  const begun = { ...response, status: "in_progress", output: [], usage: null };
  const events = [{ type: "response.created", response: begun }, { type: "response.in_progress", response: begun }];
  response.output.forEach((item, output_index) => {
    const empty = item.type === "message" ? { content: [] } : { arguments: "" };
    events.push({ type: "response.output_item.added", output_index, item: { ...item, ...empty, status: "in_progress" } });
    const where = { item_id: item.id, output_index };
    if (item.type === "message") {
      const [part] = item.content;
      events.push({ type: "response.content_part.added", ...where, content_index: 0, part: { ...part, text: "" } });
      for (const delta of pieces(part.text)) {
        events.push({ type: "response.output_text.delta", ...where, content_index: 0, delta, logprobs: [] });
      }
      events.push({ type: "response.output_text.done", ...where, content_index: 0, text: part.text, logprobs: [] });
      events.push({ type: "response.content_part.done", ...where, content_index: 0, part });
    } else {
      for (const delta of pieces(item.arguments)) {
        events.push({ type: "response.function_call_arguments.delta", ...where, delta });
      }
      events.push({ type: "response.function_call_arguments.done", ...where, name: item.name, arguments: item.arguments });
    }
    events.push({ type: "response.output_item.done", output_index, item });
  });
  events.push({ type: "response.completed", response });
  return events.map((data, sequence_number) =>
    ({ event: data.type, data: { ...data, sequence_number }, text: data.type.endsWith("text.delta") ? data.delta : "" }));
}

export function embeddings(model, inputs, format) {
  const vectors = inputs.map((_, row) => Float32Array.from({ length: 64 }, (_, i) => (i - 32 + row) / 64));
  const written = (vector) => format === "base64" ? Buffer.from(vector.buffer).toString("base64") : [...vector];
  return { object: "list", model, usage: { prompt_tokens: 13, total_tokens: 13 },
    data: vectors.map((vector, index) => ({ object: "embedding", index, embedding: written(vector) })) };
}

// Errors as each provider writes them: status, then type and code or metadata.
const ERRORS = {
  bad: [400, "invalid_request_error", "invalid_value"], unauthorized: [401, "authentication_error", "invalid_api_key"],
  unpaid: [402, "billing_error", "insufficient_quota"], forbidden: [403, "permission_error", "permission_denied"],
  missing: [404, "not_found_error", "model_not_found"], large: [413, "request_too_large", "too_large"],
  unprocessable: [422, "invalid_request_error", "unprocessable"], busy: [429, "rate_limit_error", "rate_limit_exceeded"],
  broken: [500, "api_error", "server_error"], crowded: [529, "overloaded_error", "overloaded"],
  conflict: [409, "invalid_request_error", "conflict"],
};
export const isError = (name) => Object.hasOwn(ERRORS, name) && name !== "conflict";
export const isScene = (name) => isError(name) || SUCCEED.includes(name);

export function errorOf(name, provider, requestId) {
  const [status, type, code] = ERRORS[name];
  const message = `The stub says ${name}.`;
  if (provider === "anthropic") return [status, { type: "error", error: { type, message }, request_id: requestId }];
  if (provider === "openrouter") return [status, { error: { code: status, message, metadata: { error_type: code } } }];
  return [status, { error: { message, type, param: null, code } }];
}
export function streamError(provider) {
  const message = "The stub is overloaded.";
  if (provider === "anthropic") return { event: "error", data: { type: "error", error: { type: "overloaded_error", message } } };
  return { data: { error: { code: 529, message, type: "server_error", param: null } } };
}
// A scene that fails first: with what, how often, and what it says about trying again.
export const FIRST = { flaky: ["broken", 2, { "retry-after-ms": "5" }], limited: ["busy", 1, { "retry-after": "1" }],
  conflict: ["conflict", 1, { "x-should-retry": "true", "retry-after-ms": "5" }] };
