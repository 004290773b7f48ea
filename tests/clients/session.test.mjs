// An MCP client we did not write runs a whole culling and editing session against the real
// velko-headless over the demo library's photographs, through velko-mcp; every reply passes the
// client's own validation and every step checks what it must (see session.mjs).
//
// usage: node session.test.mjs [--ai-sdk] <path to velko-mcp> <path to velko-headless>
//   --ai-sdk  drive it with the AI SDK's client (Node 22) instead of the official SDK's
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

await main(async () => {
  const session = await openSession(mcp, headless, { client });
  const steps = [];
  try {
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
