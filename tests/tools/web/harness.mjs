// Shared by the node tests of the web server: arguments, a visible skip, the packages of the
// web/ npm project, and the C++ test server as a child that is always reaped.
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';

export const SKIP = 77; // ctest's SKIP_RETURN_CODE for these tests

export function args() {
  const out = {};
  const argv = process.argv.slice(2);
  for (let i = 0; i + 1 < argv.length; i += 2) out[argv[i].replace(/^--/, '')] = argv[i + 1];
  return out;
}

export function skip(reason) {
  console.log(`SKIPPED: ${reason}`);
  process.exit(SKIP);
}

// require() for the packages installed in web/node_modules, skipping when they are missing.
export function packagesOf(webDir) {
  if (!existsSync(path.join(webDir, 'node_modules')))
    skip(`${path.join(webDir, 'node_modules')} is missing: run scripts/setup (npm ci)`);
  return createRequire(path.resolve(webDir, 'package.json'));
}

export async function waitFor(what, predicate, timeoutMs = 15000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await predicate();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 50));
  }
}

// Starts korvan_web_test_server; resolves once it listens. Its stdout lines are collected.
export async function startServer(binary, extra = []) {
  const child = spawn(binary, ['--port', '0', ...extra], { stdio: ['pipe', 'pipe', 'inherit'] });
  const lines = [];
  let exited = false;
  const exit = new Promise((resolve) =>
    child.on('exit', (code, signal) => {
      exited = true;
      resolve({ code, signal });
    }),
  );
  readline.createInterface({ input: child.stdout }).on('line', (line) => lines.push(line));
  const server = {
    lines,
    port: 0,
    async stop() {
      if (!exited) {
        child.stdin.end(); // the server ends when its input closes
        const timer = setTimeout(() => child.kill('SIGKILL'), 10000);
        await exit;
        clearTimeout(timer);
      }
    },
  };
  try {
    const line = await waitFor('the test server to listen', () => {
      if (exited) throw new Error('the test server exited before listening');
      return lines.find((l) => l.startsWith('listening on port '));
    });
    server.port = Number(line.split(' ').pop());
  } catch (e) {
    await server.stop();
    throw e;
  }
  return server;
}

// Runs `body(server)` against a fresh test server and exits with the outcome.
export async function run(name, binary, extra, body) {
  let server;
  let failed = false;
  try {
    server = await startServer(binary, extra);
    await body(server);
  } catch (e) {
    failed = true;
    console.error(`${name}: FAILED: ${e.stack || e}`);
  } finally {
    if (server) await server.stop();
  }
  if (!failed) console.log(`${name}: passed`);
  process.exit(failed ? 1 : 0);
}

export function check(condition, message) {
  if (!condition) throw new Error(message);
}

// Debian's chromium, headless, under playwright-core (which never downloads a browser of its
// own), with a throw-away profile: `body(page, pageErrors)` runs on a fresh page. Skips when
// the browser or the built page (`pageDir`, optional) is missing.
export async function withBrowser(require, pageDir, body) {
  const chromiumPath = process.env.KORVAN_CHROMIUM || '/usr/bin/chromium';
  if (!existsSync(chromiumPath)) skip(`${chromiumPath} is missing: install Debian's chromium (scripts/setup)`);
  if (pageDir && !existsSync(path.join(pageDir, 'index.html'))) skip(`the page is not built in ${pageDir}`);
  const { chromium } = require('playwright-core');
  const profile = mkdtempSync(path.join(os.tmpdir(), 'korvan-web-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: chromiumPath,
    headless: true,
    viewport: { width: 1400, height: 1000 },
    args: [
      '--headless',
      '--no-sandbox',
      '--disable-gpu',
      '--disable-quic',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
    ],
  });
  const pageErrors = [];
  try {
    const page = context.pages()[0] || (await context.newPage());
    page.on('pageerror', (e) => pageErrors.push(String(e)));
    await body(page, pageErrors);
    check(pageErrors.length === 0, `errors on the page: ${pageErrors.join('; ')}`);
  } finally {
    await context.close();
    rmSync(profile, { recursive: true, force: true });
  }
}

// Runs `body()` and exits with its outcome: 0 passed, 1 failed.
export async function outcome(name, body) {
  try {
    await body();
  } catch (e) {
    console.error(`${name}: FAILED: ${e.stack || e}`);
    process.exit(1);
  }
  console.log(`${name}: passed`);
  process.exit(0);
}
