// The MCP conformance suite against the built velko-mcp. The suite speaks Streamable HTTP, so the
// server is put behind supergateway, a stdio-to-HTTP bridge that starts one velko-mcp per session;
// the bridge runs in the scratch home's namespace beside the real velko-headless over an empty
// library, which answers the IPC calls. Scenarios the server cannot pass by design are listed,
// with reasons, in conformance-expected-failures.yml; the suite fails on any other failure and on
// a listed scenario that passes. Its own output goes to the log file named on the command line.
// Needs Node 22.
//
// usage: node conformance.test.mjs <velko-mcp> <velko-headless> <log file> <results directory>
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { closeSync, mkdirSync, openSync, readFileSync, rmSync } from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { main, sandboxedApplication } from './harness.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const kBridge = path.join(here, 'node_modules/supergateway/dist/index.js');
const kSuite = path.join(here, 'node_modules/@modelcontextprotocol/conformance/dist/index.js');
const kExpectedFailures = path.join(here, 'conformance-expected-failures.yml');
const kCoreScenarios = ['server-initialize', 'ping', 'tools-list', 'prompts-list'];

/// A port nobody listens on right now.
function freePort() {
  return new Promise((resolve, reject) => {
    const probe = net.createServer();
    probe.once('error', reject);
    probe.listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
}

/// Resolves once something accepts connections on the port; rejects if `child` exits first.
async function waitForListener(port, child) {
  while (!(await fetch(`http://127.0.0.1:${port}/`).then(() => true, () => false))) {
    if (child.exitCode !== null || child.signalCode !== null) throw new Error('bridge exited before listening');
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

await main(async () => {
  const [mcp, headless, logFile, resultsDir] = process.argv.slice(2).map((p) => p && path.resolve(p));
  assert.ok(resultsDir, 'usage: conformance.test.mjs <velko-mcp> <velko-headless> <log file> <results directory>');

  const expected = readFileSync(kExpectedFailures, 'utf8');

  rmSync(resultsDir, { recursive: true, force: true });
  mkdirSync(resultsDir, { recursive: true });
  const log = openSync(logFile, 'w');
  const port = await freePort();
  // supergateway has no option for the address; it listens on all interfaces while the suite
  // runs, serving nothing but an empty scratch library.
  const bridgeArgs = ['--stdio', mcp, '--outputTransport', 'streamableHttp', '--stateful'];
  bridgeArgs.push('--port', String(port), '--logLevel', 'none');
  const sandbox = sandboxedApplication(headless, [process.execPath, kBridge, ...bridgeArgs]);
  // A process group of its own, so that the bridge and the programs under it end together.
  const bridge = spawn(sandbox.command, [], { stdio: ['ignore', log, log], detached: true });
  try {
    await waitForListener(port, bridge);
    const suiteArgs = ['server', '--url', `http://127.0.0.1:${port}/mcp`];
    suiteArgs.push('--expected-failures', kExpectedFailures, '-o', resultsDir);
    const suite = spawn(process.execPath, [kSuite, ...suiteArgs], { stdio: ['ignore', log, log] });
    const status = await new Promise((resolve) => suite.on('close', resolve));
    const output = readFileSync(logFile, 'utf8');
    const total = output.match(/^Total: (\d+) passed, (\d+) failed$/m);
    assert.ok(total, `no summary in ${logFile}`);
    // A core scenario must pass, even if someone lists it as an expected failure.
    for (const scenario of kCoreScenarios) {
      const passed = new RegExp(`^✓ ${scenario}: \\d+ passed, 0 failed$`, 'm');
      assert.match(output, passed, `${scenario} did not pass`);
    }
    assert.equal(status, 0, `the suite reports unexpected results; see ${logFile}`);
    const listed = expected.match(/^\s*- /gm).length;
    const checks = `checks ${total[1]} passed, ${total[2]} failed`;
    console.log(`conformance: ${checks}; ${listed} scenarios fail as expected; log in ${logFile}`);
  } finally {
    const exited = new Promise((resolve) => (bridge.exitCode !== null ? resolve() : bridge.once('exit', resolve)));
    try {
      process.kill(-bridge.pid, 'SIGTERM');
      await exited;
    } catch {
      // the group has ended already
    }
    closeSync(log);
    sandbox.close();
  }
});
