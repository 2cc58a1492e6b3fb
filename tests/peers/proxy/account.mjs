// The stub's own account of what its answers cost, by a price list of its own: exact integers, one rounding up for each call.

// Millionths of a micro-dollar for one token, from dollars for a million tokens.
const rate = (dollars) => BigInt(Math.round(dollars * 1e6));
const claude = (input, write5m, write1h, read, output) =>
  ({ input: rate(input), write5m: rate(write5m), write1h: rate(write1h), read: rate(read), output: rate(output) });
const gpt = (input, read, output, write = input) =>
  ({ input: rate(input), read: rate(read), write: rate(write), output: rate(output) });

const PRICES = {
  "claude-sonnet-5": claude(2, 2.5, 4, 0.2, 10),
  "claude-haiku-5-5": claude(0.1, 0.125, 0.2, 0.01, 0.5),
  "claude-haiku-5-5 above 100000": claude(0.5, 0.625, 1, 0.05, 2.5),
  "gpt-5.4": gpt(2.5, 0.25, 15),
  "gpt-6-sol": gpt(2, 0.2, 10, 2.5),
  "gpt-5.1": gpt(1.25, 0.125, 10),
  "text-embedding-3-small": gpt(0.02, 0.02, 0),
};
const WEB_SEARCH = 10_000n * 1_000_000n; // ten dollars for a thousand

const n = (value) => BigInt(value ?? 0);
const microsOf = (total) => (total + 999_999n) / 1_000_000n;

function anthropic(model, usage) {
  const write1h = n(usage.cache_creation?.ephemeral_1h_input_tokens);
  const write5m = n(usage.cache_creation_input_tokens) - write1h;
  const prompt = n(usage.input_tokens) + write1h + write5m + n(usage.cache_read_input_tokens);
  const price = PRICES[prompt > 100_000n && PRICES[`${model} above 100000`] ? `${model} above 100000` : model];
  return microsOf(n(usage.input_tokens) * price.input + write5m * price.write5m + write1h * price.write1h +
    n(usage.cache_read_input_tokens) * price.read + n(usage.output_tokens) * price.output +
    n(usage.server_tool_use?.web_search_requests) * WEB_SEARCH);
}

function openai(model, usage) {
  const price = PRICES[model];
  const details = usage.prompt_tokens_details ?? usage.input_tokens_details ?? {};
  const read = n(details.cached_tokens), write = n(details.cache_write_tokens);
  const input = n(usage.prompt_tokens ?? usage.input_tokens) - read - write;
  return microsOf(input * price.input + read * price.read + write * price.write +
    n(usage.completion_tokens ?? usage.output_tokens) * price.output);
}

// Costs are written as decimal text by the scenes, so that no floating point is in the sum.
function openrouter(_, usage) {
  const pico = (dollars) => BigInt(Math.round((dollars ?? 0) * 1e12));
  return microsOf(pico(usage.cost) + (usage.is_byok ? pico(usage.cost_details?.upstream_inference_cost) : 0n));
}

const BY_PROVIDER = { anthropic, openai, openrouter };
export const charge = (provider, model, usage) => (usage ? BY_PROVIDER[provider](model, usage) : 0n);
