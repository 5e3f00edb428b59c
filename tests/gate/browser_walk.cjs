// A visitor in a real browser (the system's chromium, headless) walks through the gate: what
// only a browser shows (the stylesheet under the pages' security policy, the cookie as kept,
// POST then GET, no console errors, a narrow screen). Every page is saved as a screenshot.
//   node browser_walk.cjs PASSWORD_LINK PASSWORD GROUP_LINK SHOT_DIR PROFILE_DIR
// playwright-core is found through NODE_PATH.
'use strict';
const { chromium } = require('playwright-core');
const path = require('path');

const [passwordLink, password, groupLink, shotDir, profileDir] = process.argv.slice(2);
const shots = [];
const problems = [];

function check(condition, what) {
  console.log(`   ${condition ? 'ok  ' : 'FAIL'}  ${what}`);
  if (!condition) problems.push(what);
}

async function shot(page, name) {
  const file = path.join(shotDir, `${String(shots.length + 1).padStart(2, '0')}-${name}.png`);
  await page.screenshot({ path: file, fullPage: true });
  shots.push(file);
}

async function submit(page, fields) {
  for (const [name, value] of Object.entries(fields)) await page.fill(`input[name="${name}"]`, value);
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
}

const inside = async (page, text) => (await page.textContent('h1')).trim() === 'Shared with you' &&
  (await page.textContent('main')).includes(text);

async function main() {
  const context = await chromium.launchPersistentContext(profileDir, {
    executablePath: '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 800, height: 600 },
  });
  context.setDefaultTimeout(15000);
  const page = context.pages()[0] || (await context.newPage());
  // A script error or a refused stylesheet shows up here (a refusal's own status 403 too: that
  // one is expected).
  const consoleErrors = [];
  page.on('console', (m) => {
    if (m.type() === 'error' && !/status of 403/.test(m.text())) consoleErrors.push(m.text());
  });
  page.on('pageerror', (e) => consoleErrors.push(String(e)));

  const response = await page.goto(passwordLink);
  check(response.status() === 200 && await page.isVisible('input[name="password"]'), 'a password form');
  const background = await page.$eval('button', (b) => getComputedStyle(b).backgroundColor);
  check(background !== 'rgba(0, 0, 0, 0)' && background !== 'rgb(239, 239, 239)',
    `the stylesheet applies (button ${background})`);
  await shot(page, 'password-form');
  await submit(page, { password: 'a wrong guess' });
  check((await page.textContent('.notice.error') || '').includes('does not open'),
    'a wrong password is refused');
  await shot(page, 'wrong-password');

  await submit(page, { password });
  check(await inside(page, 'Summer photos'), 'the right password lets in');
  check(page.url() === passwordLink, 'the browser is back on the link (POST, then GET)');
  const sid = (await context.cookies()).find((c) => c.name.startsWith('sharing_sid_'));
  check(sid && sid.httpOnly && sid.sameSite === 'Lax' && !sid.secure &&
    sid.path === new URL(passwordLink).pathname && sid.domain === '127.0.0.1',
  'the session cookie is HttpOnly, SameSite=Lax, for this host and the gate\'s path only');
  await shot(page, 'content');
  check((await page.reload()).request().method() === 'GET' && await inside(page, 'Summer photos'),
    'a reload sends no form again and the visitor is still in');

  await Promise.all([page.waitForNavigation(), page.click('button.quiet')]);
  check((await page.textContent('.notice.info') || '').includes('logged out'), 'log out says so');
  check(!(await context.cookies()).some((c) => c.name.startsWith('sharing_sid_')),
    'log out drops the session cookie');
  await shot(page, 'logged-out');

  await page.goto(groupLink);
  await shot(page, 'account-form');
  await submit(page, { zel_username: 'ann', zel_password: 'ann-demo-pw' });
  check(await inside(page, 'Annual report'), 'ann, a reviewer, is let in by the account form');
  await shot(page, 'account-content');

  await page.setViewportSize({ width: 360, height: 740 });
  await page.goto(passwordLink);
  check(!(await page.evaluate(
    () => document.documentElement.scrollWidth > document.documentElement.clientWidth)),
  'the form fits a narrow screen without sideways scrolling');
  await shot(page, 'phone-password-form');
  check(consoleErrors.length === 0, `no errors in the browser console ${consoleErrors.join(' | ')}`);
  await context.close();
}

main().then(() => {
  for (const file of shots) console.log(`   ${file}`);
  if (problems.length) {
    console.log(`== ${problems.length} checks failed`);
    process.exit(1);
  }
  console.log('== every browser check passed');
}, (error) => {
  console.error(error);
  process.exit(1);
});
