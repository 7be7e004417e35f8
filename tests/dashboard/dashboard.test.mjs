// Drives the devserver dashboard in headless chromium: create a poll through the form, watch
// its bars move as devices answer (no reload), delete it, and check that the token is needed.
//   node dashboard.test.mjs DEVSERVER_BINARY SCREENSHOT.png
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { randomBytes } from 'node:crypto';
import { chromium } from 'playwright-core';

const [binary, screenshot] = process.argv.slice(2);
if (!binary || !screenshot) {
  console.error('usage: node dashboard.test.mjs DEVSERVER_BINARY SCREENSHOT.png');
  process.exit(2);
}
const kWait = 15000;
const work = mkdtempSync(join(tmpdir(), 'quorvia-dashboard-'));
const token = randomBytes(16).toString('hex');
let server;
let broker;
let browser;

function check(condition, message) {
  if (!condition) throw new Error(`check failed: ${message}`);
  console.log(`ok - ${message}`);
}

function freePort() {
  return new Promise((resolve) => {
    const probe = createServer().listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
}

// Starts a mosquitto of the test's own for the push button; resolves with its URL once it
// says it runs.
async function startBroker() {
  const port = await freePort();
  const config = join(work, 'mosquitto.conf');
  writeFileSync(config, `listener ${port} 127.0.0.1\nallow_anonymous true\nlog_dest stderr\n`);
  broker = spawn('mosquitto', ['-c', config], { stdio: ['ignore', 'ignore', 'pipe'] });
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error('mosquitto did not start')), kWait);
    let log = '';
    broker.stderr.on('data', (chunk) => {
      log += chunk;
      if (log.includes(' running')) { clearTimeout(timer); resolve(`mqtt://127.0.0.1:${port}`); }
    });
    broker.on('error', reject);
  });
}

// Starts the devserver on a free loopback port and resolves with its base URL.
function startServer(brokerUrl) {
  server = spawn(binary, ['--port', '0', '--db', join(work, 'devserver.sqlite3'),
    '--admin-token', token, '--broker', brokerUrl], { stdio: ['ignore', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error('the devserver did not start')), kWait);
    let output = '';
    server.stdout.on('data', (chunk) => {
      output += chunk;
      const match = output.match(/^listening on (http:\/\/127\.0\.0\.1:\d+)$/m);
      if (match) { clearTimeout(timer); resolve(match[1]); }
    });
    server.on('exit', (code) => reject(new Error(`the devserver exited with ${code}`)));
  });
}

function stopServer() {
  if (!server || server.exitCode !== null) return Promise.resolve();
  return new Promise((resolve) => {
    const timer = setTimeout(() => { server.kill('SIGKILL'); resolve(); }, kWait);
    server.on('exit', () => { clearTimeout(timer); resolve(); });
    server.kill('SIGTERM');
  });
}

// A device as the SDK is one: it registers for a token, then replies. Resolves with the token.
async function answer(base, pushToken, pollId, replyText) {
  const registered = await fetch(`${base}/endpoints/`, {
    method: 'POST', body: `push_token=${pushToken}&app_token=demo-app&platform=ios` });
  const { access_token: accessToken } = await registered.json();
  const reply = await fetch(`${base}/polls/${pollId}/replies/`, {
    method: 'POST', headers: { Authorization: `JWT ${accessToken}` },
    body: `reply_text=${replyText}` });
  check(reply.status === 201, `device ${pushToken} replied "${replyText}"`);
  return accessToken;
}

const lastCall = (page, pushToken) =>
  page.locator(`#devices tr[data-push-token="${pushToken}"] td.last-call time`).getAttribute('datetime');

const barCount = (page, option) =>
  page.locator(`.bar[data-option="${option}"] .count`).textContent();

async function main() {
  const base = await startServer(await startBroker());
  // A fresh profile each run, so no cookie or cache of an earlier run takes part.
  browser = await chromium.launchPersistentContext(join(work, 'profile'), {
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    args: ['--no-sandbox', '--headless', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 1280, height: 860 },
  });
  const page = await browser.newPage();
  page.setDefaultTimeout(kWait);
  page.on('dialog', (dialog) => dialog.accept());

  await page.goto(`${base}/?token=${token}`);
  await page.locator('#live.on').waitFor();
  check(true, 'the dashboard loads and its event stream is live');

  await page.fill('#app-token', 'demo-app');
  await page.fill('#question', 'Tea, coffee or water? ☕');
  await page.click('#add-option');
  const texts = page.locator('.option-text');
  await texts.nth(0).fill('Tea');
  await page.locator('.option-link').nth(0).fill('https://example.com/tea');
  await texts.nth(1).fill('Coffee');
  await texts.nth(2).fill('Water');
  await page.selectOption('#category', 'A.B');
  await page.click('#create-poll');
  const item = page.locator('#polls li[data-poll-id]', { hasText: 'Tea, coffee or water?' });
  await item.waitFor();
  const pollId = Number(await item.getAttribute('data-poll-id'));
  check(pollId > 0, `the new poll ${pollId} is listed`);
  await page.locator(`.results[data-poll-id="${pollId}"]`).waitFor();
  check((await page.locator('.bar').count()) === 3, 'its results show a bar per option');

  // Replies arrive over the event stream; a reload would lose this marker.
  await page.evaluate(() => { window.notReloaded = true; });
  await answer(base, 'a1b2c3d4', pollId, 'Tea');
  await page.waitForFunction(() =>
    document.querySelector('.bar[data-option="Tea"] .count')?.textContent === '1');
  await answer(base, 'e5f6a7b8', pollId, 'Tea');
  const coffeeToken = await answer(base, 'c9d0e1f2', pollId, 'Coffee');
  await answer(base, '0a1b2c3d', pollId, 'Dismiss');
  await page.waitForFunction(() =>
    document.querySelector('.bar[data-option="Coffee"] .count')?.textContent === '1' &&
    document.querySelector('.bar[data-option="Tea"] .count')?.textContent === '2' &&
    document.querySelector('.dismissals strong')?.textContent === '1');
  check(await page.evaluate(() => window.notReloaded === true), 'the bars moved without a reload');
  check((await page.locator('.bar[data-option="Tea"] .percent').textContent()) === '66.7%',
    'Tea has two of three answers');
  check((await barCount(page, 'Water')) === '0', 'Water has none');
  await page.locator('#devices tbody tr', { hasText: 'c9d0e1f2' }).waitFor();
  check((await page.locator('table.replies tbody tr').count()) === 4, 'the replies log lists all four');

  // Any call of a device is its last call, shown as it happens: here a fetch of its polls.
  const replied = await lastCall(page, 'c9d0e1f2');
  check(Boolean(replied), 'the device\'s last call is its reply');
  const fetched = await fetch(`${base}/apps/demo-app/polls/`, {
    headers: { Authorization: `JWT ${coffeeToken}` } });
  check(fetched.status === 200, 'the device fetched its polls');
  await page.waitForFunction(({ token, before }) => {
    const cell = document.querySelector(`#devices tr[data-push-token="${token}"] td.last-call time`);
    return cell && cell.getAttribute('datetime') > before;
  }, { token: 'c9d0e1f2', before: replied });
  check(await page.evaluate(() => window.notReloaded === true), 'its last call moved without a reload');
  await page.screenshot({ path: screenshot });
  check(true, `results view saved to ${screenshot}`);

  await item.locator('button.push').click();
  await page.locator('#toast.show', { hasText: 'Pushed to 4 of 4 devices' }).waitFor();
  check(true, 'the push button reports the four devices the broker acknowledged');

  await item.locator('button.delete').click();
  await item.waitFor({ state: 'detached' });
  const polls = await (await fetch(`${base}/admin/polls`, {
    headers: { 'X-Quorvia-Admin-Token': token } })).json();
  check(polls.polls.length === 0, 'deleting removes the poll');

  const bare = await fetch(`${base}/admin/polls`);
  check(bare.status === 401, 'the admin API without the token is refused');
  await browser.clearCookies();
  const response = await page.goto(`${base}/`);
  check(response.status() === 401, 'the dashboard without the token is refused');
}

let failed = false;
try {
  await main();
} catch (error) {
  console.error(error);
  failed = true;
} finally {
  if (browser) await browser.close();
  await stopServer();
  if (broker) broker.kill('SIGKILL');
  rmSync(work, { recursive: true, force: true });
}
process.exit(failed ? 1 : 0);
