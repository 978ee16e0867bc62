// The xbc-host console in Debian's headless Chromium, against a separately
// started xbc-plc-sim: live values without reloading, a watch added on the
// page, bad addresses, writes that land in the simulator's memory (read back
// through the simulator's control channel) or fail and fall back, the link
// going down and coming back, and the access token. Saves a screenshot of the
// page.
//
// node console_test.js XBC_HOST XBC_PLC_SIM SCREENSHOT_PNG
"use strict";

const assert = require("node:assert/strict");
const { spawn } = require("node:child_process");
const fs = require("node:fs");
const http = require("node:http");
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

const children = [];
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

async function startSim(port) {
  const sim = start(simProgram, ["--port", String(port), ...SIM_ARGS]);
  const m = await waitForLine(sim, /tcp 127\.0\.0\.1:(\d+)/, "simulator port");
  return { sim, port: Number(m[1]) };
}

// The simulator's control channel: one command, its one-line answer. It is
// the second path to the simulator's memory, apart from the protocol.
async function simCommand(sim, command) {
  const from = sim.output.length;
  sim.stdin.write(command + "\n");
  const m = await waitForLine(sim, /^(ok|error).*$/m, `answer to '${command}'`, from);
  assert.match(m[0], /^ok/, `'${command}': ${m[0]}`);
  return m[0].replace(/^ok ?/, "");
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

async function main() {
  let { sim, port } = await startSim(0);
  const host = start(hostProgram, ["--tcp", `127.0.0.1:${port}`, "--watch", "D_W:0", "--watch", "D_W:100:2",
    "--watch", "TX:7", "--http", "127.0.0.1:0"]);
  const url = (await waitForLine(host, /console: (http:\/\/127\.0\.0\.1:\d+\/)/, "console address"))[1];

  const profile = fs.mkdtempSync(path.join(os.tmpdir(), "xbc-console-chromium-"));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM, headless: true, args: CHROMIUM_ARGS, viewport: { width: 1280, height: 860 },
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
      const write = await page.evaluate(async () => {
        const r = await fetch("/api/write", { method: "POST", headers: { "Content-Type": "application/json" },
          body: JSON.stringify({ target: "D_W:10", values: "70000" }) });
        return { status: r.status, body: await r.json() };
      });
      assert.equal(write.status, 400);
      assert.match(write.body.message, /'70000' is not a 16-bit value/);
      const garbage = await page.evaluate(async () => {
        const r = await fetch("/api/watch", { method: "POST", headers: { "Content-Type": "application/json" },
          body: "{not json" });
        return { status: r.status, body: await r.json() };
      });
      assert.equal(garbage.status, 400);
      assert.match(garbage.body.message, /not a JSON object/);
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
      await page.waitForFunction(() =>
        document.querySelector('tr.value[data-key="D_W:100"] td.dec').textContent === "1234",
      null, { timeout: STEP_TIMEOUT_MS });
      assert.equal(await simCommand(sim, "read D_W 200 1"), "4321");
      assert.equal(await simCommand(sim, "read D_W 210 3"), "7 8 16");
      assert.equal(await simCommand(sim, "read M_bit 40.0 3"), "0 1 0");
      assert.equal(await simCommand(sim, "read D_W 100 1"), "1234");
    });

    await check("a write the PLC never answers is shown failed and falls back", async () => {
      await simCommand(sim, "faults drop=100");
      try {
        const result = await write(page, "D_W:101", "555");
        assert.deepEqual(result, { state: "failed", text: "D_W:101 = 555" });
        assert.match(await page.textContent("#writes li .detail"), /fell back to 1001/);
        await page.waitForFunction(() =>
          document.querySelector('tr.value[data-key="D_W:101"] td.dec').textContent === "1001",
        null, { timeout: STEP_TIMEOUT_MS });
      } finally {
        await simCommand(sim, "faults off");
      }
      await page.waitForFunction(() => Number(document.getElementById("abandoned").textContent) > 0,
        null, { timeout: STEP_TIMEOUT_MS });
      // Only the answers were lost: the PLC took the write, and the next poll shows it.
      assert.equal(await simCommand(sim, "read D_W 101 1"), "555");
      await page.waitForFunction(() =>
        document.querySelector('tr.value[data-key="D_W:101"] td.dec').textContent === "555",
      null, { timeout: STEP_TIMEOUT_MS });
    });

    await page.waitForTimeout(2500); // a longer trend for the picture
    await page.screenshot({ path: screenshotPath, fullPage: true });

    await check("a watch removed on the page leaves the table", async () => {
      await page.click('tr.group:has-text("D_W:50:2") button');
      await page.waitForSelector('tr.value[data-key="D_W:50"]', { state: "detached", timeout: STEP_TIMEOUT_MS });
      assert.match(await page.textContent("#watch-message"), /no longer watching D_W:50:2/);
    });

    await check("stopping the simulator shows the link down, restarting it shows recovery", async () => {
      await page.waitForFunction(() => document.getElementById("link-state").textContent === "connected",
        null, { timeout: STEP_TIMEOUT_MS });
      await stop(sim);
      await page.waitForFunction(() => document.getElementById("link-state").textContent.startsWith("down"),
        null, { timeout: LINK_TIMEOUT_MS });
      ({ sim } = await startSim(port));
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
    fs.rmSync(profile, { recursive: true, force: true });
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
  assert.ok(hostEnd.code === 0, `xbc-host ended with ${JSON.stringify(hostEnd)}:\n${host.output}`);
  await stop(sim);
}

main()
  .catch((e) => { failed++; console.log(`FAIL  ${e.stack || e}`); })
  .finally(async () => {
    for (const child of children) await stop(child);
    console.log(`${passed} passed, ${failed} failed`);
    process.exit(failed === 0 && passed > 0 ? 0 : 1);
  });
