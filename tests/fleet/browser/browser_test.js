// browser_test.js CHROMIUM KEP-FLEET KEP-BOARDS NAMES: what a person does with the page, against the real server and
// simulated boards. With KEP_SCREENSHOTS set to a folder, pictures of it go there.
'use strict';

const assert = require('node:assert');
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { chromium } = require('playwright-core');

const [executablePath, server, player, names] = process.argv.slice(2);
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kep-browser-'));
const at = (file) => path.join(work, file);
const pictures = process.env.KEP_SCREENSHOTS;
const children = [];

// Resolves with what a line of the program's output says where it fits.
function start(program, args, pattern) {
  const child = spawn(program, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  children.push(child);
  return new Promise((resolve, reject) => {
    let said = '';
    const take = (bytes) => {
      said += bytes;
      const found = said.match(pattern);
      if (found) resolve(found);
    };
    child.stdout.on('data', take);
    child.stderr.on('data', take);
    child.on('exit', (status) => reject(new Error(`${program} ends with ${status}: ${said}`)));
  });
}

async function startAll() {
  const net = `127.${100 + Math.floor(Math.random() * 100)}.${Math.floor(Math.random() * 250)}.1`;
  await start(player, ['30', '--first', net, '--port', '19098', '--failing', '=3', '--dead', '=17', '--hostile', '=30',
    '--names', names, '--write-config', at('boards.toml'), '--control', at('control')], /boards at/);
  fs.writeFileSync(at('token'), 'correct-horse-battery\n', { mode: 0o600 });
  fs.writeFileSync(at('fleet.toml'), `store = "${at('fleet.db')}"\nlisten = "127.0.0.1:0"\n` +
    fs.readFileSync(at('boards.toml'), 'utf8').replace('"15s"', '"2s"') +
    '\n[http]\naddress = "127.0.0.1:0"\nprefix = "/kep"\ntoken_file = "token"\n');
  return (await start(server, ['--config', at('fleet.toml')], /the page is at (http\S+)/))[1];
}

const order = (line) => fs.writeFileSync(at('control'), `${line}\n`);

async function enter(page, base) {
  await page.goto(base);
  assert.match(page.url(), /login$/);
  for (const [token, seen] of [['wrong', '#wrong'], ['correct-horse-battery', '.row.well']]) {
    await page.fill('#token', token);
    await page.click('button');
    await page.waitForSelector(seen);
  }
}

async function findInFleet(page) {
  await page.waitForFunction(() => document.querySelectorAll('.row.unknown').length === 0);
  assert.strictEqual(await page.textContent('.counts [data-state=""] b'), '30');
  await page.selectOption('[data-label=site]', '=north');
  assert.strictEqual(await page.locator('.row').count(), 7);
  await page.fill('#search', 'BOARD-08');
  assert.strictEqual(await page.locator('.row').count(), 1);
  await page.fill('#search', '');
  await page.selectOption('[data-label=site]', '');
  await page.click('[data-state=failing]');
  assert.match(await page.textContent('.rows'), /board-17.*no connection/);
  await page.click('[data-state=failing]');
}

async function plotNumber(page, base) {
  await page.goto(`${base}#/board/board-01`);
  await page.click('button[data-title^="ports"][data-title$="received"] >> nth=0');
  await page.waitForFunction(() => document.querySelector('#canvas').dataset.points > 2);  // and it follows
  await page.click('[data-span=day]');
  await page.waitForSelector('#canvas canvas');
  assert.match(await page.textContent('#plot-note'), /B\/s; growth per second/);
  assert.ok(await page.locator('#runs a', { hasText: 'raw' }).count() > 1);
  assert.ok(await page.locator('tr.changed').count() > 5);
}

async function selfTest(page, base) {
  await page.goto(`${base}#/board/board-03`);
  for (const [verdict, text] of [['FAIL', /1 of 3 tests failed.*FAILsensors5 V rail4\.310 V/], ['PASS', /all 3 tests passed/]]) {
    await page.click('[data-act=selftest]');
    await page.waitForSelector(`.verdict.${verdict}`);
    assert.match(await page.textContent('#result'), text);
    order('mend 3');
  }
  await page.click('[data-act=collect]');
  await page.waitForSelector('text=collected in');
}

async function seeDeath(page, base) {
  await page.goto(base);
  await page.evaluate(() => { window.isSamePage = true; });
  await page.waitForSelector('.row.well:has-text("board-05")');
  order('die 5');
  await page.waitForSelector('.row.failing:has-text("board-05")');
  assert.ok(await page.evaluate(() => window.isSamePage));
}

async function showHostile(page) {
  await page.click('.row:has-text("<img src=x onerror=owned=30>")');
  await page.waitForSelector('h1:has-text("<img src=x onerror=owned=30>")');
  await page.waitForSelector('#values >> text=<script>owned=1</script>');
  assert.strictEqual(await page.evaluate(() => typeof window.owned), 'undefined');
  assert.strictEqual(await page.locator('main img, main svg, main script').count(), 0);
}

// Ten thousand boards cost the browser no more than those it shows.
async function showMany(page, base) {
  const boards = [...Array(10000).keys()].map((i) => ({ name: `b${i}`, address: `10.0.${i >> 8}.${i & 255}`, since: 1,
    labels: { site: `s${i % 9}` }, state: i % 50 ? 'well' : 'failing' }));
  const answer = { version: '1-1', all: true, now: 1, mayAct: true, counts: { well: 9800, failing: 200 }, boards };
  await page.route('**/api/fleet*', (route) => route.fulfill({ json: { ...answer } }));
  await page.goto(base);
  await page.waitForSelector('.row:has-text("b9950")');
  await page.fill('#search', 's7');
  await page.waitForSelector('text=of 1111', { timeout: 10000 });
  await page.click('[data-more]');
  assert.strictEqual(await page.locator('.row').count(), 400);
}

async function takePictures(browser, page, base) {
  await page.waitForTimeout(180000);  // for something to be seen in the plot
  const storageState = await page.context().storageState();
  for (const [name, options] of [['', { viewport: { width: 1200, height: 820 } }],
    ['-phone', { viewport: { width: 390, height: 780 }, deviceScaleFactor: 1.5 }]]) {
    const context = await browser.newContext({ ...options, storageState });
    const camera = await context.newPage();
    await camera.goto(base);
    await camera.waitForSelector('.row.failing');
    await camera.screenshot({ path: path.join(pictures, `fleet${name}.png`) });
    await camera.goto(`${base}#/board/board-01`);
    await camera.click('button[data-title^="sensors"] >> nth=0');
    await camera.waitForSelector('#canvas canvas');
    await camera.evaluate(() => window.scrollTo(0, 0));
    await camera.screenshot({ path: path.join(pictures, `fleet-board${name}.png`) });
    await context.close();
  }
}

async function main() {
  const base = await startAll();
  const args = process.getuid() === 0 ? ['--no-sandbox'] : [];
  const browser = await chromium.launch({ executablePath, args });
  try {
    const page = await browser.newPage();
    const complaints = [];  // what the content security policy kept from running is one, too
    page.on('console', (message) => message.type() === 'error' && complaints.push(message.text()));
    page.on('pageerror', (error) => complaints.push(error.message));
    page.on('dialog', (dialog) => complaints.push(dialog.message()));
    await enter(page, base);
    for (const step of [findInFleet, plotNumber, selfTest, seeDeath, showHostile]) await step(page, base);
    if (pictures) await takePictures(browser, page, base);
    await showMany(page, base);
    assert.deepStrictEqual(complaints, []);
  } finally {
    await browser.close();
  }
}

main().then(() => 0, (error) => {
  console.error(error);
  return 1;
}).then((status) => {
  for (const child of children) child.removeAllListeners('exit').kill('SIGTERM');
  fs.rmSync(work, { recursive: true, force: true });
  process.exit(status);
});
