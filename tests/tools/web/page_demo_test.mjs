// The page of `korvan web` in Debian's chromium while the demo runs on the bus: the demo's
// nodes in the graph, a live rate, a decoded pose, the applications, and a parameter edit
// that the planner answers. Started by web_live_test, which runs the demo and the tool.
//   node page_demo_test.mjs --web-dir <web/> --port <korvan web's port> --speed <value>
//        [--screenshot <png>]
import { args, check, outcome, packagesOf, waitFor, withBrowser } from './harness.mjs';

const opts = args();
const require = packagesOf(opts['web-dir']);
const speed = opts.speed || '3.25';

await outcome('page on the demo', () =>
  withBrowser(require, null, async (page) => {
    await page.goto(`http://127.0.0.1:${opts.port}/`);
    await page.waitForSelector('#connection.conn-up', { timeout: 15000 });

    // The demo's nodes, its topic and the planner's parameter services, from discovery.
    const graphNames = () =>
      page.evaluate(() => window.korvan.graph.cy.nodes().map((n) => `${n.data('kind')}:${n.data('name')}`));
    const wanted = ['node:planner', 'node:tracker', 'node:monitor', 'topic:demo/pose',
      'service:planner/set_parameter'];
    const names = await waitFor('the demo in the graph', async () => {
      const n = await graphNames();
      return wanted.every((w) => n.includes(w)) ? n : null;
    }, 30000);
    console.log(`graph: ${names.join(', ')}`);

    // The pose's rate (the planner publishes every 100 ms), updating.
    const row = 'tr[data-topic="demo/pose"]';
    const rate = await waitFor('a rate', async () => {
      const text = await page.textContent(`${row} td.rate`);
      return text && parseFloat(text) > 3 ? text : null;
    }, 30000);
    const samples = () => page.evaluate(() => window.korvan.stats.history.get('demo/pose')?.time.length ?? 0);
    const before = await samples();
    await waitFor('the rate to update', async () => (await samples()) >= before + 2);
    const delay = await page.textContent(`${row} td.delay`);
    check(/ms$/.test(delay), `no transmit delay shown: ${delay}`);
    console.log(`demo/pose: ${rate}, ${await page.textContent(`${row} td.bandwidth`)}, delay ${delay}`);

    // A click shows the latest pose decoded, and newer ones replace it.
    await page.click(`${row} td.name`);
    const counterShown = async () => {
      const text = await page.textContent('#message');
      const m = /"counter": "(\d+)"/.exec(text || '');
      return m && text.includes('"heading"') ? Number(m[1]) : 0;
    };
    const counter = await waitFor('a decoded pose', counterShown);
    await waitFor('a newer pose', async () => (await counterShown()) > counter);
    check((await page.textContent('#message-meta')).startsWith('korvan.demo.Pose'), 'no type shown');

    // Both applications, running, with frames counting up.
    const frameOf = async (app) => Number(await page.textContent(`#apps tr[data-app="${app}"] td.num`));
    for (const app of ['planner', 'tracker']) {
      await page.waitForSelector(`#apps tr[data-app="${app}"] td.phase-running`, { timeout: 15000 });
      const frame = await frameOf(app);
      await waitFor(`${app}'s frame to advance`, async () => (await frameOf(app)) > frame);
    }

    // An edit goes to the planner's parameter service; the page shows what the node holds now.
    await page.selectOption('#param-node', 'planner');
    const input = '#params tr[data-param="speed"] input';
    await page.waitForSelector(input, { timeout: 15000 });
    await page.waitForSelector('#params tr[data-param="gains"]');
    await page.fill(input, speed);
    await page.click('#params tr[data-param="speed"] button');
    await page.waitForFunction(
      (text) => document.querySelector('#param-result')?.textContent === text,
      `planner/speed = ${speed}`,
      { timeout: 20000 },
    );
    check((await page.getAttribute('#param-result', 'class')) === 'ok', 'result not shown as ok');
    // A value of the wrong kind is refused on the page, before it travels.
    await page.fill(input, 'fast');
    await page.click('#params tr[data-param="speed"] button');
    await page.waitForSelector('#param-result.error');
    console.log(`parameter: ${await page.textContent('#param-result')}`);

    if (opts.screenshot) {
      await page.fill(input, speed);
      await page.click('#params tr[data-param="speed"] button');
      await page.waitForSelector('#param-result.ok');
      await page.screenshot({ path: opts.screenshot, fullPage: true });
      console.log(`screenshot: ${opts.screenshot}`);
    }
  }),
);
