// The administrator's page in Debian's Chromium, through the whole road:
// log in, pick a share and a range, start, watch the progress, read the
// report, cancel a run, clean up, change the setting, log out. A
// screenshot of every step goes to VELA_PAGE_SHOTS; any console error or
// uncaught exception fails the run.
import { mkdirSync } from 'node:fs';
import { chromium } from 'playwright-core';

const env = process.env;
const [url, user, password, shots, shareName] = ['URL', 'USER', 'PASSWORD', 'SHOTS', 'SHARE'].map(
  (key) => env[`VELA_PAGE_${key}`],
);
const DESKTOP = { width: 1280, height: 860 };
const PHONE = { width: 390, height: 844 };
const problems = [];
mkdirSync(shots, { recursive: true });

function check(condition, what) {
  if (!condition) throw new Error(what);
}

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync'],
});
const page = await browser.newPage({ viewport: DESKTOP });
page.on('console', (message) => {
  if (message.type() === 'error') problems.push(`console error: ${message.text()}`);
});
page.on('pageerror', (error) => problems.push(`uncaught: ${error.message}`));

let step = 0;
async function shot(name, { phone = false } = {}) {
  step += 1;
  const prefix = `${String(step).padStart(2, '0')}-${name}`;
  await page.screenshot({ path: `${shots}/${prefix}-desktop.png`, fullPage: true });
  if (!phone) return;
  await page.setViewportSize(PHONE);
  await page.waitForTimeout(300);
  await page.screenshot({ path: `${shots}/${prefix}-phone.png`, fullPage: true });
  await page.setViewportSize(DESKTOP);
  await page.waitForTimeout(300);
}

// The module's own answer, asked with the page's session.
const report = () =>
  page.evaluate(async (share) => {
    const session = await (await fetch('/auth/session')).json();
    const answer = await fetch('/api/VELA.Snap.Usage.Share/1/get_report', {
      method: 'POST',
      headers: { 'X-Vela-CSRF': session.data.csrf_token },
      body: JSON.stringify({ share_name: share }),
    });
    return answer.json();
  }, shareName);

try {
  await page.goto(url);
  await page.locator('#login-view').waitFor();
  await shot('login', { phone: true });

  await page.fill('#login-user', user);
  await page.fill('#login-password', 'not the password');
  await page.click('#login-submit');
  await page.locator('#login-error', { hasText: 'Wrong user name or password.' }).waitFor();
  await shot('login-refused');

  await page.fill('#login-password', password);
  await page.click('#login-submit');
  await page.locator(`button.share[data-share="${shareName}"]`).waitFor();
  check((await page.textContent('#account-user')) === user, 'the page names the user');
  await shot('shares', { phone: true });

  await page.click(`button.share[data-share="${shareName}"]`);
  const dots = page.locator('#timeline circle.dot');
  await dots.first().waitFor();
  const count = await dots.count();
  check(count >= 3, `a timeline of the share's ${count} snapshots`);
  await shot('share');

  // Dates that end before they start are refused on the page itself.
  const from = await page.inputValue('#range-from');
  const to = await page.inputValue('#range-to');
  await page.fill('#range-from', to);
  await page.dispatchEvent('#range-from', 'change');
  await page.fill('#range-to', from);
  await page.dispatchEvent('#range-to', 'change');
  await page.locator('#range-summary', { hasText: 'The end of the range lies before its start.' }).waitFor();
  check(await page.isDisabled('#start'), 'no start for a range that ends before it starts');
  await shot('range-backwards');

  // The second to the last snapshot, clicked on the timeline.
  await dots.nth(count - 1).click();
  await dots.nth(1).click();
  await page.locator('#range-summary', { hasText: `${count - 1} snapshots chosen` }).waitFor();
  await shot('range', { phone: true });

  await page.click('#start');
  await page.locator('#progress-box').waitFor();
  await page.locator('#progress-text', { hasText: 'examined' }).waitFor({ timeout: 30000 });
  await shot('progress');

  await page.locator('#report').waitFor({ timeout: 60000 });
  const rows = page.locator('#report-table tbody tr');
  check((await rows.count()) === count - 1, 'a report row per chosen snapshot');
  const answer = await report();
  const accumulated = answer.data.snap_list.map((row) => String(row.accum_usage));
  const shown = await rows.locator('td:nth-child(4)').evaluateAll((cells) => cells.map((c) => c.title));
  check(JSON.stringify(shown) === JSON.stringify(accumulated.map((a) => `${a} bytes`)),
    `the table shows the module's figures: ${shown} vs ${accumulated}`);
  check((await page.locator('#chart rect.bar').count()) === count - 1, 'a bar per snapshot in the chart');
  await shot('report', { phone: true });

  // A run over every snapshot, cancelled while it goes on.
  await dots.first().click();
  await dots.nth(count - 1).click();
  await page.click('#start');
  await page.locator('#cancel').waitFor();
  await page.click('#cancel');
  await page.locator('#share-state', { hasText: 'The calculation was cancelled.' }).waitFor({ timeout: 30000 });
  await shot('cancelled');

  await page.click('#clean');
  await page.locator('#share-state', { hasText: 'cleaned up' }).waitFor();
  check(!(await report()).success, 'no report is left after the clean-up');
  await shot('cleaned');

  await page.uncheck('#reminder');
  await page.locator('#reminder-banner').waitFor({ state: 'hidden' });
  await page.reload();
  await page.locator('#app-view').waitFor();
  check(!(await page.isChecked('#reminder')), 'the setting is kept');
  await shot('after-reload');

  await page.click('#logout');
  await page.locator('#login-view').waitFor();
  await shot('logged-out');
} catch (error) {
  problems.push(`at step ${step + 1}: ${error.message}`);
  await page.screenshot({ path: `${shots}/failure.png`, fullPage: true }).catch(() => {});
} finally {
  await browser.close();
}

if (problems.length) {
  console.error(problems.join('\n'));
  process.exit(1);
}
console.log(`the whole road passed; screenshots in ${shots}`);
