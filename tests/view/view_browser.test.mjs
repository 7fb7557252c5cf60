// tervainctl view in a real browser: headless Chromium driven by puppeteer-core, against the
// agent on the private test desktop with gtk3-widget-factory. Saves a picture of the page as
// view-page.png in the working folder.
import { test, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import puppeteer from 'puppeteer-core';

const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tervain-view-'));
const children = [];
after(() => {
  for (const child of children) child.kill('SIGTERM');
  fs.rmSync(dir, { recursive: true, force: true });
});

function start(command, args) {
  const child = spawn(command, args, { stdio: ['ignore', 'pipe', 'inherit'] });
  children.push(child);
  return child;
}

async function waitFor(what, check, seconds = 30) {
  const deadline = Date.now() + seconds * 1000;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > deadline) assert.fail(`timed out after ${seconds} s waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

test('the view page shows and drives gtk3-widget-factory', { timeout: 180_000 }, async () => {
  const socket = path.join(dir, 'agent.sock');
  start(process.env.TERVAIN_AGENT, ['--unix', socket, '--desktop', 'x11']);
  await waitFor('the agent socket', () => fs.existsSync(socket));
  start('gtk3-widget-factory', []);

  const view = start(process.env.TERVAIN_CTL, ['--connect', `unix:${socket}`, 'view']);
  const url = await new Promise((resolve, reject) => {
    readline.createInterface({ input: view.stdout }).once('line', resolve);
    view.once('exit', (code) => reject(new Error(`tervainctl view exited ${code}`)));
  });
  assert.match(url, /^http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]{32}$/);
  const refused = await fetch(url.replace(/token=.*/, 'token=wrong'));
  assert.equal(refused.status, 403);

  const browser = await puppeteer.launch({
    executablePath: process.env.TERVAIN_CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--window-size=1600,900'],
    defaultViewport: { width: 1600, height: 900 },
  });
  try {
    const page = await browser.newPage();
    const problems = [];
    page.on('console', (message) => { if (message.type() === 'error') problems.push(message.text()); });
    page.on('pageerror', (error) => problems.push(String(error)));
    await page.goto(url, { waitUntil: 'load' });

    // The screen: frames keep arriving.
    const frameUrl = () => page.$eval('#shot', (img) => (img.naturalWidth > 0 ? img.src : ''));
    const first = await waitFor('a first frame', frameUrl);
    await waitFor('a newer frame', async () => { const now = await frameUrl(); return now && now !== first; });

    // The tree lists the factory's page switcher.
    const treeText = () => page.$eval('#tree', (t) => t.innerText);
    await waitFor('the factory in the tree', async () => {
      const text = await treeText();
      if (/AXRadioButton "Page 1"/.test(text)) return true;
      await page.click('#refresh');
      return false;
    }, 60);
    const text = await treeText();
    for (const title of ['Page 1', 'Page 2', 'Page 3']) assert.match(text, new RegExp(`AXRadioButton "${title}"`));

    // Hovering a tree row outlines its element over the screen. The row is looked up afresh
    // each time (a tree read replaces the rows), the mouse leaves it in between so that it
    // enters again, and the tree is read again: an application just started may not have laid
    // out its elements, which then have no frame yet.
    const outline = await waitFor('an outline while a row is hovered', async () => {
      await page.mouse.move(0, 0);
      const row = await page.evaluateHandle(() =>
        [...document.querySelectorAll('#tree [data-ref]')].find((r) => /AXRadioButton "Page 2"/.test(r.textContent)));
      if (!(await row.evaluate((r) => r && r.isConnected))) return null;
      await row.hover();
      const seen = await page.$eval('#outline', (o) => ({ hidden: o.hidden, w: o.offsetWidth, h: o.offsetHeight }));
      if (!seen.hidden) return seen;
      await page.mouse.move(0, 0);
      await page.click('#refresh');
      await new Promise((r) => setTimeout(r, 500));
      return null;
    }, 30);
    assert.ok(outline.w > 10 && outline.h > 5, JSON.stringify(outline));

    // Interactive on: a click on the image over an unchecked check box toggles it in the factory.
    const checkBox = async () => page.evaluate(async () => {
      const reply = await (await fetch('/api/tree' + location.search)).json();
      const found = [];
      const walk = (n) => { if (n.role === 'AXCheckBox' && n.title === 'checkbutton' && n.enabled !== false) found.push(n); (n.children || []).forEach(walk); };
      if (reply.tree) walk(reply.tree);
      return found;
    });
    const before = (await checkBox()).find((n) => n.value === '0');
    assert.ok(before, 'an unchecked, enabled "checkbutton"');
    await page.click('#interactive');
    // Where the box is on the page, by the page's own mapping at that moment (none while no
    // frame is shown).
    const spot = () => page.evaluate((f) => {
      const k = pointsToDisplay();
      if (!(k > 0)) return null;
      const r = document.getElementById('shot').getBoundingClientRect();
      return { x: r.left + (f.x + 10) * k, y: r.top + (f.y + f.h / 2) * k };
    }, before.frame);
    // A loaded machine can take the first click before the application is ready for it. The
    // mouse first rests on the box until the page's hit test names it; the click is made again
    // (at most three, 5 s apart) until the box reads checked.
    const said = [];
    let clicks = 0, nextClick = 0, at = null;
    try {
      await waitFor('the check box to be checked', async () => {
        const now = (await checkBox()).find((n) => n.frame.x === before.frame.x && n.frame.y === before.frame.y);
        if (now && now.value === '1') return true;
        if (clicks >= 3 || Date.now() < nextClick) return false;
        at = await spot();
        if (!at) return false;
        await page.mouse.move(at.x - 3, at.y);
        await page.mouse.move(at.x, at.y);
        await new Promise((r) => setTimeout(r, 300));
        const hover = await page.$eval('#hover', (h) => h.textContent);
        if (!/AXCheckBox/.test(hover)) { said.push(hover); return false; }
        await page.mouse.click(at.x, at.y);
        ++clicks;
        nextClick = Date.now() + 5000;
        await new Promise((r) => setTimeout(r, 500));
        said.push(await page.$eval('#hover', (h) => h.textContent));
        return false;
      }, 40);
    } catch (error) {
      throw new Error(`${error.message}; pointed at ${JSON.stringify(at)} for ${JSON.stringify(before)}; the page said ${JSON.stringify(said.slice(-6))}`);
    }

    await page.screenshot({ path: 'view-page.png' });
    assert.deepEqual(problems, [], 'the page logged errors');
  } finally {
    await browser.close();
  }
});
