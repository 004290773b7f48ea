// Shared pieces of the client tests: a scratch home directory that the programs see in place of
// the account's own, with the real velko-headless and velko-mcp run in it, and small helpers.
//
// velko-mcp takes its socket path from the password database's home directory, with no option or
// environment variable to move it. Each test therefore starts the programs through a wrapper
// script that runs them in a private mount namespace with a scratch directory bind-mounted over
// that home, so the real ~/.velko is never read or written. Where mount namespaces are not
// permitted the test reports itself skipped.
import { spawnSync } from 'node:child_process';
import { chmodSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';

/// Ends the process as skipped (the exit status CTest's SKIP_RETURN_CODE is set to), with the
/// reason on standard output.
export function skip(reason) {
  console.log(`SKIPPED: ${reason}`);
  process.exit(77);
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

// ---- The sandboxed server -----------------------------------------------------------------------

function quote(text) {
  if (text.includes("'")) throw new Error(`path with a single quote: ${text}`);
  return `'${text}'`;
}

// Inside the namespace the home is looked up again: with a user namespace the uid is 0 there,
// and the server will look up the same entry.
const kMount = 'home=$(getent passwd "$(id -u)" | cut -d: -f6) && mount --bind "$1" "$home"';

/// The unshare flags with which the wrapper's mount works here, or null: a plain mount namespace
/// when running as root, else one inside a user namespace mapped to root. The probe does exactly
/// what the wrapper does, with `true` in place of the server.
function namespaceFlags(home) {
  const probe = (flags) => spawnSync('unshare', [...flags, 'sh', '-c', `${kMount} && exec true`, 'sh', home]);
  return [['--mount'], ['--user', '--map-root-user', '--mount']].find((f) => probe(f).status === 0) ?? null;
}

// The real application and a command in one namespace: the application in the background over
// the library, the command in the foreground once the socket is there and the endpoint file names
// the application's pid; when the command ends, the application is stopped. Arguments: home,
// velko-headless, library, its log file, then the command and its arguments.
const kMountAndRunPair = `${kMount} || exit 97
"$2" --library "$3" --allow-saving --allow-delete </dev/null >"$4" 2>&1 &
app=$! log=$4
shift 4
i=0
until [ -S "$home/.velko/ipc.sock" ] && grep -Eq "\\"pid\\": *$app([^0-9]|$)" "$home/.velko/ipc-endpoint.json" 2>/dev/null; do
  i=$((i + 1))
  if [ $i -gt 600 ] || ! kill -0 $app 2>/dev/null; then
    echo "velko-headless did not come up; its log: $log" >&2
    kill $app 2>/dev/null
    exit 98
  fi
  sleep 0.05
done
"$@"
status=$?
kill $app 2>/dev/null && wait $app
exit $status`;

/// Prepares a scratch home and a wrapper script (`command`, run without arguments) that starts the
/// real application (`headless`) over `<root>/library` (made empty here, to be filled before the
/// wrapper runs) with saving and deleting allowed, and then `argv` (velko-mcp, or something that
/// starts it) in the same namespace. Skips the test when mount namespaces are not available.
/// `log` is the application's output; `close()` ends the application if it outlived the wrapper
/// and removes the scratch directory.
export function sandboxedApplication(headless, argv) {
  const root = mkdtempSync(path.join(tmpdir(), 'velko-session-'));
  const home = path.join(root, 'home');
  mkdirSync(home, { mode: 0o700 });
  const flags = namespaceFlags(home);
  if (!flags) {
    rmSync(root, { recursive: true, force: true });
    skip('mount namespaces are not permitted here (unshare --mount failed), so the home cannot be replaced');
  }
  const library = path.join(root, 'library');
  mkdirSync(library);
  const log = path.join(root, 'velko-headless.log');
  const command = path.join(root, 'velko-sandboxed');
  const args = [kMountAndRunPair, 'sh', home, headless, library, log, ...argv].map(quote).join(' ');
  writeFileSync(command, `#!/bin/sh\nexec unshare ${flags.join(' ')} sh -c ${args}\n`);
  chmodSync(command, 0o755);
  const close = () => {
    try {
      process.kill(JSON.parse(readFileSync(path.join(home, '.velko', 'ipc-endpoint.json'), 'utf8')).pid, 'SIGTERM');
    } catch {
      // no endpoint file, or already gone
    }
    rmSync(root, { recursive: true, force: true });
  };
  return { root, home, library, log, command, close };
}
