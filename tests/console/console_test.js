// The xbc-host console in Debian's headless Chromium, against xbc-plc-sim
// started by scripts/sim-process.sh: live values without reloading, a watch
// added on the page, bad addresses, writes that land in the simulator's memory
// (read back through the simulator's control channel) or fail, a silent PLC
// shown as such with stale and unknown values, the link going down and coming
// back, the layout at several widths, a page refused for too many pages, slow
// clients, error replies and the access token. Saves a screenshot at 1024 px.
//
// node console_test.js XBC_HOST XBC_PLC_SIM SCREENSHOT_PNG
"use strict";

const assert = require("node:assert/strict");
const { execFileSync, spawn } = require("node:child_process");
const fs = require("node:fs");
const http = require("node:http");
const net = require("node:net");
const os = require("node:os");
const path = require("node:path");
const { chromium } = require("playwright-core");

const [hostProgram, simProgram, screenshotPath] = process.argv.slice(2);
const CHROMIUM = process.env.CHROMIUM || "/usr/bin/chromium";
const CHROMIUM_ARGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
  "--disable-background-networking", "--disable-component-update", "--disable-sync"];
const STEP_TIMEOUT_MS = 15000;
const LINK_TIMEOUT_MS = 20000; // reconnect attempts back off to 3 s apart
const SIM_PERIOD_MS = 200;
const SIM_SCRIPT = path.join(__dirname, "..", "..", "scripts", "sim-process.sh");
const work = fs.mkdtempSync(path.join(os.tmpdir(), "xbc-console-test-"));

const children = [];
const sims = [];
let passed = 0;
let failed = 0;

function start(program, args) {
  const child = spawn(program, args, { stdio: ["pipe", "pipe", "pipe"] });
  child.output = "";
  child.stdout.on("data", (d) => { child.output += d; });
  child.stderr.on("data", (d) => { child.output += d; });
  child.exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve({ code, signal })));
  children.push(child);
  return child;
}

// Waits for pattern in what child printed from offset from on.
function waitForLine(child, pattern, what, from = 0) {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`no ${what} within ${STEP_TIMEOUT_MS} ms:\n${child.output}`)),
      STEP_TIMEOUT_MS);
    const check = () => {
      const m = child.output.slice(from).match(pattern);
      if (m) { clearTimeout(timer); child.stdout.off("data", check); resolve(m); }
    };
    child.stdout.on("data", check);
    child.exited.then(() => { clearTimeout(timer); reject(new Error(`${what}: program ended:\n${child.output}`)); });
    check();
  });
}

async function stop(child) {
  if (child.exitCode === null && child.signalCode === null) child.kill("SIGTERM");
  return child.exited;
}

const SIM_ARGS = ["--control", "--counter", "D_W:0", "--counter", "D_W:50", "--blink", "TX:7", "--blink", "M_bit:35.3",
  "--period", String(SIM_PERIOD_MS), "--set", "D_W:100=1000", "--set", "D_W:101=1001"];

// The simulator as the scripts start it (scripts/sim-process.sh), its control
// input a FIFO this test writes to, its answers in its log.
function startSim(port) {
  const log = path.join(work, `sim-${Date.now()}.log`), control = path.join(work, `control-${Date.now()}`);
  execFileSync("mkfifo", [control]);
  const started = execFileSync("bash", ["-c", 'source "$0"; start_sim "$1" "${@:3}" 0<>"$2" && echo "$SIM_PID $SIM_PORT"',
    SIM_SCRIPT, log, control, simProgram, "--port", String(port), ...SIM_ARGS], { encoding: "utf8" });
  const [pid, simPort] = started.trim().split(" ").map(Number);
  // Non-blocking: a simulator that is gone fails here instead of hanging.
  const sim = { pid, port: simPort, log, control: fs.openSync(control, fs.constants.O_WRONLY | fs.constants.O_NONBLOCK) };
  sims.push(sim);
  return sim;
}

function simRunning(sim) {
  try { process.kill(sim.pid, 0); return true; } catch (e) { return false; }
}

async function stopSim(sim) {
  if (sim.control === undefined) return; // stopped already; its pid may be another's now
  if (simRunning(sim)) process.kill(sim.pid, "SIGTERM");
  while (simRunning(sim)) await sleep(50);
  fs.closeSync(sim.control);
  sim.control = undefined;
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// The simulator's control channel: one command, its one-line answer. It is
// the second path to the simulator's memory, apart from the protocol.
async function simCommand(sim, command) {
  const from = fs.statSync(sim.log).size;
  fs.writeSync(sim.control, command + "\n");
  for (const end = Date.now() + STEP_TIMEOUT_MS; Date.now() < end; await sleep(20)) {
    const m = fs.readFileSync(sim.log, "utf8").slice(from).match(/^(ok|error).*$/m);
    if (m) {
      assert.match(m[0], /^ok/, `'${command}': ${m[0]}`);
      return m[0].replace(/^ok ?/, "");
    }
  }
  throw new Error(`no answer to '${command}'`);
}

function httpStatus(url, headers) {
  return new Promise((resolve, reject) => {
    http.get(url, { headers }, (res) => { res.resume(); resolve(res.statusCode); }).on("error", reject);
  });
}

async function check(name, body) {
  const t0 = Date.now();
  try {
    await body();
    passed++;
    console.log(`ok    ${name} (${Date.now() - t0} ms)`);
  } catch (e) {
    failed++;
    console.log(`FAIL  ${name}: ${e.stack || e}`);
  }
}

const valueOf = (page, key) =>
  page.locator(`tr.value[data-key="${key}"] td.dec`).first().textContent({ timeout: STEP_TIMEOUT_MS });

async function waitForChange(page, key, before) {
  await page.waitForFunction(([k, b]) => {
    const cell = document.querySelector(`tr.value[data-key="${k}"] td.dec`);
    return cell && cell.textContent !== "" && cell.textContent !== b;
  }, [key, before], { timeout: STEP_TIMEOUT_MS });
}

async function addWatch(page, text) {
  await page.fill("#watch-input", text);
  await page.click("#watch-add");
  await page.waitForFunction((t) => document.getElementById("watch-message").textContent.includes(t),
    text, { timeout: STEP_TIMEOUT_MS });
  return page.textContent("#watch-message");
}

const waitForText = (page, selector, text) => page.waitForFunction(([s, t]) => {
  const e = document.querySelector(s);
  return e && e.textContent === t;
}, [selector, text], { timeout: STEP_TIMEOUT_MS });

async function write(page, target, values) {
  const before = await page.locator("#writes li").count();
  await page.fill("#write-target", target);
  await page.fill("#write-values", values);
  await page.click("#write-button");
  await page.waitForFunction(
    (n) => document.querySelectorAll("#writes li").length > n || document.getElementById("write-message").className.includes("bad"),
    before, { timeout: STEP_TIMEOUT_MS });
  const item = page.locator("#writes li").first();
  await page.waitForFunction(() => {
    const li = document.querySelector("#writes li");
    return li && li.dataset.state !== "pending";
  }, null, { timeout: STEP_TIMEOUT_MS });
  return { state: await item.getAttribute("data-state"), text: await item.locator(".text").textContent() };
}

// Where the page's layout fails at the window's width: panels that overlap,
// a page wider than the window, a watch panel squeezed thin, a table column
// cut off or hidden other than on purpose. Runs in the page.
function layoutProblems() {
  const problems = [];
  const panels = [...document.querySelectorAll("header, main > section")].map((e) => [e, e.getBoundingClientRect()]);
  const name = (e) => e.querySelector("h1, h2").textContent;
  panels.forEach(([a, ra], i) => panels.slice(i + 1).forEach(([b, rb]) => {
    if (ra.left < rb.right - 1 && rb.left < ra.right - 1 && ra.top < rb.bottom - 1 && rb.top < ra.bottom - 1)
      problems.push(`${name(a)} overlaps ${name(b)}`);
  }));
  for (const [e] of panels)
    if (e.scrollWidth > e.clientWidth + 1) problems.push(`${name(e)} holds content ${e.scrollWidth} px wide in ${e.clientWidth} px`);
  if (document.documentElement.scrollWidth > innerWidth)
    problems.push(`the page is ${document.documentElement.scrollWidth} px wide in a ${innerWidth} px window`);
  const watchPanel = document.getElementById("values").closest("section").getBoundingClientRect();
  if (watchPanel.width < Math.min(500, innerWidth - 40)) problems.push(`the watch panel is ${watchPanel.width} px wide`);
  const box = document.querySelector(".table-box").getBoundingClientRect();
  const hidden = [];
  for (const th of document.querySelectorAll("#values th")) {
    const r = th.getBoundingClientRect();
    if (getComputedStyle(th).display === "none") hidden.push(th.textContent);
    else if (r.left < box.left - 1 || r.right > box.right + 1 || r.width < 20) problems.push(`column ${th.textContent} is cut off`);
  }
  return { problems, hidden };
}

function request(url, { method = "GET", headers = {}, body } = {}) {
  return new Promise((resolve, reject) => {
    const req = http.request(url, { method, headers }, (res) => {
      let text = "";
      res.on("data", (d) => { text += d; });
      res.on("end", () => resolve({ status: res.statusCode, text }));
    });
    req.on("error", reject);
    req.end(body);
  });
}

// An event stream held open outside the browser, as another page would.
function holdEvents(url) {
  return new Promise((resolve, reject) => {
    const req = http.get(`${url}events`, (res) => resolve(req));
    req.on("error", reject);
  });
}

async function main() {
  let sim = startSim(0);
  const port = sim.port;
  const host = start(hostProgram, ["--tcp", `127.0.0.1:${port}`, "--line", "115200,8,NONE,1", "--watch", "D_W:0",
    "--watch", "D_W:100:2", "--watch", "TX:7", "--http", "127.0.0.1:0"]);
  const url = (await waitForLine(host, /console: (http:\/\/127\.0\.0\.1:\d+\/)/, "console address"))[1];

  const profile = fs.mkdtempSync(path.join(work, "chromium-"));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM, headless: true, args: CHROMIUM_ARGS, viewport: { width: 1400, height: 900 },
  });
  try {
    const page = context.pages()[0] || await context.newPage();
    await page.goto(url);
    await page.evaluate(() => { window.loadedOnce = true; });

    await check("a counting value updates on the page without reload", async () => {
      const first = await valueOf(page, "D_W:0");
      await waitForChange(page, "D_W:0", first);
      const second = await valueOf(page, "D_W:0");
      await waitForChange(page, "D_W:0", second);
      assert.equal(await page.evaluate(() => window.loadedOnce), true, "the page was reloaded");
      assert.equal(await page.locator('tr.value[data-key="D_W:100"] td.dec').textContent(), "1000");
      assert.equal(await page.textContent("#link-state"), "connected");
      assert.equal(await page.textContent("#plc-state"), "PLC answering");
      assert.match(await page.textContent("#planned"), /^\d+\.\d ms$/);
    });

    await check("bad addresses get their message", async () => {
      const cases = [
        ["D_W:99999", /out of range: 'D_W' runs from 0 to 32767/],
        ["D_W:32767:2", /out of range/],
        ["Q_W:1", /unknown register 'Q_W'/],
        ["D_W:12A", /does not fit the format/],
        ["M_bit:35.16", /does not fit the format/],
        ["D_W", /expected REG:ADDRESS\[:COUNT\]/],
        ["D_W:1:0", /count must be a number of at least 1/],
        ["D_W:0", /watched already/],
        ["<script>alert(1)</script>:1", /expected REG:ADDRESS|unknown register/],
      ];
      for (const [text, expected] of cases) {
        const message = await addWatch(page, text);
        assert.match(message, expected, `message for '${text}'`);
        assert.match(await page.getAttribute("#watch-message", "class"), /bad/, `'${text}' shown as an error`);
      }
      const json = { "Content-Type": "application/json" };
      const replies = [
        ["/api/write", { method: "POST", headers: json, body: JSON.stringify({ target: "D_W:10", values: "70000" }) },
          400, /'70000' is not a 16-bit value/],
        ["/api/watch", { method: "POST", headers: json, body: "{not json" }, 400, /not a JSON object/],
        ["/api/watch", { method: "POST", headers: json, body: "x".repeat(5000) }, 413, /larger than the console takes/],
        ["/", { method: "BREW" }, 400, /GET and POST only/],
        ["/nothing", {}, 404, /no such page/],
      ];
      for (const [where, options, status, message] of replies) {
        const reply = await request(url + where.slice(1), options);
        assert.equal(reply.status, status, `${options.method || "GET"} ${where}`);
        assert.match(JSON.parse(reply.text).message, message, `${options.method || "GET"} ${where}`);
      }
    });

    await check("a watch added on the page appears and updates", async () => {
      assert.match(await addWatch(page, "D_W:50:2"), /watching D_W:50:2/);
      await page.waitForSelector('tr.value[data-key="D_W:51"]', { timeout: STEP_TIMEOUT_MS });
      const first = await valueOf(page, "D_W:50");
      await waitForChange(page, "D_W:50", first);
      assert.match(await addWatch(page, "M_bit:35.3"), /watching M_bit:35.3/);
      await page.waitForSelector('tr.value[data-key="M_bit:563"] td.dec .bit', { timeout: STEP_TIMEOUT_MS });
    });

    await check("writes from the page land in the simulator's memory", async () => {
      assert.deepEqual(await write(page, "D_W:200", "4321"), { state: "landed", text: "D_W:200 = 4321" });
      assert.deepEqual(await write(page, "D_W:210", "7,8,0x10"), { state: "landed", text: "D_W:210 = 7,8,16" });
      assert.deepEqual(await write(page, "M_bit:40.1", "1"), { state: "landed", text: "M_bit:40.1 = 1" });
      assert.deepEqual(await write(page, "D_W:100", "1234"), { state: "landed", text: "D_W:100 = 1234" });
      await waitForText(page, 'tr.value[data-key="D_W:100"] td.dec', "1234");
      assert.equal(await simCommand(sim, "read D_W 200 1"), "4321");
      assert.equal(await simCommand(sim, "read D_W 210 3"), "7 8 16");
      assert.equal(await simCommand(sim, "read M_bit 40.0 3"), "0 1 0");
      assert.equal(await simCommand(sim, "read D_W 100 1"), "1234");
    });

    await check("a silent PLC: not answering, stale values with their age, unknown values, failed writes", async () => {
      await simCommand(sim, "faults drop=100");
      try {
        assert.deepEqual(await write(page, "D_W:101", "555"), { state: "failed", text: "D_W:101 = 555" });
        assert.match(await page.textContent("#writes li .detail"), /the value shown is 1001/);
        await waitForText(page, 'tr.value[data-key="D_W:101"] td.dec', "1001");
        await waitForText(page, "#plc-state", "PLC not answering");
        assert.equal(await page.textContent("#link-state"), "connected", "the socket is still up");
        await page.waitForSelector('tr.value.stale[data-key="D_W:0"]', { timeout: STEP_TIMEOUT_MS });
        assert.match(await page.textContent('tr.value[data-key="D_W:0"] td.when'), /^stale, \d+\.\d s old$/);
        assert.match(await addWatch(page, "D_W:300"), /watching D_W:300/);
        await waitForText(page, 'tr.value[data-key="D_W:300"] td.dec', "unknown");
        const lines = await page.locator("#frames div").allTextContents();
        assert.ok(lines.some((l) => /no reply within \d+ ms/.test(l)), "the frames list says why it retried");
      } finally {
        await simCommand(sim, "faults off");
      }
      // Only the answers were lost: the PLC took the write, and the next poll shows it.
      assert.equal(await simCommand(sim, "read D_W 101 1"), "555");
      await waitForText(page, 'tr.value[data-key="D_W:101"] td.dec', "555");
      await waitForText(page, "#plc-state", "PLC answering");
      await waitForText(page, 'tr.value[data-key="D_W:300"] td.dec', "0");
      await page.waitForSelector('tr.value.stale', { state: "detached", timeout: STEP_TIMEOUT_MS });
    });

    await check("the layout holds from 420 to 1400 px; narrow screens leave out columns on purpose", async () => {
      const widths = [[1400, []], [1024, []], [800, ["Binary"]], [420, ["Hex", "Binary", "Trend"]]];
      for (const [width, hidden] of widths) {
        await page.setViewportSize({ width, height: 900 });
        const layout = await page.evaluate(layoutProblems);
        assert.deepEqual(layout.problems, [], `at ${width} px`);
        assert.deepEqual(layout.hidden, hidden, `columns hidden at ${width} px`);
        if (width === 1024) await page.screenshot({ path: screenshotPath, fullPage: true });
      }
      await page.setViewportSize({ width: 1400, height: 900 });
    });

    await check("a page over the limit of open pages is told why, and connects once one closes", async () => {
      const held = [];
      for (let i = 1; i < 4; i++) held.push(await holdEvents(url)); // the test's page holds the first
      const extra = await context.newPage();
      await extra.goto(url);
      await extra.waitForFunction(() => document.getElementById("offline").textContent.includes("too many console pages open"),
        null, { timeout: STEP_TIMEOUT_MS });
      held.forEach((req) => req.destroy());
      await extra.waitForSelector("#offline", { state: "hidden", timeout: STEP_TIMEOUT_MS });
      await extra.close();
    });

    await check("twelve clients sending their headers slowly do not hold up the page", async () => {
      const slow = Array.from({ length: 12 }, () => {
        const s = net.connect(Number(new URL(url).port), "127.0.0.1");
        s.on("error", () => {});
        s.write(`GET / HTTP/1.1\r\nHost: ${new URL(url).host}\r\nX-Slow: `);
        return s;
      });
      const drip = setInterval(() => slow.forEach((s) => s.write("a")), 200);
      try {
        await sleep(500);
        const t0 = Date.now();
        assert.equal((await request(url)).status, 200);
        assert.ok(Date.now() - t0 < 1000, `the page took ${Date.now() - t0} ms`);
      } finally {
        clearInterval(drip);
        slow.forEach((s) => s.destroy());
      }
    });

    await check("a watch removed on the page leaves the table", async () => {
      await page.click('tr.group:has-text("D_W:50:2") button');
      await page.waitForSelector('tr.value[data-key="D_W:50"]', { state: "detached", timeout: STEP_TIMEOUT_MS });
      assert.match(await page.textContent("#watch-message"), /no longer watching D_W:50:2/);
    });

    await check("stopping the simulator shows the link down, restarting it shows recovery", async () => {
      await waitForText(page, "#link-state", "connected");
      await stopSim(sim);
      await page.waitForFunction(() => document.getElementById("link-state").textContent.startsWith("down"),
        null, { timeout: LINK_TIMEOUT_MS });
      assert.equal(await page.textContent("#plc-state"), "PLC not answering");
      sim = startSim(port);
      await page.waitForFunction(() => document.getElementById("link-state").textContent === "connected",
        null, { timeout: LINK_TIMEOUT_MS });
      const after = await valueOf(page, "D_W:0");
      await waitForChange(page, "D_W:0", after);
      assert.match(await page.textContent("#drops"), /^[1-9]/);
    });

    await check("the frames list shows the traffic as --trace does", async () => {
      const lines = await page.locator("#frames div").allTextContents();
      assert.ok(lines.length > 10 && lines.length <= 200, `${lines.length} frame lines`);
      assert.ok(lines.some((l) => /^\d\d:\d\d:\d\d\.\d{3} -> <STX>r/.test(l)), "a read request");
      assert.ok(lines.some((l) => /^\d\d:\d\d:\d\d\.\d{3} <- <ACK>r/.test(l)), "a reply");
    });
  } finally {
    await context.close();
  }

  await check("a console with a token refuses requests without it", async () => {
    const token = "console-test-token";
    const guarded = start(hostProgram, ["--tcp", `127.0.0.1:${port}`, "--watch", "D_W:0", "--http", "127.0.0.1:0",
      "--http-token", token]);
    const m = await waitForLine(guarded, /console: (http:\/\/127\.0\.0\.1:\d+\/)\?token=(\S+)/, "console address");
    assert.equal(m[2], token);
    assert.equal(await httpStatus(m[1]), 401);
    assert.equal(await httpStatus(`${m[1]}api/state`), 401);
    assert.equal(await httpStatus(`${m[1]}?token=${token}`), 200);
    assert.equal(await httpStatus(`${m[1]}api/state`, { "X-Console-Token": token }), 200);
    assert.equal(await httpStatus(`${m[1]}api/state`, { "X-Console-Token": token, Host: "example.com" }), 403);
    assert.equal(await httpStatus(`${m[1]}api/state`, { "X-Console-Token": token, Origin: "http://example.com" }),
      403);
    await stop(guarded);
  });

  const hostEnd = await stop(host);
  // The page's write that the silent PLC never confirmed counts as a failed write of the run.
  const failedWrites = /writes failed [1-9]/.test(host.output);
  assert.ok(hostEnd.code === (failedWrites ? 1 : 0), `xbc-host ended with ${JSON.stringify(hostEnd)}:\n${host.output}`);
  await stopSim(sim);
}

main()
  .catch((e) => { failed++; console.log(`FAIL  ${e.stack || e}`); })
  .finally(async () => {
    for (const child of children) await stop(child);
    for (const sim of sims) await stopSim(sim);
    fs.rmSync(work, { recursive: true, force: true });
    console.log(`${passed} passed, ${failed} failed`);
    process.exit(failed === 0 && passed > 0 ? 0 : 1);
  });
