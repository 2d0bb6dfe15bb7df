// Loads one browser page of the file server in headless Chromium at the given
// width, saves a screenshot, and prints "ok" when the action buttons of every
// row share one line and nothing is wider than the screen.
const { chromium } = require(process.env.PLAYWRIGHT_CORE);
const [url, width, shot, profile] = process.argv.slice(2);
const flags = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];
(async () => {
  const browser = await chromium.launchPersistentContext(profile, { headless: true, args: flags,
    executablePath: process.env.CHROMIUM, viewport: { width: Number(width), height: 900 } });
  const page = await browser.newPage();
  await page.goto(url);
  await page.screenshot({ path: shot, fullPage: true });
  console.log(await page.evaluate(() => {
    const split = [...document.querySelectorAll('div.actions')].filter((row) =>
      new Set([...row.children].map((b) => Math.round(b.getBoundingClientRect().top))).size > 1);
    const wide = document.documentElement.scrollWidth > window.innerWidth;
    return split.length === 0 && !wide ? 'ok' : `split rows ${split.length}, too wide ${wide}`;
  }));
  await browser.close();
})().catch((error) => { console.log(String(error)); process.exit(1); });
