// The Tessary page of the Cockpit web console, in Debian's Chromium driven
// headless: what a user who is not an administrator sees, and what an
// administrator does with administrative access, checked against systemd on
// the booted machine. Run by machine-test.sh inside the machine's network
// namespace, with NODE_PATH naming the page's node_modules:
//
//   node browser-test.cjs MACHINE_PID SCREENSHOT_DIR DEFINITION_FILE
//
// MACHINE_PID is the machine's PID 1, whose namespaces the systemd checks
// enter; DEFINITION_FILE is a service definition on this side, uploaded
// through the page. Screenshots of each state go to SCREENSHOT_DIR. Prints
// "browser: ..." lines; exits non-zero at the first check that fails.
"use strict";

const { spawnSync } = require("node:child_process");
const fs = require("node:fs");
const path = require("node:path");
const puppeteer = require("puppeteer-core");

const [machinePid, shots, definitionFile] = process.argv.slice(2);
const url = "http://127.0.0.1:9090";
const heartbeat = "com.orvane.tessary.heartbeat";
const dynamic = "com.example.browser.dynamic";
const libexec = "/Applications/Tessary.app/Contents/TessaryRoot/usr/libexec/tessary";
const password = "correct horse";
const crowd = 100;

function runInMachine(command) {
    const run = spawnSync("nsenter", ["-t", machinePid, "-m", "-u", "-i", "-n", "-p", "--",
        "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", ...command],
    { encoding: "utf8" });
    if (run.error)
        throw run.error;
    return run;
}

// A command inside the machine; its output, whatever its exit status (that
// of `systemctl is-active` is the state's).
const machine = (...command) => runInMachine(command).stdout.trim();

// A command inside the machine that must succeed.
function machineMust(...command) {
    const run = runInMachine(command);
    if (run.status !== 0)
        throw new Error(`${command.join(" ")} failed: ${run.stderr}`);
}

const mainPid = unit => machine("systemctl", "show", "-P", "MainPID", unit);
const commandLine = unit =>
    fs.readFileSync(`/proc/${machinePid}/root/proc/${mainPid(unit)}/cmdline`, "utf8")
            .split("\0").filter(Boolean).join(" ");

async function until(what, check, seconds = 20) {
    const end = Date.now() + seconds * 1000;
    for (;;) {
        if (await check())
            return;
        if (Date.now() > end)
            throw new Error(`timed out waiting for ${what}`);
        await new Promise(resolve => setTimeout(resolve, 200));
    }
}

let page = null;
let shotNumber = 0;
async function shot(name) {
    const file = path.join(shots, `${String(++shotNumber).padStart(2, "0")}-${name}.png`);
    await page.screenshot({ path: file, fullPage: true });
    console.log(`browser: screenshot ${file}`);
}

// The frame of the Tessary page inside the console's shell.
async function tessaryFrame() {
    let frame = null;
    await until("the Tessary page's frame", () => {
        frame = page.frames().find(f => f.name() === "cockpit1:localhost/tessary");
        return frame !== undefined && frame !== null;
    });
    return frame;
}

async function logIn(user) {
    await page.goto(`${url}/`, { waitUntil: "domcontentloaded" });
    await page.waitForSelector("#login-user-input", { visible: true });
    await page.type("#login-user-input", user);
    await page.type("#login-password-input", password);
    await page.click("#login-button");
    await page.waitForSelector("#super-user-indicator", { visible: true, timeout: 30000 });
}

async function logOut() {
    const client = await page.createCDPSession();
    await client.send("Network.clearBrowserCookies");
    await page.evaluate(() => window.localStorage.clear());
}

async function openTessary() {
    await page.goto(`${url}/tessary`, { waitUntil: "domcontentloaded" });
    const frame = await tessaryFrame();
    await frame.waitForSelector("#tessary-status", { visible: true, timeout: 30000 });
    return frame;
}

const rowOf = label => `tr[data-service="${label}"]`;

async function switchService(frame, label, on) {
    await frame.click(`label[for="switch-${label}"]`);
    await frame.waitForSelector(`${rowOf(label)}[data-on="${on}"]`, { timeout: 20000 });
}

// Opens the actions menu of LABEL's row and picks ITEM.
async function rowAction(frame, label, item) {
    await frame.click(`${rowOf(label)} td.pf-c-table__action button`);
    const [entry] = await frame.$$(`::-p-xpath(//button[normalize-space()="${item}"])`);
    if (!entry)
        throw new Error(`no "${item}" in the actions of ${label}`);
    await entry.click();
    await frame.waitForSelector(".pf-c-modal-box", { visible: true });
}

// The button TEXT of the dialog open in CONTEXT: the page's frame, or the
// console's own page.
async function modalButton(context, text) {
    const [button] = await context.$$(
        `::-p-xpath(//div[contains(@class,"pf-c-modal-box")]//button[normalize-space()="${text}"])`);
    if (!button)
        throw new Error(`no "${text}" button in the dialog`);
    return button;
}

async function closeModal(frame) {
    await (await modalButton(frame, "Cancel")).click();
    await frame.waitForSelector(".pf-c-modal-box", { hidden: true });
}

// Types TEXT over all that the field SELECTOR holds, as a user would.
async function replaceText(frame, selector, text) {
    await frame.$eval(selector, el => { el.focus(); el.select(); });
    await frame.type(selector, text);
}

const modalText = frame => frame.$eval(".pf-c-modal-box", el => el.innerText);

// --- the steps ------------------------------------------------------------

async function userWithoutAdministrativeAccess() {
    await logIn("tessuser");
    const frame = await openTessary();
    await frame.waitForSelector("#tessary-needs-admin", { visible: true });
    const status = await frame.$eval("#tessary-status", el => el.textContent);
    if (!["configured", "unconfigured", "updatable"].includes(status))
        throw new Error(`the status reads "${status}"`);
    if ((await frame.$$("input[id^='switch-']")).length !== 0)
        throw new Error("a user without administrative access is shown switches");
    console.log(`browser: a user without administrative access sees the status "${status}" and no switches`);
    await shot("user-without-administrative-access");
    await logOut();
}

const indicatorSays = async text =>
    (await page.$eval("#super-user-indicator", el => el.innerText)).includes(text);

const shellDialogButton = async text => (await modalButton(page, text)).click();

// An administrator starts in limited access (the console may have turned
// administrative access on at login: it is turned off first), where the
// page is as for any user; the "Limited access" button and the password
// then give administrative access.
async function takeAdministrativeAccess() {
    await logIn("tessadmin");
    if (await indicatorSays("Administrative access")) {
        await page.click("#super-user-indicator button");
        await shellDialogButton("Limit access");
        await until("limited access", () => indicatorSays("Limited access"), 30);
    }
    let frame = await openTessary();
    await frame.waitForSelector("#tessary-needs-admin", { visible: true });
    await shot("administrator-in-limited-access");

    await page.click("#super-user-indicator button");
    await page.waitForSelector(".pf-c-modal-box input[type=password]", { visible: true });
    await page.type(".pf-c-modal-box input[type=password]", password);
    await shellDialogButton("Authenticate");
    await until("administrative access", () => indicatorSays("Administrative access"), 30);
    // The console reloads its pages when the access changes.
    frame = await tessaryFrame();
    await frame.waitForSelector("input[id^='switch-']", { visible: true, timeout: 30000 });
    console.log("browser: tessadmin, in limited access, saw \"Needs administrative access\"; " +
                "took administrative access with the password; the switches appeared");
}

async function switchesAndState(frame) {
    await frame.waitForSelector(rowOf(heartbeat), { visible: true });
    await shot("services-list");
    await switchService(frame, heartbeat, false);
    await frame.waitForSelector(`${rowOf(heartbeat)}[data-state="stopped"]`, { timeout: 20000 });
    if (machine("systemctl", "is-active", `${heartbeat}.service`) === "active")
        throw new Error(`${heartbeat} still runs after it was switched off`);
    // Back on from the keyboard: the switch takes the focus and Space.
    await frame.focus(`input[id="switch-${heartbeat}"]`);
    await page.keyboard.press("Space");
    await frame.waitForSelector(`${rowOf(heartbeat)}[data-on="true"]`, { timeout: 20000 });
    // The state comes from systemd while the page is open, without a reload.
    await frame.waitForSelector(`${rowOf(heartbeat)}[data-state="running"]`, { timeout: 20000 });
    await until(`${heartbeat} active under systemd`,
                () => machine("systemctl", "is-active", `${heartbeat}.service`) === "active");
    console.log(`browser: ${heartbeat} switched off, and on from the keyboard; systemd runs it as process ${mainPid(`${heartbeat}.service`)}`);
}

async function overrideArguments(frame) {
    const before = mainPid(`${heartbeat}.service`);
    await rowAction(frame, heartbeat, "Program arguments…");
    await frame.waitForSelector("#tessary-argument-2", { visible: true });
    await replaceText(frame, "#tessary-argument-2", "2");
    await shot("program-arguments");
    await (await modalButton(frame, "Save")).click();
    await frame.waitForSelector(".pf-c-modal-box", { hidden: true, timeout: 20000 });
    await until("a new heartbeat process", () => {
        const pid = mainPid(`${heartbeat}.service`);
        return pid !== "0" && pid !== before;
    });
    const expected = `/bin/bash ${libexec}/tessary-heartbeat /run/tessary-heartbeat 2`;
    await until("the new arguments", () => commandLine(`${heartbeat}.service`) === expected);
    console.log(`browser: new arguments; systemd runs: ${commandLine(`${heartbeat}.service`)}`);
}

// The property-list fields refuse what is not a property list of their
// kind before anything is sent.
async function propertyListOverrides(frame) {
    await rowAction(frame, heartbeat, "Sockets…");
    await frame.waitForSelector("#tessary-plist", { visible: true });
    const text = await modalText(frame);
    if (!text.includes("has no sockets"))
        throw new Error(`the sockets dialog says: ${text}`);
    await replaceText(frame, "#tessary-plist", "<plist><array/></plist>");
    await frame.waitForSelector("::-p-text(Sockets are a dictionary)", { visible: true });
    if (!(await frame.$eval("::-p-xpath(//button[normalize-space()='Save'])", el => el.disabled)))
        throw new Error("Save is offered for sockets that are not a dictionary");
    await shot("sockets-refused");
    await closeModal(frame);

    await rowAction(frame, heartbeat, "Calendar start times…");
    await frame.waitForSelector("#tessary-plist", { visible: true });
    await closeModal(frame);
    console.log("browser: sockets and calendar start times shown; a wrong property list is refused");
}

// A change made elsewhere shows on the open page: the echo service switched
// on by tessaryctl waits for a connection on its socket.
async function liveUpdate(frame) {
    const echo = "com.orvane.tessary.echo";
    machineMust("tessaryctl", "enable", echo);
    await frame.waitForSelector(`${rowOf(echo)}[data-on="true"][data-state="waiting for a connection"]`,
                                { timeout: 20000 });
    await shot("changed-elsewhere");
    machineMust("tessaryctl", "disable", echo);
    await frame.waitForSelector(`${rowOf(echo)}[data-on="false"][data-state="stopped"]`,
                                { timeout: 20000 });
    console.log(`browser: ${echo} switched by tessaryctl showed on the open page, waiting for a connection`);
}

async function journal(frame) {
    await rowAction(frame, heartbeat, "Journal…");
    await frame.waitForSelector("#tessary-journal", { visible: true, timeout: 20000 });
    const lines = await frame.$eval("#tessary-journal", el => el.textContent);
    if (!lines.includes(`${heartbeat}.service`))
        throw new Error(`the journal shows: ${lines.slice(0, 300)}`);
    await shot("journal");
    await (await modalButton(frame, "Close")).click();
    console.log("browser: the service's journal lines shown");
}

async function createAndDestroy(frame) {
    await frame.click("#tessary-create");
    await frame.waitForSelector("#tessary-definition", { visible: true });
    // Typed: a definition without a label is refused at once.
    await replaceText(frame, "#tessary-definition",
                      "<plist><dict><key>Program</key><string>/bin/true</string></dict></plist>");
    await frame.waitForSelector("::-p-text(needs a \"Label\")", { visible: true });
    await shot("definition-refused");
    // Uploaded: the file's definition.
    const input = await frame.$(".pf-c-modal-box input[type=file]");
    await input.uploadFile(definitionFile);
    await until("the uploaded definition", async () =>
        (await frame.$eval("#tessary-definition", el => el.value)).includes(dynamic));
    await (await modalButton(frame, "Create")).click();
    await frame.waitForSelector(`${rowOf(dynamic)}[data-on="false"]`, { timeout: 20000 });
    await switchService(frame, dynamic, true);
    await frame.waitForSelector(`${rowOf(dynamic)}[data-state="running"]`, { timeout: 20000 });
    await shot("dynamic-service-running");

    // Reset names what it drops, and switches the service off.
    await rowAction(frame, dynamic, "Reset…");
    const resetText = await modalText(frame);
    if (!resetText.includes("program arguments, sockets and calendar start times are dropped"))
        throw new Error(`the reset confirmation says: ${resetText}`);
    await (await modalButton(frame, "Reset")).click();
    await frame.waitForSelector(`${rowOf(dynamic)}[data-on="false"]`, { timeout: 20000 });

    await rowAction(frame, dynamic, "Destroy…");
    await (await modalButton(frame, "Destroy")).click();
    await frame.waitForSelector(rowOf(dynamic), { hidden: true, timeout: 20000 });
    const load = machine("systemctl", "show", "-P", "LoadState", `${dynamic}.service`);
    if (load !== "not-found")
        throw new Error(`${dynamic}.service is ${load} after its destruction`);
    console.log(`browser: ${dynamic} created from an uploaded file, run, reset and destroyed`);
}

async function demotionConfirmation(frame) {
    await frame.click("#tessary-demote");
    await frame.waitForSelector(".pf-c-modal-box", { visible: true });
    const text = await modalText(frame);
    if (!text.includes("uninstalls itself"))
        throw new Error(`the removal confirmation says: ${text}`);
    await shot("removal-confirmation");
    await closeModal(frame);
}

async function setUp(frame) {
    const status = await frame.$eval("#tessary-status", el => el.textContent);
    if (status === "configured")
        throw new Error("the machine is set up before the page set it up");
    await shot("not-set-up");
    await frame.click("#tessary-setup");
    await frame.waitForSelector(".pf-c-modal-box", { visible: true });
    if (!(await modalText(frame)).includes("keeps the machine from sleeping"))
        throw new Error("the set-up dialog does not say what it does");
    await (await modalButton(frame, "Set up")).click();
    await frame.waitForSelector("::-p-xpath(//*[@id='tessary-status'][normalize-space()='configured'])",
                                { timeout: 30000 });
    await shot("configured");
    console.log(`browser: set up from the page: "${status}" became "configured"`);
}

// Five loads of the page; the median times from the frame's start and from
// navigating the console to the list's first rendering with its switches,
// as the page marks it.
async function loads(expectedRows) {
    const times = [];
    for (let run = 0; run < 5; run++) {
        const started = Date.now();
        await page.goto(`${url}/tessary`, { waitUntil: "domcontentloaded" });
        const frame = await tessaryFrame();
        await frame.waitForSelector("body[data-interactive='true']", { timeout: 60000 });
        const whole = Date.now() - started;
        const rows = (await frame.$$("tr[data-service]")).length;
        if (rows < expectedRows)
            throw new Error(`the list shows ${rows} services, not ${expectedRows} or more`);
        const inFrame = await frame.evaluate(() => window.tessaryInteractiveAt);
        times.push({ inFrame, whole });
    }
    const median = key => times.map(t => t[key]).sort((a, b) => a - b)[2];
    return { inFrame: median("inFrame"), whole: median("whole"), all: times.map(t => t.inFrame) };
}

// The page's load time with CROWD services created at run time, beside the
// same page with the app's own few services, measured in the same run.
async function loadTime() {
    const baseline = await loads(1);
    for (let i = 0; i < crowd; i++) {
        const label = `com.example.crowd.${String(i).padStart(3, "0")}`;
        machineMust("bash", "-c", `tessaryctl create --file - >/dev/null <<'PLIST'
<plist version="1.0"><dict><key>Label</key><string>${label}</string>
<key>ProgramArguments</key><array><string>/bin/sleep</string><string>infinity</string></array>
</dict></plist>
PLIST`);
    }
    const crowded = await loads(crowd);
    await shot("hundred-services");
    const ms = v => `${v.toFixed(0)} ms`;
    console.log(`browser: interactive list of ${crowd} more services: median ${ms(crowded.inFrame)} ` +
                `from the page's start (5 loads: ${crowded.all.map(ms).join(", ")}), ` +
                `${ms(crowded.whole)} from navigating the console; with the app's own services: ` +
                `${ms(baseline.inFrame)} and ${ms(baseline.whole)}; ratio ` +
                `${(crowded.inFrame / baseline.inFrame).toFixed(2)}`);
    for (let i = 0; i < crowd; i++)
        machineMust("tessaryctl", "destroy", `com.example.crowd.${String(i).padStart(3, "0")}`);
}

async function main() {
    fs.mkdirSync(shots, { recursive: true });
    const browser = await puppeteer.launch({
        executablePath: "/usr/bin/chromium",
        headless: true,
        args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            "--disable-dev-shm-usage"],
        defaultViewport: { width: 1280, height: 900 },
    });
    try {
        page = await browser.newPage();
        await userWithoutAdministrativeAccess();
        await takeAdministrativeAccess();
        let frame = await openTessary();
        await switchesAndState(frame);
        await overrideArguments(frame);
        await propertyListOverrides(frame);
        await liveUpdate(frame);
        await journal(frame);
        await createAndDestroy(frame);
        await demotionConfirmation(frame);
        await setUp(frame);
        // A narrow window: the table stacks its cells, nothing runs off.
        await page.setViewport({ width: 420, height: 900 });
        frame = await openTessary();
        await frame.waitForSelector(rowOf(heartbeat), { visible: true });
        const overflow = await frame.evaluate(() =>
            document.documentElement.scrollWidth - document.documentElement.clientWidth);
        if (overflow > 0)
            throw new Error(`the page is ${overflow} px wider than a narrow window`);
        await shot("narrow-window");
        await page.setViewport({ width: 1280, height: 900 });
        // The console's dark style reaches the page.
        await page.evaluate(() => window.localStorage.setItem("shell:style", "dark"));
        frame = await openTessary();
        if (!(await frame.$eval("html", el => el.classList.contains("pf-theme-dark"))))
            throw new Error("the page does not follow the console's dark style");
        await shot("dark-style");
        await page.evaluate(() => window.localStorage.removeItem("shell:style"));
        await loadTime();
    } catch (e) {
        if (page)
            await shot("failure").catch(() => {});
        throw e;
    } finally {
        await browser.close();
    }
}

main().catch(e => {
    console.error(`browser: ${e.stack || e}`);
    process.exit(1);
});
