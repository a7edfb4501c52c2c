// The page in a real browser: Debian's chromium, headless, driven by playwright-core (which
// never downloads a browser of its own), against the test server with the fake source. Checks
// the graph, a live rate, a decoded message and a parameter edit that reaches the source, and
// leaves a screenshot.
//   node page_browser_test.mjs --web-dir <web/> --server <korvan_web_test_server>
//        --page <built page> --screenshot <png>
import { args, check, packagesOf, run, waitFor, withBrowser } from './harness.mjs';

const opts = args();
const require = packagesOf(opts['web-dir']);

await run('page in the browser', opts.server, ['--static', opts.page], async (server) =>
  withBrowser(require, opts.page, async (page) => {
    await page.goto(`http://127.0.0.1:${server.port}/`);
    await page.waitForSelector('#connection.conn-up', { timeout: 15000 });

    // The graph: every node, topic and service of the fake bus.
    const graphNames = () =>
      page.evaluate(() => window.korvan.graph.cy.nodes().map((n) => `${n.data('kind')}:${n.data('name')}`));
    const names = await waitFor('the graph', async () => {
      const n = await graphNames();
      return n.length >= 6 ? n : null;
    });
    for (const expected of ['node:planner', 'node:tracker', 'node:operator', 'topic:/demo/pose',
      'topic:/demo/clock', 'service:/planner/set_speed'])
      check(names.includes(expected), `graph lacks ${expected}: ${names}`);
    console.log(`graph: ${names.join(', ')}`);

    // A rate is shown and keeps updating.
    const rateCell = 'tr[data-topic="/demo/pose"] td.rate';
    const rate = await waitFor('a rate', async () => {
      const text = await page.textContent(rateCell);
      return text && parseFloat(text) > 0 ? text : null;
    });
    const samples = () =>
      page.evaluate(() => window.korvan.stats.history.get('/demo/pose')?.time.length ?? 0);
    const before = await samples();
    await waitFor('the rate to update', async () => (await samples()) >= before + 2);
    console.log(`rate of /demo/pose: ${rate}; delay ${await page.textContent('tr[data-topic="/demo/pose"] td.delay')}`);

    // Clicking the topic shows its latest message, decoded, and newer ones replace it.
    await page.click('tr[data-topic="/demo/pose"] td.name');
    const seqOf = async () => {
      const text = await page.textContent('#message');
      const m = /"seq": "(\d+)"/.exec(text || '');
      return m && text.includes('"frameId": "map"') ? Number(m[1]) : 0;
    };
    const seq = await waitFor('a decoded message', seqOf);
    await waitFor('a newer message', async () => (await seqOf()) > seq);

    // Applications with their phase and frame.
    await page.waitForSelector('#apps tr[data-app="planner"]');
    await page.waitForSelector('#apps tr[data-app="tracker"]');

    // A parameter edit goes through the server to the source, and the page shows the outcome.
    await page.selectOption('#param-node', 'planner');
    await page.waitForSelector('#params tr[data-param="speed"] input');
    await page.fill('#params tr[data-param="speed"] input', '3.25');
    await page.click('#params tr[data-param="speed"] button');
    await waitFor('the source to get the value', () => server.lines.includes('param planner/speed=3.25'));
    await page.waitForFunction(
      () => document.querySelector('#param-result')?.textContent === 'planner/speed = 3.25',
    );
    check((await page.getAttribute('#param-result', 'class')) === 'ok', 'result not shown as ok');
    // A value of the wrong kind is refused on the page, before it travels.
    await page.fill('#params tr[data-param="max_count"] input', '1.5');
    await page.click('#params tr[data-param="max_count"] button');
    await page.waitForSelector('#param-result.error');
    check(!server.lines.some((l) => l.startsWith('param planner/max_count')), 'bad value was sent');

    if (opts.screenshot) {
      // The good state, for the picture.
      await page.fill('#params tr[data-param="max_count"] input', '12');
      await page.click('#params tr[data-param="max_count"] button');
      await page.waitForSelector('#param-result.ok');
      await page.screenshot({ path: opts.screenshot, fullPage: true });
      console.log(`screenshot: ${opts.screenshot}`);
    }
  }),
);
