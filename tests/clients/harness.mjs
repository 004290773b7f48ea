// Shared pieces of the client tests: a fake velko application answering on the IPC socket, a
// scratch home directory that the server sees in place of the account's own, and small helpers.
//
// velko-mcp takes its socket path from the password database's home directory, with no option or
// environment variable to move it. Each test therefore starts the server through a wrapper script
// that runs it in a private mount namespace with a scratch directory bind-mounted over that home,
// so the real ~/.velko is never read or written. Where mount namespaces are not permitted the test
// exits with kSkipExitCode, which CTest reports as skipped.
import { spawnSync } from 'node:child_process';
import { chmodSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import net from 'node:net';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { deflateSync } from 'node:zlib';

/// The exit status CTest's SKIP_RETURN_CODE is set to.
export const kSkipExitCode = 77;

/// Ends the process as skipped, with the reason on standard output.
export function skip(reason) {
  console.log(`SKIPPED: ${reason}`);
  process.exit(kSkipExitCode);
}

/// Runs one test body; a thrown error ends the process with status 1 and the error's text.
export async function main(body) {
  try {
    await body();
  } catch (error) {
    console.error(error?.stack ?? String(error));
    process.exit(1);
  }
  process.exit(0);
}

// ---- PNG ----------------------------------------------------------------------------------------

const crcTable = Array.from({ length: 256 }, (_, n) => {
  let c = n;
  for (let k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
  return c >>> 0;
});

function crc32(bytes) {
  let c = 0xffffffff;
  for (const b of bytes) c = crcTable[(c ^ b) & 0xff] ^ (c >>> 8);
  return (c ^ 0xffffffff) >>> 0;
}

function chunk(type, data) {
  const head = Buffer.alloc(8);
  head.writeUInt32BE(data.length, 0);
  head.write(type, 4, 'latin1');
  const crc = Buffer.alloc(4);
  crc.writeUInt32BE(crc32(Buffer.concat([head.subarray(4), data])), 0);
  return Buffer.concat([head, data, crc]);
}

/// A valid RGB PNG of width × height: a gradient, or the given `rgb` bytes (3 per pixel, rows top
/// down). `level` is the deflate level: 0 stores the pixels, so random ones give a known size.
export function makePng(width, height, { rgb, level = 9 } = {}) {
  const raw = Buffer.alloc(height * (1 + 3 * width));
  for (let y = 0, o = 0; y < height; ++y) {
    raw[o++] = 0; // filter: none
    if (rgb) {
      o += rgb.copy(raw, o, 3 * width * y, 3 * width * (y + 1));
      continue;
    }
    for (let x = 0; x < width; ++x, o += 3) {
      raw.set([(x * 255) / Math.max(1, width - 1), (y * 255) / Math.max(1, height - 1), 128], o);
    }
  }
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header.set([8, 2, 0, 0, 0], 8); // 8-bit RGB, no interlace
  return Buffer.concat([
    Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
    chunk('IHDR', header),
    chunk('IDAT', deflateSync(raw, { level })),
    chunk('IEND', Buffer.alloc(0)),
  ]);
}

// ---- The fake application -----------------------------------------------------------------------

export const kPreviewPng = makePng(8, 6).toString('base64');

export const kPhotoSummary = {
  id: 'p1', pixelWidth: 4032, pixelHeight: 3024, creationDate: '2024-05-01T08:30:00Z', formatLabel: 'HEIC',
  isFavorite: false, isHidden: false, durationSeconds: 0, playbackStyle: 1, sourceType: 1, representsBurst: false,
  canEditContent: true, canEditProperties: true, canDelete: true, hasAdjustments: true,
};

/// Canned replies by IPC method: a result value, or a function of the request's params returning
/// { result } or { error: { code, message } }.
export function cannedReplies() {
  return {
    'system.ping': { appVersion: '1.0', buildStamp: 't', protocolVersion: 1, libraryAuthorized: true, photoCount: 3 },
    'photo.rate': (params) => ({ result: { updated: params.ids.length, skipped: [] } }),
    'photo.get': (params) =>
      params.id === 'p1'
        ? { result: { photo: kPhotoSummary } }
        : { error: { code: -32602, message: `no photo with id ${params.id}` } },
    'app.context': {
      editorOpen: true,
      editorPhotoID: 'p1',
      focusID: 'p1',
      selectionIDs: ['p1'],
      primarySelectionID: 'p1',
      focus: kPhotoSummary,
      focusMetadata: { rating: 4, flag: 1, colorLabel: 0, hasEditStack: true },
      focusStack: { version: 3 },
    },
    'preview.render': { pngBase64: kPreviewPng, width: 8, height: 6, appliedStackVersion: 3, basedOnOriginal: true },
  };
}

/// A stand-in for the application: listens on <home>/.velko/ipc.sock, reads one newline-terminated
/// JSON-RPC request per connection, writes one reply line and closes, as the real one does.
/// Unknown methods get error -32601. Every request is kept in `requests`.
export class FakeApplication {
  constructor(home, replies = cannedReplies()) {
    this.socketPath = path.join(home, '.velko', 'ipc.sock');
    this.replies = replies;
    this.requests = [];
    this.server = net.createServer((socket) => this.serve(socket));
  }

  async start() {
    mkdirSync(path.dirname(this.socketPath), { recursive: true, mode: 0o700 });
    await new Promise((resolve, reject) => {
      this.server.once('error', reject);
      this.server.listen(this.socketPath, resolve);
    });
    return this;
  }

  close() {
    return new Promise((resolve) => this.server.close(() => resolve()));
  }

  /// The methods asked for so far, in order.
  methods() {
    return this.requests.map((r) => r.method);
  }

  serve(socket) {
    let pending = Buffer.alloc(0);
    socket.on('error', () => {});
    socket.on('data', (data) => {
      pending = Buffer.concat([pending, data]);
      const end = pending.indexOf(0x0a);
      if (end < 0) return;
      const request = JSON.parse(pending.subarray(0, end).toString('utf8'));
      this.requests.push(request);
      const reply = { jsonrpc: '2.0', id: request.id };
      const canned = this.replies[request.method];
      if (canned === undefined) {
        reply.error = { code: -32601, message: `unknown method ${request.method}` };
      } else if (typeof canned === 'function') {
        Object.assign(reply, canned(request.params ?? {}));
      } else {
        reply.result = canned;
      }
      socket.end(JSON.stringify(reply) + '\n');
    });
  }
}

// ---- The sandboxed server -----------------------------------------------------------------------

function quote(text) {
  if (text.includes("'")) throw new Error(`path with a single quote: ${text}`);
  return `'${text}'`;
}

// Inside the namespace the home is looked up again: with a user namespace the uid is 0 there,
// and the server will look up the same entry.
const kMountAndRun =
  'home=$(getent passwd "$(id -u)" | cut -d: -f6) && mount --bind "$1" "$home" && shift && exec "$@"';

/// The unshare flags with which the wrapper's mount works here, or null: a plain mount namespace
/// when running as root, else one inside a user namespace mapped to root. The probe does exactly
/// what the wrapper does, with `true` in place of the server.
function namespaceFlags(home) {
  for (const flags of [['--mount'], ['--user', '--map-root-user', '--mount']]) {
    const probe = spawnSync('unshare', [...flags, 'sh', '-c', kMountAndRun, 'sh', home, 'true'], {
      stdio: 'ignore',
    });
    if (probe.status === 0) return flags;
  }
  return null;
}

/// A scratch folder with a home inside it, and the unshare flags that put that home in place of
/// the account's; skips the test when mount namespaces are not available.
function scratchHome(prefix) {
  const root = mkdtempSync(path.join(tmpdir(), prefix));
  const home = path.join(root, 'home');
  mkdirSync(home, { mode: 0o700 });
  const flags = namespaceFlags(home);
  if (!flags) {
    rmSync(root, { recursive: true, force: true });
    skip('mount namespaces are not permitted here (unshare --mount failed), so the home cannot be replaced');
  }
  return { root, home, flags };
}

/// Writes an executable wrapper script at root/name that runs `script` with `args` in a private
/// mount namespace (with `flags`); returns its path.
function writeWrapper(root, name, flags, script, args) {
  const command = path.join(root, name);
  writeFileSync(command, `#!/bin/sh\nexec unshare ${flags.join(' ')} sh -c ${quote(script)} sh ${args.map(quote).join(' ')}\n`);
  chmodSync(command, 0o755);
  return command;
}

/// Prepares a scratch home and a wrapper script that starts `binary` with that home in place of
/// the account's. Skips the test when mount namespaces are not available. `command` is the
/// wrapper's path (no arguments needed); `close()` removes the scratch directory.
export function sandboxedServer(binary) {
  const { root, home, flags } = scratchHome('velko-clients-');
  const command = writeWrapper(root, 'velko-mcp-sandboxed', flags, kMountAndRun, [home, binary]);
  return { root, home, command, close: () => rmSync(root, { recursive: true, force: true }) };
}

// The real application and the server in one namespace: the application in the background over
// the library, the server in the foreground once the socket is there and the endpoint file names
// the application's pid; when the server ends, the application is stopped. Arguments: home,
// velko-headless, library, its log file, velko-mcp.
const kMountAndRunPair = `home=$(getent passwd "$(id -u)" | cut -d: -f6) && mount --bind "$1" "$home" || exit 97
"$2" --library "$3" --allow-saving --allow-delete </dev/null >"$4" 2>&1 &
app=$!
i=0
until [ -S "$home/.velko/ipc.sock" ] && grep -Eq "\\"pid\\": *$app([^0-9]|$)" "$home/.velko/ipc-endpoint.json" 2>/dev/null; do
  i=$((i + 1))
  if [ $i -gt 600 ] || ! kill -0 $app 2>/dev/null; then
    echo "velko-headless did not come up; its log: $4" >&2
    kill $app 2>/dev/null
    exit 98
  fi
  sleep 0.05
done
"$5"
status=$?
kill $app 2>/dev/null && wait $app
exit $status`;

/// Like sandboxedServer, but the wrapper also runs the real application (`headless`) over
/// `library` (default: <root>/library, to be filled before the wrapper runs) in the same
/// namespace, with saving and deleting allowed. `log` is the application's output; `appPid()`
/// reads its pid from the endpoint file (null once it is gone) and `close()` also ends the
/// application if it outlived the server.
export function sandboxedApplication(mcp, headless, library = null) {
  const { root, home, flags } = scratchHome('velko-session-');
  library ??= path.join(root, 'library');
  const log = path.join(root, 'velko-headless.log');
  const command = writeWrapper(root, 'velko-sandboxed', flags, kMountAndRunPair, [home, headless, library, log, mcp]);
  const appPid = () => {
    try {
      return JSON.parse(readFileSync(path.join(home, '.velko', 'ipc-endpoint.json'), 'utf8')).pid;
    } catch {
      return null;
    }
  };
  const close = () => {
    const pid = appPid();
    if (pid) {
      try {
        process.kill(pid, 'SIGTERM');
      } catch {
        // already gone
      }
    }
    rmSync(root, { recursive: true, force: true });
  };
  return { root, home, library, log, command, appPid, close };
}

/// The binary path from the command line, checked.
export function binaryArgument() {
  const binary = process.argv[2];
  if (!binary) {
    console.error(`usage: ${path.basename(process.argv[1])} <path to velko-mcp>`);
    process.exit(2);
  }
  return path.resolve(binary);
}
