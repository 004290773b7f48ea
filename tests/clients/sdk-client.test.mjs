// The official TypeScript SDK's Client drives the built velko-mcp over stdio against the fake
// application: handshake, listings, every prompt, and one tool of each result family. The SDK
// parses every reply against its own schemas and rejects a whole tools/list for one bad tool,
// so getting an answer back at all is half of each check.
//
// usage: node sdk-client.test.mjs <path to velko-mcp>
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { STDIO_DEFAULT_MAX_BUFFER_SIZE } from '@modelcontextprotocol/sdk/shared/stdio.js';
import assert from 'node:assert/strict';
import { randomBytes } from 'node:crypto';

import { binaryArgument, cannedReplies, FakeApplication, kPreviewPng, main, makePng, sandboxedServer } from './harness.mjs';

const kMaxFrameBytes = 8 * 1024 * 1024;

function jsonText(result) {
  assert.equal(result.isError, false, JSON.stringify(result));
  assert.equal(result.content.length, 1);
  assert.equal(result.content[0].type, 'text');
  return JSON.parse(result.content[0].text);
}

function errorText(result) {
  assert.equal(result.isError, true, JSON.stringify(result));
  assert.equal(result.content[0].type, 'text');
  return result.content[0].text;
}

await main(async () => {
  const sandbox = sandboxedServer(binaryArgument());
  const replies = cannedReplies();
  const app = await new FakeApplication(sandbox.home, replies).start();
  const transport = new StdioClientTransport({ command: sandbox.command, stderr: 'pipe' });
  let log = '';
  transport.stderr.on('data', (data) => (log += data));
  const client = new Client({ name: 'velko-sdk-client-test', version: '1.0.0' });
  try {
    await client.connect(transport);
    assert.deepEqual(client.getServerVersion(), { name: 'velko-mcp', version: '0.1.0' });
    assert.deepEqual(client.getServerCapabilities(), { tools: {}, prompts: {} });
    await client.ping();

    const { tools } = await client.listTools();
    assert.equal(tools.length, 50);
    assert.equal(tools[0].name, 'velko_ping');
    assert.equal(tools.at(-1).name, 'velko_movie_list');

    const { prompts } = await client.listPrompts();
    assert.deepEqual(
      prompts.map((p) => [p.name, p.arguments.map((a) => a.name)]),
      [['velko_edit', ['look']], ['velko_cull', ['scope']], ['velko_describe', []]],
    );
    const promptCases = [
      ['velko_edit', { look: 'warm 1980s film' }, `Edit the photo I'm working on in velko to achieve "warm 1980s film". Follow`],
      ['velko_cull', { scope: 'yesterday' }, 'Help me cull and deliver "yesterday" in velko. Drive the app'],
      ['velko_describe', undefined, 'Build the AI photo map: give every photo'],
    ];
    for (const [name, args, opening] of promptCases) {
      const { messages } = await client.getPrompt({ name, arguments: args });
      assert.deepEqual(messages.map((m) => [m.role, m.content.type]), [['user', 'text']], name);
      assert.ok(messages[0].content.text.startsWith(opening), `${name}: ${messages[0].content.text.slice(0, 90)}`);
    }

    // JSON text: the application's record comes back as sorted, indented JSON.
    const ping = await client.callTool({ name: 'velko_ping', arguments: {} });
    assert.deepEqual(jsonText(ping), replies['system.ping']);
    assert.match(ping.content[0].text, /^\{\n {2}"appVersion"/);
    const rate = await client.callTool({ name: 'velko_rate', arguments: { ids: ['p1', 'p2'], rating: 4 } });
    assert.deepEqual(jsonText(rate), { updated: 2, skipped: [] });
    assert.deepEqual(app.requests.at(-1).params, { ids: ['p1', 'p2'], rating: 4 });

    // Text plus image: the context of the focused photo with its preview.
    const context = await client.callTool({ name: 'velko_context', arguments: {} });
    assert.equal(context.isError, false);
    assert.deepEqual(context.content.map((c) => c.type), ['text', 'image']);
    assert.equal(JSON.parse(context.content[0].text).focusID, 'p1');
    assert.equal(context.content[1].mimeType, 'image/png');
    assert.equal(context.content[1].data, kPreviewPng);
    assert.deepEqual(app.methods().slice(-2), ['app.context', 'preview.render']);

    const preview = await client.callTool({ name: 'velko_preview_render', arguments: { id: 'p1' } });
    assert.deepEqual(preview.content.map((c) => c.type), ['image', 'text']);
    assert.equal(preview.content[0].data, kPreviewPng);
    assert.equal(preview.content[1].text, '8\u00d76, stack version 3');

    // Errors: a missing argument, and the application refusing, are results with isError.
    const missing = await client.callTool({ name: 'velko_get', arguments: {} });
    assert.match(errorText(missing), /id/);
    const refused = await client.callTool({ name: 'velko_get', arguments: { id: 'gone' } });
    assert.match(errorText(refused), /no photo with id gone/);
    // An unknown tool is a protocol error, which the SDK raises.
    await assert.rejects(client.callTool({ name: 'velko_nope', arguments: {} }), (error) => {
      assert.equal(error.code, -32602);
      assert.match(error.message, /unknown tool velko_nope/);
      return true;
    });

    // The largest preview the IPC frame allows still makes a reply line under the SDK's limit.
    const big = makePng(1024, 2000, { rgb: randomBytes(1024 * 2000 * 3), level: 0 }).toString('base64');
    replies['preview.render'] = { ...replies['preview.render'], pngBase64: big, width: 1024, height: 2000 };
    const frame = JSON.stringify({ jsonrpc: '2.0', id: 1, result: replies['preview.render'] }).length + 1;
    assert.ok(frame <= kMaxFrameBytes && frame > kMaxFrameBytes * 0.9, `frame of ${frame} bytes`);
    const large = await client.callTool({ name: 'velko_preview_render', arguments: { id: 'p1', longEdge: 2000 } });
    assert.equal(large.content[0].data, big);
    assert.ok(big.length < STDIO_DEFAULT_MAX_BUFFER_SIZE);

    assert.match(log, /^velko-mcp: ready \(socket: .*\/\.velko\/ipc\.sock\)\n/);
    const answered = app.requests.length;
    console.log(`sdk client: ${tools.length} tools, ${prompts.length} prompts, ${answered} IPC requests answered`);
  } finally {
    await client.close();
    await app.close();
    sandbox.close();
  }
});
