// The session of clients.session, for a person to watch: each step's tool, arguments and outcome
// on standard output and in <output>/session.log, every preview the server sends back as a PNG in
// <output>, and the exported files in <output>/exports. scripts/demo.sh runs it.
//
// usage: node scripts/demo.mjs <path to velko-mcp> <path to velko-headless> <output folder>
import { appendFileSync, existsSync, mkdirSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import path from 'node:path';

import { main } from '../tests/clients/harness.mjs';
import { kNaturePhotos, openSession, runSession } from '../tests/clients/session.mjs';

const [mcp, headless, output] = process.argv.slice(2).map((p) => p && path.resolve(p));
if (!output) {
  console.error('usage: node scripts/demo.mjs <path to velko-mcp> <path to velko-headless> <output folder>');
  process.exit(2);
}
if (!existsSync(kNaturePhotos)) {
  console.error(`demo: ${kNaturePhotos} is missing; install Debian's mate-backgrounds package`);
  process.exit(1);
}

// Long ids shortened to their first block, so a line stays readable.
const brief = (args) => JSON.stringify(args).replace(/"([0-9A-F]{8})-[0-9A-F-]{27}\/L0\/001"/g, '"$1…"');

await main(async () => {
  mkdirSync(output, { recursive: true });
  // What an earlier run left is replaced, and nothing else in the folder is touched.
  for (const name of readdirSync(output)) {
    if (/^\d\d-[a-z_]+(-\d)?\.png$/.test(name)) rmSync(path.join(output, name));
  }
  rmSync(path.join(output, 'exports'), { recursive: true, force: true });
  const logFile = path.join(output, 'session.log');
  writeFileSync(logFile, '');
  const session = await openSession(mcp, headless);
  try {
    await runSession(session, {
      exportDir: path.join(output, 'exports'),
      onStep: ({ index, tool, args, outcome, images, failed }) => {
        const stem = `${String(index).padStart(2, '0')}-${tool.replace(/^velko_/, '')}`;
        const files = images.map((png, i) => {
          const file = `${stem}${images.length > 1 ? `-${i + 1}` : ''}.png`;
          writeFileSync(path.join(output, file), png);
          return file;
        });
        const line = [
          `${stem.slice(0, 2)} ${tool} ${brief(args)}`,
          `   ${failed ? 'FAILED: ' : '→ '}${outcome}`,
          ...(files.length ? [`   preview: ${files.join(', ')}`] : []),
        ].join('\n');
        console.log(line);
        appendFileSync(logFile, line + '\n');
      },
    });
    console.log(`\ndemo: previews and session.log are in ${output}`);
  } catch (error) {
    console.error(`velko-headless's log:\n${session.appLog()}`);
    throw error;
  } finally {
    await session.close();
  }
});
