// An MCP client we did not write runs a whole culling and editing session against the real
// velko-headless over the demo library's photographs, through velko-mcp; every reply passes the
// client's own validation and every step checks what it must (see session.mjs). With the official
// SDK's client the session starts with the prompts and the two kinds of failure.
//
// usage: node session.test.mjs [--ai-sdk] <path to velko-mcp> <path to velko-headless>
//   --ai-sdk  drive it with the AI SDK's client (Node 22) instead of the official SDK's
import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import path from 'node:path';

import { main, skip } from './harness.mjs';
import { kNaturePhotos, openSession, runSession } from './session.mjs';

let args = process.argv.slice(2);
const client = args[0] === '--ai-sdk' ? 'ai-sdk' : 'sdk';
if (client === 'ai-sdk') args = args.slice(1);
const [mcp, headless] = args.map((p) => p && path.resolve(p));
if (!mcp || !headless) {
  console.error('usage: node session.test.mjs [--ai-sdk] <path to velko-mcp> <path to velko-headless>');
  process.exit(2);
}
if (!existsSync(kNaturePhotos)) skip(`${kNaturePhotos} is missing (Debian's mate-backgrounds package)`);

/// The SDK parses every reply against its own schemas, so an answer at all is half of each check.
/// The handshake and ping are the conformance suite's.
async function checkProtocol(sdk) {
  const { prompts } = await sdk.listPrompts();
  assert.deepEqual(prompts.map((p) => p.name), ['velko_edit', 'velko_cull', 'velko_describe']);
  for (const { name } of prompts) {
    const { messages } = await sdk.getPrompt({ name, arguments: {} });
    assert.deepEqual(messages.map((m) => [m.role, m.content.type]), [['user', 'text']], name);
  }
  // A missing argument and the application's refusal are results with isError; an unknown tool
  // is a protocol error, which the SDK raises.
  const refusals = [
    [{}, 'arguments.id: missing required key'],
    [{ id: 'gone' }, 'velko error -32602: no photo with id gone'],
  ];
  for (const [args, text] of refusals) {
    const refused = await sdk.callTool({ name: 'velko_get', arguments: args });
    assert.deepEqual([refused.isError, refused.content[0].text], [true, text]);
  }
  await assert.rejects(sdk.callTool({ name: 'velko_nope', arguments: {} }), { code: -32602 });
}

await main(async () => {
  const session = await openSession(mcp, headless, { client });
  const steps = [];
  try {
    if (client === 'sdk') await checkProtocol(session.client);
    await runSession(session, { onStep: (s) => steps.push(s) });
    console.log(`session (${client} client): ${steps.length} steps, ${steps.reduce((n, s) => n + s.images.length, 0)} previews`);
  } catch (error) {
    for (const s of steps) console.error(`${s.failed ? 'FAILED' : 'ok'} ${s.tool}: ${s.outcome}`);
    console.error(`velko-mcp:\n${session.serverLog()}\nvelko-headless:\n${session.appLog()}`);
    throw error;
  } finally {
    await session.close();
  }
});
