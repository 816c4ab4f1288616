// The administrator's page in Debian's Chromium, the whole road as a new
// administrator walks it: a link to a share before logging in, a
// calculation watched in two tabs and cancelled in one, a failure and its
// reason, the report, what deleting some snapshots frees (held against the
// API and the kernel's quota groups), deleting them after a confirmation,
// the report marked, a plan, 200 snapshots on a phone picked by keyboard
// alone, reload and Back, an ended session and refused logins. Every step
// is checked by axe-core and shot at 1366×768 and 390×844 into
// VELA_PAGE_SHOTS; a console error or an uncaught exception fails the run.
import { mkdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { chromium } from 'playwright-core';

const env = process.env;
const [url, user, password, shots] = ['URL', 'USER', 'PASSWORD', 'SHOTS'].map((key) => env[`VELA_PAGE_${key}`]);
const manyIds = env.VELA_PAGE_MANY_IDS.split(',').map(Number);
const whatIfIds = env.VELA_PAGE_WHATIF_IDS.split(',').map(Number);
const kernelFreed = Number(env.VELA_PAGE_WHATIF_BYTES);
const pace = (value) => writeFileSync(env.VELA_PAGE_PACE_FILE, String(value));
const axeSource = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const DESKTOP = { width: 1366, height: 768 };
const PHONE = { width: 390, height: 844 };
const AXE_TAGS = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];
const problems = [];
const started = Date.now();
// This run's screenshots only.
rmSync(shots, { recursive: true, force: true });
mkdirSync(shots, { recursive: true });

function check(condition, what) {
  if (!condition) throw new Error(what);
}
const same = (a, b) => JSON.stringify(a) === JSON.stringify(b);

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync'],
});
const context = await browser.newContext({ viewport: DESKTOP });
const weight = { responses: [], counting: true };


function watch(p, name) {
  p.on('console', (message) => {
    if (message.type() === 'error') problems.push(`${name}: console error: ${message.text()}`);
  });
  p.on('pageerror', (error) => problems.push(`${name}: uncaught: ${error.message}`));
  p.on('response', (response) => {
    const path = new URL(response.url()).pathname;
    if (weight.counting && !path.startsWith('/api/') && !path.startsWith('/auth/')) weight.responses.push(response);
  });
  return p;
}
const page = watch(await context.newPage(), 'tab 1');

// Lets the page draw what a resize or an answer changed.
const settle = (p) => p.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));

async function axe(p, view) {
  if (!(await p.evaluate(() => 'axe' in window))) await p.evaluate(axeSource);
  const found = await p.evaluate((tags) => window.axe.run(document, { runOnly: { type: 'tag', values: tags } })
    .then((r) => r.violations.map((v) => `${v.id} (${v.impact}): ${v.help} at ${v.nodes.slice(0, 3)
      .map((n) => n.target.join(' ')).join(', ')}`)), AXE_TAGS);
  for (const violation of found) problems.push(`axe, ${view}: ${violation}`);
}

let step = 0;
// Checks the view with axe and shoots it at both sizes, the whole page or
// (for a dialog over it) what the screen shows; the page goes back to the
// size it had.
async function shot(name, p = page, { fullPage = true } = {}) {
  step += 1;
  const prefix = `${String(step).padStart(2, '0')}-${name}`;
  const size = p.viewportSize();
  for (const [viewport, label] of [[DESKTOP, 'desktop'], [PHONE, 'phone']]) {
    await p.setViewportSize(viewport);
    await settle(p);
    await axe(p, `${prefix}-${label}`);
    await p.screenshot({ path: `${shots}/${prefix}-${label}.png`, fullPage });
  }
  await p.setViewportSize(size);
  await settle(p);
}

// A module's answer, asked with the page's session.
const api = (p, path, body = {}) => p.evaluate(async ([apiPath, params]) => {
  const session = await (await fetch('/auth/session')).json();
  const answer = await fetch(`/api/${apiPath}`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Vela-CSRF': session.data.csrf_token },
    body: JSON.stringify(params),
  });
  return answer.json();
}, [path, body]);
const spaceGet = async (p, share) => (await api(p, 'VELA.Snap.Usage.Space/1/get', { share_name: share })).data;
const freed = async (p, share, ids) =>
  (await api(p, 'VELA.Snap.Usage.Space/1/freed', { share_name: share, subvol_ids: ids })).data;
const listed = async (p, share) =>
  (await api(p, 'VELA.Storage.Share.Snapshot/1/list', { share_name: share })).data.snapshots;

const rows = (p) => p.locator('#snapshot-table tbody tr');
const row = (p, id) => p.locator(`#snapshot-table tbody tr[data-id="${id}"]`);
const tickedIds = (p) => p.locator('#snapshot-table tbody tr.ticked').evaluateAll((trs) => trs.map((tr) => Number(tr.dataset.id)));
const shownFreed = async (p) => Number(await p.locator('#freed-bytes').getAttribute('data-bytes'));
const state = (p, text) => p.locator('#calc-state', { hasText: text }).waitFor({ timeout: 30000 });
const reportReady = (p) => p.locator('#report').waitFor({ timeout: 60000 });
const urlOf = (p) => new URL(p.url());

async function login(p) {
  await p.fill('#login-user', user);
  await p.fill('#login-password', password);
  await p.click('#login-submit');
  await p.locator('#app-view').waitFor();
}

// The figure shown for the ticks of now, once the page has it.
async function figureFor(p, ids) {
  await p.locator('#whatif-figure', { hasText: `${ids.length} snapshot` }).waitFor();
  await p.locator('#freed-bytes').waitFor();
  return shownFreed(p);
}

let home = [];
try {
  // A link to a share, opened before logging in, leads to it after.
  await page.goto(`${url}?share=%40home`);
  await page.locator('#login-view').waitFor();
  await page.waitForLoadState('networkidle');
  weight.counting = false;
  weight.bytes = (await Promise.all(weight.responses.map((r) => r.body()))).reduce((sum, body) => sum + body.length, 0);
  await shot('login');

  await page.fill('#login-user', user);
  await page.fill('#login-password', 'not the password');
  await page.click('#login-submit');
  await page.locator('#login-error', { hasText: 'Wrong user name or password.' }).waitFor();
  await shot('login-refused');

  await login(page);
  await page.locator('#share-title', { hasText: 'Share @home' }).waitFor();
  check(await page.evaluate(() => document.activeElement.id === 'share-title'), 'the open share has the focus');
  check(await page.evaluate(() => document.getElementById('share-panel').getBoundingClientRect().top < innerHeight),
    'the open share is scrolled into view');
  const homeMeta = await page.textContent('button.share[data-share="@home"] .share-meta');
  check(/GiB free of .*GiB/.test(homeMeta) || /MiB free of/.test(homeMeta), `the volume's space with the share: ${homeMeta}`);
  await page.locator('#share-meta', { hasText: 'free of' }).waitFor();
  // Chart labels carry the year when, and only when, the times span years.
  const labels = await page.evaluate(async () => {
    const { formatAxisTime } = await import('/js/format.js');
    const at = (text) => new Date(text).getTime() / 1000;
    const [a, b, c, d] = ['2025-12-30T10:00', '2026-01-02T10:00', '2026-03-01T10:00', '2026-05-01T10:00'].map(at);
    return [formatAxisTime(a, a, b), formatAxisTime(c, c, d)];
  });
  check(same(labels, ['2025-12-30', '03-01']), `chart labels: ${labels}`);
  home = await listed(page, '@home');
  check(home.length === 5, `five snapshots of @home: ${home.length}`);
  await shot('share-opened');

  // Keyboard only: the second to the fourth snapshot, calculated.
  pace(2);
  await page.focus('#range-from');
  await page.keyboard.press('Home');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Tab');
  await page.keyboard.press('End');
  await page.keyboard.press('ArrowUp');
  await page.locator('#range-summary', { hasText: '3 snapshots to calculate' }).waitFor();
  await page.keyboard.press('Tab');
  check(await page.evaluate(() => document.activeElement.id === 'start'), 'Tab leads from the range to Calculate');
  await page.keyboard.press('Enter');
  await page.locator('#progress-text', { hasText: '%' }).waitFor({ timeout: 30000 });
  check(await page.evaluate(() => document.activeElement.id === 'cancel'), 'Cancel has the focus once started');
  const percent = Number(await page.getAttribute('#progress', 'value'));
  check(percent < 100, `the progress is the recorded one, not raised to the end: ${percent} %`);
  await shot('progress');

  // A second tab on the same share follows the calculation and its cancel.
  const page2 = watch(await context.newPage(), 'tab 2');
  await page2.goto(page.url());
  await page2.locator('#cancel').waitFor({ timeout: 15000 });
  await page2.locator('#progress-text', { hasText: '%' }).waitFor();
  await shot('second-tab-follows', page2);
  await page.click('#cancel');
  await state(page, 'was cancelled');
  await state(page2, 'was cancelled');
  await shot('cancelled-seen-in-the-other-tab', page2);

  // A provider that fails half way: the reason is told, in words.
  pace('fail');
  await page2.click('#start');
  await state(page2, 'failed');
  const failed = await spaceGet(page2, '@home');
  const failure = await page2.textContent('#calc-state');
  check(failed.reason && failure.includes(failed.reason), `the failure's reason: ${failure}`);
  await state(page, 'failed');
  await shot('failed', page2);
  await page2.close();

  // The report of the keyboard's range: exactly the second to the fourth.
  pace(0);
  await page.click('#start');
  await reportReady(page);
  const report = await spaceGet(page, '@home');
  check(same(report.snap_list.map((s) => s.subvol_id), home.slice(1, 4).map((s) => s.subvol_id)),
    `the range chosen by keyboard: ${JSON.stringify(report.snap_list.map((s) => s.subvol_id))}`);
  const oldReport = (await api(page, 'VELA.Snap.Usage.Share/1/get_report', { share_name: '@home' })).data;
  for (const [i, entry] of report.snap_list.entries()) {
    const cells = row(page, entry.subvol_id).locator('td.number');
    const shown = await cells.evaluateAll((tds) => tds.map((td) => Number(td.dataset.bytes)));
    check(same(shown, [entry.alone_bytes, entry.added_bytes, entry.accum_bytes]), `row ${i} shows the API's figures`);
    check(entry.accum_bytes === oldReport.snap_list[i].accum_usage, `row ${i} agrees with the report of the usage module`);
  }
  check(/Calculated over .* to .*: 3 snapshots, ended /.test(await page.textContent('#report-about')),
    'the report tells its range, end and snapshots');
  check((await page.locator('#snapshot-table tr.outside').count()) === 2, 'two snapshots outside the report');
  await shot('report');

  // Another range chosen: the report says it is not of that range.
  await page.selectOption('#range-from', String(home[0].subvol_id));
  await page.locator('#report-stale', { hasText: 'not the one of this report' }).waitFor();
  await shot('report-of-another-range');

  // Every snapshot; what deleting the first and the third frees.
  await page.selectOption('#range-to', String(home[4].subvol_id));
  await page.click('#start');
  await page.locator('#report-about', { hasText: '5 snapshots' }).waitFor({ timeout: 60000 });
  const [first, , third] = home;
  await row(page, first.subvol_id).locator('td.when').click();
  await row(page, third.subvol_id).locator('input').click();
  const pair = [first.subvol_id, third.subvol_id];
  check(same(await tickedIds(page), pair), 'a click ticks a row');
  const pairFreed = await figureFor(page, pair);
  check(pairFreed === (await freed(page, '@home', pair)).freed_bytes, 'the what-if figure is the API\'s');
  check(urlOf(page).searchParams.get('tick') === pair.join(','), `the ticks are in the address: ${page.url()}`);
  await shot('what-if');

  // Reload, and Back from another share, keep the share and the ticks.
  await page.reload();
  await page.locator('#freed-bytes').waitFor();
  check(same(await tickedIds(page), pair) && (await shownFreed(page)) === pairFreed, 'a reload keeps the ticks');
  await page.click('button.share[data-share="many"]');
  await page.locator('#share-title', { hasText: 'Share many' }).waitFor();
  await page.goBack();
  await page.locator('#share-title', { hasText: 'Share @home' }).waitFor();
  await page.locator('#freed-bytes').waitFor();
  check(same(await tickedIds(page), pair), 'Back returns to the share with its ticks');
  await shot('after-reload-and-back');

  // Deleting asks first, names the snapshots and the figure; Keep keeps.
  await page.click('#delete');
  const dialog = page.locator('#confirm');
  await dialog.waitFor();
  const asked = await dialog.textContent();
  check(asked.includes('Delete 2 snapshots?') && asked.includes(first.path) && asked.includes(third.path),
    `the confirmation names the snapshots: ${asked}`);
  check(asked.includes(await page.textContent('#freed-bytes')), 'the confirmation names the figure');
  check(await page.evaluate(() => document.activeElement.id === 'confirm-no'), 'the safe answer has the focus');
  await shot('confirm-delete', page, { fullPage: false });
  await page.keyboard.press('Escape');
  check(await page.evaluate(() => document.activeElement.id === 'delete'), 'the focus returns after Escape');
  check((await listed(page, '@home')).length === 5, 'Escape deletes nothing');
  await page.click('#delete');
  await page.click('#confirm-yes');
  await page.locator('#action-result', { hasText: 'Deleted 2 snapshots.' }).waitFor({ timeout: 15000 });
  const left = (await listed(page, '@home')).map((s) => s.subvol_id);
  check(same(left, [home[1], home[3], home[4]].map((s) => s.subvol_id)), `the two are gone, no other: ${left}`);
  check((await page.locator('#snapshot-table tr.deleted').count()) === 2, 'the report marks them deleted');
  check(await page.evaluate(() => document.activeElement.id === 'recalc'), 'a new calculation is offered');
  check(await page.locator('#whatif').isHidden(), 'no what-if on a report whose snapshots were deleted');
  await shot('deleted');

  await page.click('#recalc');
  await page.locator('#report-about', { hasText: '3 snapshots' }).waitFor({ timeout: 60000 });
  check((await page.locator('#snapshot-table tr.deleted').count()) === 0, 'the new report has no deleted rows');

  // "Forget this report" asks too.
  await page.click('#forget');
  await dialog.waitFor();
  await shot('confirm-forget', page, { fullPage: false });
  await page.click('#confirm-yes');
  await page.locator('#action-result', { hasText: 'The report is forgotten' }).waitFor();
  await page.locator('#report').waitFor({ state: 'hidden' });
  await shot('forgotten');

  // 200 snapshots.
  await page.click('button.share[data-share="many"]');
  await page.locator('#range-summary', { hasText: '200 snapshots to calculate' }).waitFor();
  await page.click('#start');
  await page.locator('#report-about', { hasText: '200 snapshots' }).waitFor({ timeout: 60000 });
  check((await rows(page).count()) === 200, 'a row per snapshot');

  // What deleting a set that is no run frees: the page, the API and the kernel agree.
  const [a, b, c, d, e] = whatIfIds;
  await row(page, a).locator('td.when').click();
  await row(page, c).locator('td.when').click({ modifiers: ['Shift'] });
  await row(page, d).locator('input').click();
  await row(page, e).locator('input').click();
  check(same(await tickedIds(page), [a, b, c, d, e]), `a click, a shift-click and two clicks: ${await tickedIds(page)}`);
  const shown = await figureFor(page, whatIfIds);
  const answer = await freed(page, 'many', whatIfIds);
  check(shown === answer.freed_bytes && shown === kernelFreed,
    `page ${shown}, API ${answer.freed_bytes} and kernel ${kernelFreed} agree on what the set frees`);
  check((await page.locator('#files-list li').count()) === Math.min(20, answer.files.length), 'its largest files');
  await page.locator('#whatif').scrollIntoViewIfNeeded();
  await shot('what-if-200');

  // A plan, ticked in one click: the figure is the plan's.
  await page.fill('#plan-size', '0.25');
  await page.selectOption('#plan-unit', 'MiB');
  await page.fill('#plan-keep', '10');
  await page.click('#plan-form button[type="submit"]');
  const fewest = page.locator('.proposal').nth(1);
  await fewest.waitFor();
  const planned = Number(await fewest.locator('[data-bytes]').getAttribute('data-bytes'));
  await fewest.locator('button').click();
  check((await figureFor(page, await tickedIds(page))) === planned, 'the ticked plan frees what it said');
  await shot('plan');

  // On a phone, by keyboard alone: Space, four down and Shift+Space tick
  // the five oldest; five more down and Space the tenth.
  await page.setViewportSize(PHONE);
  await page.click('#tick-none');
  await page.keyboard.press('Tab');
  check(await page.evaluate(() => document.activeElement.matches('#snapshot-table input')), 'Tab leads into the table');
  await page.keyboard.press('Home');
  await page.keyboard.press('Space');
  for (let i = 0; i < 4; i += 1) await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Shift+Space');
  for (let i = 0; i < 5; i += 1) await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Space');
  const intended = [...manyIds.slice(0, 5), manyIds[9]];
  check(same(await tickedIds(page), intended), `the keyboard's ticks: ${await tickedIds(page)}`);
  check((await figureFor(page, intended)) === (await freed(page, 'many', intended)).freed_bytes,
    'the keyboard\'s set frees what the API says');
  const overflow = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
  check(overflow <= 0, `nothing wider than a phone: ${overflow} px too wide`);
  await shot('phone-200-keyboard');
  await page.setViewportSize(DESKTOP);

  // The session ends elsewhere: the page says so, and what it kept.
  const page3 = watch(await context.newPage(), 'tab 3');
  await page3.goto(url);
  await page3.locator('#app-view').waitFor();
  await page3.click('#logout');
  await page3.close();
  await page.locator('#login-error', { hasText: 'Kept: the share you had open' }).waitFor({ timeout: 15000 });
  await shot('session-ended');
  await login(page);
  await page.locator('#freed-bytes').waitFor();
  check(same(await tickedIds(page), intended), 'after logging in again, the share and its ticks are back');

  // Refused logins say for how long.
  await page.click('#logout');
  for (let i = 0; i < 8 && !(await page.textContent('#login-error')).includes('try again in'); i += 1) {
    await page.fill('#login-user', user);
    await page.fill('#login-password', `wrong ${i}`);
    await page.click('#login-submit');
    await page.locator('#login-error:not(:empty)').waitFor();
    await page.waitForFunction(() => !document.getElementById('login-submit').disabled ||
      document.getElementById('login-error').textContent.includes('try again in'));
  }
  check(/try again in \d+ (second|minute)s?, at \d\d:\d\d:\d\d/.test(await page.textContent('#login-error')),
    'the refusal says how long');
  await shot('logins-refused');
} catch (error) {
  problems.push(`at step ${step + 1}: ${error.message}`);
  await page.screenshot({ path: `${shots}/failure.png`, fullPage: true }).catch(() => {});
} finally {
  await browser.close();
}

console.log(`page weight: ${weight.bytes} bytes of HTML, JS, CSS and icon in ${weight.responses.length} requests`);
console.log(`the road took ${((Date.now() - started) / 1000).toFixed(1)} s; screenshots in ${shots}`);
if (problems.length) {
  console.error(problems.join('\n'));
  process.exit(1);
}
