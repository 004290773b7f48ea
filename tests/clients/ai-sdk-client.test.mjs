// A second, independent MCP client: the AI SDK's own (@ai-sdk/mcp), which has its own JSON-RPC
// layer and reply schemas. It first probes for a newer protocol revision, falls back to the
// classic initialize handshake, then lists the tools, turns them into its tool objects (which
// reads every input schema) and calls one. Needs Node 22.
//
// usage: node ai-sdk-client.test.mjs <path to velko-mcp>
import { createMCPClient } from '@ai-sdk/mcp';
import { Experimental_StdioMCPTransport } from '@ai-sdk/mcp/mcp-stdio';
import assert from 'node:assert/strict';

import { binaryArgument, cannedReplies, FakeApplication, main, sandboxedServer } from './harness.mjs';

await main(async () => {
  const sandbox = sandboxedServer(binaryArgument());
  const replies = cannedReplies();
  const app = await new FakeApplication(sandbox.home, replies).start();
  let client;
  try {
    const transport = new Experimental_StdioMCPTransport({ command: sandbox.command, stderr: 'ignore' });
    const sent = [];
    const send = transport.send.bind(transport);
    transport.send = (message, ...rest) => {
      sent.push(message.method ?? 'reply');
      return send(message, ...rest);
    };
    client = await createMCPClient({ name: 'velko-ai-sdk-client-test', transport });
    // server/discover is answered -32601, after which the client falls back to initialize.
    assert.deepEqual(sent, ['server/discover', 'initialize', 'notifications/initialized']);
    assert.equal(client.serverInfo.name, 'velko-mcp');
    assert.equal(client.initializeResult.protocolVersion, '2024-11-05');

    const listing = await client.listTools();
    assert.equal(listing.tools.length, 50);
    const toolSet = client.toolsFromDefinitions(listing);
    assert.equal(Object.keys(toolSet).length, 50);

    const ping = await client.callTool({ name: 'velko_ping', arguments: {} });
    assert.equal(ping.isError, false);
    assert.deepEqual(JSON.parse(ping.content[0].text), replies['system.ping']);
    assert.deepEqual(app.methods(), ['system.ping']);
    const version = client.initializeResult.protocolVersion;
    console.log(`ai-sdk client: handshake at ${version}, ${listing.tools.length} tools, velko_ping answered`);
  } finally {
    await client?.close();
    await app.close();
    sandbox.close();
  }
});
