// Portability of the tool table as clients receive it: the tools/list reply of the built binary
// checked against the strictest rules MCP hosts and model APIs put on tool definitions. Names
// must match ^[A-Za-z0-9_-]{1,64}$; every input schema is an object schema; every array says what
// its items are; no $ref, no combinators (anyOf, oneOf, allOf, not) and no type unions, which
// several function-calling APIs refuse or flatten.
//
// Only initialize and tools/list are sent, which never contact the application, so the server is
// run as it is, without the scratch home of the other client tests.
//
// usage: node tool-table.test.mjs <path to velko-mcp>
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import readline from 'node:readline';

import { binaryArgument, main } from './harness.mjs';

const kNamePattern = /^[A-Za-z0-9_-]{1,64}$/;
const kCombinators = ['anyOf', 'oneOf', 'allOf', 'not'];

/// Problems of one schema node and the nodes below it, as "<where>: <problem>" lines.
function schemaProblems(node, where) {
  if (node === null || typeof node !== 'object' || Array.isArray(node)) {
    return [`${where}: schema is not an object`];
  }
  const problems = [];
  if ('$ref' in node) problems.push(`${where}: uses $ref`);
  for (const keyword of kCombinators) {
    if (keyword in node) problems.push(`${where}: uses ${keyword}`);
  }
  if (Array.isArray(node.type)) problems.push(`${where}: type union ${JSON.stringify(node.type)}`);
  else if (typeof node.type !== 'string') problems.push(`${where}: no type`);
  if (node.type === 'array') {
    if (!('items' in node)) problems.push(`${where}: array without items`);
  }
  if ('items' in node) problems.push(...schemaProblems(node.items, `${where}[]`));
  if ('properties' in node) {
    for (const [name, property] of Object.entries(node.properties)) {
      problems.push(...schemaProblems(property, `${where}.${name}`));
    }
  }
  if (typeof node.additionalProperties === 'object') {
    problems.push(...schemaProblems(node.additionalProperties, `${where}{}`));
  }
  return problems;
}

/// Sends the lines to the server, closes its input and returns the parsed reply lines.
async function exchange(binary, lines) {
  const server = spawn(binary, [], { stdio: ['pipe', 'pipe', 'ignore'] });
  const replies = [];
  const reader = readline.createInterface({ input: server.stdout });
  reader.on('line', (line) => replies.push(JSON.parse(line)));
  server.stdin.end(lines.map((l) => JSON.stringify(l) + '\n').join(''));
  const status = await new Promise((resolve) => server.on('close', resolve));
  assert.equal(status, 0, 'server exit status');
  return replies;
}

await main(async () => {
  const replies = await exchange(binaryArgument(), [
    {
      jsonrpc: '2.0',
      id: 1,
      method: 'initialize',
      params: { protocolVersion: '2024-11-05', capabilities: {}, clientInfo: { name: 't', version: '1' } },
    },
    { jsonrpc: '2.0', method: 'notifications/initialized' },
    { jsonrpc: '2.0', id: 2, method: 'tools/list', params: {} },
  ]);
  assert.equal(replies.length, 2);
  const { tools } = replies[1].result;
  assert.equal(tools.length, 50);

  const problems = [];
  const seen = new Set();
  for (const tool of tools) {
    if (!kNamePattern.test(tool.name)) problems.push(`${tool.name}: name does not match ${kNamePattern}`);
    if (seen.has(tool.name)) problems.push(`${tool.name}: listed twice`);
    seen.add(tool.name);
    if (typeof tool.description !== 'string' || tool.description.length === 0) {
      problems.push(`${tool.name}: no description`);
    }
    if (tool.inputSchema?.type !== 'object') {
      problems.push(`${tool.name}: input schema is not of type object`);
    }
    problems.push(...schemaProblems(tool.inputSchema, tool.name));
  }
  assert.deepEqual(problems, [], `\n${problems.join('\n')}`);
  console.log(`tool table: ${tools.length} tools portable`);
});
