// A whole culling and editing session, driven by an MCP client we did not write (the official
// SDK's Client, or the AI SDK's independent one) against the real velko-headless over real
// photographs (the demo library), with velko-mcp in between. Shared by the clients.session tests
// and scripts/demo.sh: they open a session, run it, and differ only in what they do with each
// step's report.
import { createMCPClient } from '@ai-sdk/mcp';
import { Experimental_StdioMCPTransport } from '@ai-sdk/mcp/mcp-stdio';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { CallToolResultSchema } from '@modelcontextprotocol/sdk/types.js';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { closeSync, copyFileSync, existsSync, mkdirSync, openSync, readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { sandboxedApplication } from './harness.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const kDemoLibraryScript = path.resolve(here, '..', '..', 'scripts', 'demo-library.sh');

/// Where the demo library's photographs come from (Debian's mate-backgrounds package).
export const kNaturePhotos = '/usr/share/backgrounds/mate/nature';
/// How many photographs demo-library.sh puts in the library.
const kLibraryPhotos = 8;

// A warm look: reds lifted, blues cut. Rows run red fastest, as the .cube format has them.
const kWarmCube = [
  'TITLE "Warm"',
  'LUT_3D_SIZE 2',
  ...[0, 1].flatMap((b) =>
    [0, 1].flatMap((g) => [0, 1].map((r) => `${r ? 1 : 0.06} ${g ? 0.97 : 0.03} ${b ? 0.85 : 0}`)),
  ),
  '',
].join('\n');

/// Width and height from a PNG's IHDR; throws when the bytes are not a PNG.
function pngSize(bytes) {
  assert.equal(bytes.toString('latin1', 0, 16), '\x89PNG\r\n\x1a\n\0\0\0\rIHDR', 'not a PNG');
  return { width: bytes.readUInt32BE(16), height: bytes.readUInt32BE(20) };
}

/// The size of the one preview in `images`, asserting (when given) its aspect `width:height` to
/// within the rounding of one pixel.
function onePreview(images, [width, height] = [], what = 'preview') {
  assert.equal(images.length, 1, `${what}: ${images.length} images`);
  const size = pngSize(images[0]);
  if (width) {
    const expected = (size.width * height) / width;
    assert.ok(Math.abs(size.height - expected) <= 1, `${what}: ${size.width}×${size.height}, expected ${width}:${height}`);
  }
  return size;
}

// ---- Opening a session --------------------------------------------------------------------------

/// Makes the demo library in a scratch root, puts the warm look in the scratch home's luts folder,
/// starts velko-headless and velko-mcp in one private namespace and connects a client: `'sdk'`
/// (the official SDK's Client, the default) or `'ai-sdk'` (the AI SDK's, which needs Node 22).
/// Both validate every reply against their own schemas. `close()` ends both programs and
/// removes the scratch root.
export async function openSession(mcp, headless, { client: kind = 'sdk' } = {}) {
  const sandbox = sandboxedApplication(headless, [mcp]);
  let client = null;
  let serverLog = '';
  // The AI SDK's transport takes a descriptor for the child's standard error, not a pipe.
  const stderrFile = path.join(sandbox.root, 'velko-mcp.stderr');
  const readServerLog = () => serverLog || (existsSync(stderrFile) ? readFileSync(stderrFile, 'utf8') : '');
  const appLog = () => (existsSync(sandbox.log) ? readFileSync(sandbox.log, 'utf8') : '');
  const close = async () => {
    await client?.close();
    sandbox.close();
  };
  try {
    const made = spawnSync(kDemoLibraryScript, [sandbox.library], { encoding: 'utf8' });
    if (made.status !== 0) throw new Error(`${kDemoLibraryScript} failed: ${made.stderr || made.error}`);
    const luts = path.join(sandbox.home, '.velko', 'luts');
    mkdirSync(luts, { recursive: true });
    writeFileSync(path.join(luts, 'Warm.cube'), kWarmCube);

    if (kind === 'ai-sdk') {
      const fd = openSync(stderrFile, 'w');
      const transport = new Experimental_StdioMCPTransport({ command: sandbox.command, stderr: fd });
      try {
        // Its callTool ignores the SDK's result schema that runSession passes.
        client = await createMCPClient({ name: 'velko-session', transport });
        // The AI SDK turns every tool into one of its own, reading each input schema.
        const tools = client.toolsFromDefinitions(await client.listTools());
        assert.equal(Object.keys(tools).length, 50);
      } finally {
        closeSync(fd);
      }
    } else {
      const transport = new StdioClientTransport({ command: sandbox.command, stderr: 'pipe' });
      transport.stderr.on('data', (data) => (serverLog += data));
      client = new Client({ name: 'velko-session', version: '1.0.0' });
      await client.connect(transport);
    }
  } catch (error) {
    error.message += `\nstandard error of the wrapper and velko-mcp:\n${readServerLog()}\nvelko-headless's log:\n${appLog()}`;
    await close();
    throw error;
  }
  return { client, sandbox, serverLog: readServerLog, appLog, close };
}

// ---- The session --------------------------------------------------------------------------------

/// Runs the session on an open one. `onStep({ index, tool, args, outcome, images })` hears of each
/// call once its checks have passed (`images` are PNG buffers); a failed check throws, after
/// `onStep` has heard of it with `failed` set. Exports go to `exportDir` (default: in the scratch
/// root). Returns the number of steps.
export async function runSession({ client, sandbox }, { onStep = () => {}, exportDir = null } = {}) {
  exportDir ??= path.join(sandbox.root, 'exports');
  let index = 0;

  async function callTool(tool, args) {
    const result = await client.callTool({ name: tool, arguments: args }, CallToolResultSchema);
    const texts = result.content.filter((c) => c.type === 'text').map((c) => c.text);
    const images = result.content.filter((c) => c.type === 'image').map((c) => {
      assert.equal(c.mimeType, 'image/png', `${tool}: image type`);
      return Buffer.from(c.data, 'base64');
    });
    let json = null; // stays null when the text is a sentence
    try { json = JSON.parse(texts[0]); } catch {}
    return { isError: result.isError === true, texts, text: texts.join('\n'), images, json };
  }

  // One step: the call, the checks (which return the one-line outcome) and the report.
  async function step(tool, args, check, reply = null) {
    ++index;
    const r = reply ?? (await callTool(tool, args));
    let outcome;
    try {
      assert.equal(r.isError, false, `${tool} ${JSON.stringify(args)}: ${r.text}`);
      outcome = check(r);
    } catch (error) {
      onStep({ index, tool, args, outcome: error.message.split('\n')[0], images: r.images, failed: true });
      throw error;
    }
    onStep({ index, tool, args, outcome, images: r.images });
    return r;
  }

  // A step whose check is that the reply's JSON has these values at these keys.
  const expect = (tool, args, values, outcome) =>
    step(tool, args, ({ json }) => {
      for (const [key, value] of Object.entries(values)) {
        assert.deepEqual(json[key], value, `${tool} ${key}: ${JSON.stringify(json)}`);
      }
      return typeof outcome === 'function' ? outcome(json) : outcome;
    });

  // Repeats a call until `done` holds of its reply (at most a minute), then checks it as a step.
  async function poll(tool, args, done, check) {
    let r;
    for (let tries = 0; tries < 600; ++tries) {
      r = await callTool(tool, args);
      if (!r.isError && r.json && done(r.json)) break;
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
    return step(tool, args, check, r);
  }

  // Culling: the scan, finding photos by place and date, showing, selecting, rating, tagging.
  const scanned = (j) => j.photoCount === kLibraryPhotos;
  await poll('velko_ping', {}, scanned, ({ json }) => {
    assert.equal(json.photoCount, kLibraryPhotos, 'the first scan did not find the demo library');
    assert.equal(json.libraryAuthorized, true);
    return `${json.photoCount} photos indexed`;
  });

  const vancouver = { latitude: 49.283, longitude: -123.119, radiusMeters: 2000 };
  const inVancouver = await expect('velko_query', vancouver, { count: 1 },
    '1 photo within 2 km of Vancouver');
  const rain = inVancouver.json.ids[0];
  await expect('velko_exif', { id: rain }, { originalFilename: 'RainDrops.jpg' }, (j) =>
    `${j.originalFilename}: ${j.cameraMake} ${j.cameraModel}, ISO ${j.iso}, ${j.captureDate}`);

  const inJune = { dateFrom: '2024-06-01T00:00:00Z', dateTo: '2024-06-30T23:59:59Z' };
  const june = await step('velko_query', inJune, ({ json }) => {
    assert.equal(json.count, 2, JSON.stringify(json));
    const newest = json.sample[0].creationDate;
    assert.match(newest, /^2024-06-15/, 'newest first: the ladybird of 15 June');
    return '2 photos taken in June 2024';
  });
  const juneIds = june.json.ids;
  const ladybird = juneIds[0];
  const ladybirdSize = { width: june.json.sample[0].pixelWidth, height: june.json.sample[0].pixelHeight };

  await expect('velko_show', { ids: [rain, ...juneIds], title: 'Rain and June' }, { shown: 3 },
    (json) => `3 photos shown as "${json.title}"`);
  await expect('velko_select', { ids: juneIds, primary: ladybird },
    { primary: ladybird, selected: 2 }, '2 selected, the ladybird in focus');
  await step('velko_context', {}, ({ json, images }) => {
    assert.equal(json.focusID, ladybird);
    assert.deepEqual([...json.selectionIDs].sort(), [...juneIds].sort());
    const size = onePreview(images, [ladybirdSize.width, ladybirdSize.height], 'focus preview');
    return `focus on the ladybird, preview ${size.width}×${size.height}`;
  });
  await step('velko_rate', { ids: juneIds, rating: 4 }, ({ json }) => {
    assert.deepEqual(json, { updated: 2, skipped: [] });
    return '2 rated 4 stars';
  });
  await expect('velko_keyword_create', { name: 'summer' }, { name: 'summer' },
    (json) => `keyword "summer" (${json.id})`);
  await expect('velko_keyword_assign', { name: 'summer', ids: juneIds }, { updated: 2 },
    '2 photos tagged "summer"');

  // Editing the Vancouver photo (1920×1200).
  const untouched = await step('velko_edit_get', { id: rain }, ({ json }) => {
    assert.deepEqual(json.stack.values, {});
    return `untouched, version ${json.version}`;
  });
  const version = untouched.json.version;
  const ops = [
    { kind: 'exposure', scalar: 0.4 },
    { kind: 'contrast', scalar: 0.25 },
    { kind: 'vibrance', scalar: 0.3 },
  ];
  await step('velko_edit_set', { id: rain, ops, expectedVersion: version, preview: true }, ({ text, images }) => {
    assert.match(text, /^Applied\. newVersion \d+\. Preview 512×320\./);
    assert.deepEqual(onePreview(images), { width: 512, height: 320 });
    return `exposure +0.4, contrast +0.25, vibrance +0.3; preview 512×320`;
  });
  await step('velko_mask', { id: rain, type: 'radial', adjustments: { exposure: 0.3 }, preview: true }, ({ images }) => {
    assert.deepEqual(onePreview(images), { width: 512, height: 320 });
    return 'radial mask lifting the centre by +0.3 EV';
  });
  await step('velko_crop', { id: rain, x: 0.1, y: 0.1, width: 0.8, height: 0.6, preview: true }, ({ text, images }) => {
    assert.match(text, /^Cropped to x:0\.10 y:0\.10 w:0\.80 h:0\.60/);
    const size = onePreview(images, [1536, 720], 'cropped preview');
    assert.equal(size.width, 512);
    return `cropped to 1536×720, preview ${size.width}×${size.height}`;
  });
  await step('velko_lut', { id: rain, lut: 'Warm', intensity: 0.8, preview: true }, ({ images }) => {
    onePreview(images);
    return 'Warm look at 80%';
  });

  // A rendered preview of the cropped photo at the asked size (400 × 187.5).
  const render = (what) => ({ texts, images }) => {
    const size = onePreview(images, [1536, 720], what);
    assert.equal(size.width, 400);
    assert.match(texts[0], new RegExp(`^${size.width}×${size.height}, stack version \\d+$`));
    return `${what}: ${texts[0]}`;
  };
  await step('velko_preview_render', { id: rain, longEdge: 400 }, render('graded'));
  await expect('velko_snapshot_save', { id: rain, name: 'graded' }, { name: 'graded' },
    'snapshot "graded" saved');
  await step('velko_edit_reset', { id: rain }, ({ json }) => {
    assert.deepEqual(json.stack.values, {});
    assert.ok(!json.stack.masks?.length, 'reset keeps masks');
    return `back to the original, version ${json.version}`;
  });
  await step('velko_snapshot_restore', { id: rain, name: 'graded' }, ({ json }) => {
    assert.equal(json.stack.masks.length, 1);
    assert.ok(json.stack.values.crop, 'the restored stack has no crop');
    return `snapshot "graded" restored, version ${json.version}`;
  });
  await step('velko_preview_render', { id: rain, longEdge: 400 }, render('restored'));

  // Delivery: a PNG of the edited photo (the formats themselves are tests/app's).
  const pngDir = path.join(exportDir, 'png');
  await step('velko_export', { ids: [rain], directory: pngDir, format: 'png', longEdge: 600 }, ({ json }) => {
    assert.deepEqual(json.written, [path.join(pngDir, 'RainDrops.png')]);
    const size = onePreview([readFileSync(json.written[0])], [1536, 720], 'exported edit');
    assert.equal(size.width, 600);
    return `RainDrops.png ${size.width}×${size.height}`;
  });
  // Content: a photo from outside the library, the feature index, and a written description.
  const incoming = path.join(sandbox.root, 'incoming', 'Storm.jpg');
  mkdirSync(path.dirname(incoming), { recursive: true });
  copyFileSync(path.join(kNaturePhotos, 'Storm.jpg'), incoming);
  await step('velko_import', { paths: [incoming] }, ({ json }) => {
    assert.equal(json.importedIDs.length, 1, JSON.stringify(json));
    return `imported ${json.importedIDs[0]}`;
  });
  const indexed = (j) => j.indexed >= kLibraryPhotos;
  await poll('velko_find_similar', { id: rain, limit: 3 }, indexed, ({ json, images }) => {
    assert.ok(indexed(json), `only ${json.indexed} photos indexed`);
    assert.ok(json.matches.length > 0 && json.matches.length <= 3);
    assert.ok(!json.matches.some((m) => m.id === rain), 'the photo itself is among its matches');
    assert.equal(images.length, json.matches.length);
    images.forEach(pngSize);
    return `${json.indexed} indexed; nearest at distance ${json.matches[0].distance.toFixed(3)}`;
  });
  const annotation = { caption: 'A ladybird climbing a blade of grass', keywords: ['insect', 'grass', 'macro'] };
  await step('velko_annotate_set', { id: ladybird, annotation }, () => 'caption and keywords written');
  await expect('velko_query', { text: 'insect grass' }, { ids: [ladybird] },
    'found the ladybird by its description');
  return index;
}
