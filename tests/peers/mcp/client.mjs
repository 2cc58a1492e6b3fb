// client.mjs PEER COMMAND [WORD...]: starts a server with an official client and lets a test drive it. PEER is "handshake-v1"
// (the package of the handshake era), "handshake", "stateless" or "auto" (the package of both eras). Commands come as JSON
// lines on standard input, what happens goes out as JSON lines.
import { createInterface } from "node:readline";

const [peer, command, ...args] = process.argv.slice(2);
const old = peer === "handshake-v1";
const { Client } = await import(old ? "@modelcontextprotocol/sdk/client/index.js" : "@modelcontextprotocol/client");
const { StdioClientTransport } = await import(
  old ? "@modelcontextprotocol/sdk/client/stdio.js" : "@modelcontextprotocol/client/stdio");

const mode = { handshake: "legacy", stateless: { pin: "2026-07-28" }, auto: "auto" }[peer];
const client = new Client({ name: "sorvane-peer", version: peer }, old ? {} : { versionNegotiation: { mode } });
const say = (message) => process.stdout.write(JSON.stringify(message) + "\n");
// What the client cannot make sense of, it tells here and nowhere else.
client.onerror = (error) => say({ trouble: String(error) });

const env = { PATH: process.env.PATH, SORVANE_MCP_TOKEN: process.env.SORVANE_MCP_TOKEN };
const transport = new StdioClientTransport({ command, args, env });
await client.connect(transport);
say({ server: client.getServerVersion(), version: client.getNegotiatedProtocolVersion?.() ?? null });

const aborts = new Map();

async function obey({ id, act, tool, args: given }) {
  if (act === "abort") return aborts.get(id).abort("the test");
  try {
    if (act === "list") return say({ id, result: await client.listTools() });
    const abort = new AbortController();
    aborts.set(id, abort);
    const options = { signal: abort.signal, onprogress: (progress) => say({ id, progress }) };
    const call = { name: tool, arguments: given };
    say({ id, result: await (old ? client.callTool(call, undefined, options) : client.callTool(call, options)) });
  } catch (error) {
    say({ id, error: String(error), code: error.code ?? null });
  }
}

for await (const line of createInterface({ input: process.stdin })) obey(JSON.parse(line));
await client.close();
