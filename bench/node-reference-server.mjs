// The comparison server of the end-to-end benchmark: three of velko-mcp's tools written the
// plain way with Node and the official TypeScript SDK, answering from the same application
// with the same texts, so the benchmark can time both servers in one run.
//
//   VELKO_NODE_MODULES=tests/clients/node_modules node bench/node-reference-server.mjs
//
// The SDK is loaded from that folder (scripts/setup.sh installs it there for the client tests).
import { pathToFileURL } from 'node:url';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const modules = process.env.VELKO_NODE_MODULES ?? 'tests/clients/node_modules';
const sdk = (file) =>
  import(pathToFileURL(path.resolve(modules, '@modelcontextprotocol/sdk/dist/esm', file)).href);
const { Server } = await sdk('server/index.js');
const { StdioServerTransport } = await sdk('server/stdio.js');
const { CallToolRequestSchema, ListToolsRequestSchema } = await sdk('types.js');

const socketPath = path.join(os.userInfo().homedir, '.velko', 'ipc.sock');

/// One request per connection, as velko-mcp sends it; resolves with the reply's result.
function call(method, params) {
  return new Promise((resolve, reject) => {
    const socket = net.createConnection(socketPath);
    const chunks = [];
    socket.on('connect', () => {
      const request = { jsonrpc: '2.0', id: 1, method };
      if (params !== undefined) request.params = params;
      socket.write(JSON.stringify(request) + '\n');
    });
    socket.on('data', (chunk) => {
      chunks.push(chunk);
      if (chunk.includes(10)) {
        socket.destroy();
        const reply = JSON.parse(Buffer.concat(chunks).toString('utf8'));
        if (reply.error) reject(new Error(reply.error.message));
        else resolve(reply.result);
      }
    });
    socket.on('error', reject);
  });
}

/// Pretty, key-sorted JSON with "/" escaped, as velko-mcp writes its texts.
function prettySorted(value) {
  const sort = (v) =>
    Array.isArray(v)
      ? v.map(sort)
      : v && typeof v === 'object'
        ? Object.fromEntries(Object.keys(v).sort().map((k) => [k, sort(v[k])]))
        : v;
  return JSON.stringify(sort(value), null, 2).replaceAll('/', '\\/');
}

const tools = {
  velko_ping: async () => ({
    content: [{ type: 'text', text: prettySorted(await call('system.ping')) }],
  }),
  velko_list: async (args) => ({
    content: [{ type: 'text', text: prettySorted(await call('library.list', args)) }],
  }),
  velko_preview_render: async (args) => {
    const p = await call('preview.render', args);
    return {
      content: [
        { type: 'image', data: p.pngBase64, mimeType: 'image/png' },
        { type: 'text', text: `${p.width}\u00d7${p.height}, stack version ${p.appliedStackVersion}` },
      ],
    };
  },
};

const server = new Server(
  { name: 'velko-node-reference', version: '0.0.0' },
  { capabilities: { tools: {} } },
);
server.setRequestHandler(ListToolsRequestSchema, async () => ({
  tools: Object.keys(tools).map((name) => ({ name, inputSchema: { type: 'object' } })),
}));
server.setRequestHandler(CallToolRequestSchema, async (request) => {
  const tool = tools[request.params.name];
  if (!tool) throw new Error(`unknown tool ${request.params.name}`);
  return tool(request.params.arguments ?? {});
});
await server.connect(new StdioServerTransport());
