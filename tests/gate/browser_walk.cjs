// A visitor in a real browser (the system's chromium, headless) walks through the gate: what
// only a browser shows (the stylesheet under the pages' security policy, the cookie as kept,
// POST then GET, where the keyboard focus is, no console errors, a narrow screen), with
// axe-core's accessibility check of every page in light and dark. Every page is saved as a
// screenshot.
//   node browser_walk.cjs PASSWORD_LINK PASSWORD GROUP_LINK SHOT_DIR PROFILE_DIR
// playwright-core is found through NODE_PATH.
'use strict';
const { chromium } = require('playwright-core');
const fs = require('fs');
const path = require('path');

const axeSource = fs.readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

const [passwordLink, password, groupLink, shotDir, profileDir] = process.argv.slice(2);
const shots = [];
const problems = [];

function check(condition, what) {
  console.log(`   ${condition ? 'ok  ' : 'FAIL'}  ${what}`);
  if (!condition) problems.push(what);
}

// axe-core in the page (evaluated by the browser's debugger, so the pages' policy, which
// allows no script, stays as it is), in both colour schemes; serious or critical findings fail.
async function accessible(page, name) {
  for (const colorScheme of ['light', 'dark']) {
    await page.emulateMedia({ colorScheme });
    const found = await page.evaluate(`${axeSource}; axe.run(document, { resultTypes: ['violations'] })
      .then((r) => r.violations.filter((v) => v.impact === 'serious' || v.impact === 'critical')
        .map((v) => v.id + ': ' + v.nodes.map((n) => n.target.join(' ')).join(', ')))`);
    check(found.length === 0, `${name} (${colorScheme}): no serious accessibility finding ${found.join(' | ')}`);
  }
  await page.emulateMedia({ colorScheme: 'light' });
}

async function shot(page, name) {
  const file = path.join(shotDir, `${String(shots.length + 1).padStart(2, '0')}-${name}.png`);
  await page.screenshot({ path: file, fullPage: true });
  shots.push(file);
  await accessible(page, name);
}

const focused = (page) => page.evaluate(() => document.activeElement.getAttribute('name') ||
  document.activeElement.className);

async function submit(page, fields) {
  for (const [name, value] of Object.entries(fields)) await page.fill(`input[name="${name}"]`, value);
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
}

// The landing page of a link: its title as the heading, a way out.
const inside = async (page, title) => (await page.textContent('h1')).trim() === title &&
  await page.isVisible('button.quiet');

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
  check(await focused(page) === 'password', 'the password field has the focus');
  for (const colorScheme of ['light', 'dark']) {  // axe does not judge the borders of fields
    await page.emulateMedia({ colorScheme });
    const ratio = await page.evaluate(() => {
      const luminance = (css) => {
        const [r, g, b] = css.match(/\d+/g).slice(0, 3).map((c) => {
          const v = c / 255;
          return v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4;
        });
        return 0.2126 * r + 0.7152 * g + 0.0722 * b;
      };
      const [a, b] = [getComputedStyle(document.querySelector('input')).borderTopColor,
        getComputedStyle(document.querySelector('.card')).backgroundColor].map(luminance);
      return (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
    });
    check(ratio >= 3, `the field's border stands out from the card (${colorScheme}, ${ratio.toFixed(2)}:1)`);
  }
  await page.emulateMedia({ colorScheme: 'light' });
  check(await page.getAttribute('meta[property="og:title"]', 'content') === 'This link is protected',
    'a link preview tells only that the link is protected');
  const background = await page.$eval('button', (b) => getComputedStyle(b).backgroundColor);
  check(background !== 'rgba(0, 0, 0, 0)' && background !== 'rgb(239, 239, 239)',
    `the stylesheet applies (button ${background})`);
  await shot(page, 'password-form');
  await submit(page, { password: 'a wrong guess' });
  check((await page.textContent('.notice.error') || '').includes('does not open'),
    'a wrong password is refused');
  check(await focused(page) === 'notice error' && (await page.title()).startsWith('Error: '),
    'after a refusal the focus is on the message and the page title says so');
  await shot(page, 'wrong-password');

  await submit(page, { password });
  check(await inside(page, 'Summer photos'), 'the right password lets in to the titled page');
  check((await page.textContent('main')).includes('Shared by Ann Demo.'), 'the owner by full name');
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
  check(await inside(page, 'Annual report, draft 3'), 'ann, a reviewer, is let in by the account form');
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
