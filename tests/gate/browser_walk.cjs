// A visitor in a real browser (the system's chromium, headless) walks through the gate:
// password link (form, wrong password, right password, reload, log out) and group link
// (refused account, admitted account). Every page is saved as a screenshot.
//
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

async function heading(page) {
  return (await page.textContent('h1')).trim();
}

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
  // A script error or a refused stylesheet (the pages' security policy) shows up here.
  const consoleErrors = [];
  // (The refusals' own status 403 is reported as a resource that failed to load; that one is
  // expected.)
  page.on('console', (m) => {
    if (m.type() === 'error' && !/status of 403/.test(m.text())) consoleErrors.push(m.text());
  });
  page.on('pageerror', (e) => consoleErrors.push(String(e)));

  console.log('== password link');
  let response = await page.goto(passwordLink);
  check(response.status() === 200, 'the link opens');
  check(await page.isVisible('input[name="password"]'), 'a password form');
  const background = await page.$eval('button', (b) => getComputedStyle(b).backgroundColor);
  check(background !== 'rgba(0, 0, 0, 0)' && background !== 'rgb(239, 239, 239)',
    `the stylesheet applies (button ${background})`);
  await shot(page, 'password-form');

  await page.fill('input[name="password"]', 'a wrong guess');
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  check((await page.textContent('.notice.error') || '').includes('does not open'),
    'a wrong password is refused');
  check(await page.isVisible('input[name="password"]'), 'the form is shown again');
  await shot(page, 'wrong-password');

  await page.fill('input[name="password"]', password);
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  check(await heading(page) === 'Shared with you', 'the right password lets in');
  check((await page.textContent('main')).includes('Summer photos'), 'the shared data is shown');
  check(page.url() === passwordLink, 'the browser is back on the link (POST, then GET)');
  const cookies = await context.cookies();
  const gatePath = new URL(passwordLink).pathname;
  const sid = cookies.find((c) => c.name.startsWith('sharing_sid_'));
  check(sid && sid.httpOnly && sid.sameSite === 'Lax' && sid.path === gatePath && !sid.secure,
    'the link\'s session cookie is HttpOnly, SameSite=Lax, for the gate\'s path only');
  check(sid && sid.domain === '127.0.0.1', 'the cookie belongs to this host only');
  await shot(page, 'content');

  response = await page.reload();
  check(response.request().method() === 'GET', 'a reload sends no form again');
  check(await heading(page) === 'Shared with you', 'after a reload the visitor is still in');
  await shot(page, 'after-reload');

  await Promise.all([page.waitForNavigation(), page.click('button.quiet')]);
  check((await page.textContent('.notice.info') || '').includes('logged out'),
    'log out says so');
  check(await page.isVisible('input[name="password"]'), 'the password form is back');
  check(!(await context.cookies()).some((c) => c.name.startsWith('sharing_sid_')),
    'log out drops the session cookie');
  await shot(page, 'logged-out');
  await page.goto(passwordLink);
  check(await page.isVisible('input[name="password"]'), 'opening the link again asks again');

  console.log('== group link');
  await page.goto(groupLink);
  check(await page.isVisible('input[name="zel_username"]'), 'an account form');
  await shot(page, 'account-form');
  await page.fill('input[name="zel_username"]', 'ben');
  await page.fill('input[name="zel_password"]', 'ben-demo-pw');
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  check((await page.textContent('.notice.error') || '').includes('did not work'),
    'ben, no reviewer, is refused');
  check(await page.inputValue('input[name="zel_username"]') === 'ben', 'his name is kept');
  await shot(page, 'account-refused');
  await page.fill('input[name="zel_username"]', 'ann');
  await page.fill('input[name="zel_password"]', 'ann-demo-pw');
  await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  check(await heading(page) === 'Shared with you', 'ann, a reviewer, is let in');
  check((await page.textContent('main')).includes('Annual report'), 'the shared data is shown');
  await shot(page, 'account-content');

  console.log('== on a phone');
  await page.setViewportSize({ width: 360, height: 740 });
  await page.goto(passwordLink);
  const overflow = await page.evaluate(
    () => document.documentElement.scrollWidth > document.documentElement.clientWidth);
  check(!overflow, 'the form fits a narrow screen without sideways scrolling');
  await shot(page, 'phone-password-form');
  await page.goto(groupLink);
  await shot(page, 'phone-account-content');

  check(consoleErrors.length === 0, `no errors in the browser console ${consoleErrors.join(' | ')}`);
  await context.close();
}

main().then(() => {
  console.log('== screenshots');
  for (const file of shots) console.log(`   ${file}`);
  if (problems.length) {
    console.log(`== ${problems.length} checks failed`);
    process.exit(1);
  }
  console.log('== every browser check passed');
}, (error) => {
  console.error(error);
  for (const file of shots) console.log(`   ${file}`);
  process.exit(1);
});
