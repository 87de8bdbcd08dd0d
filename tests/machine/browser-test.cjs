// The Tessary page of the Cockpit web console, in Debian's Chromium driven
// headless: what a user who is not an administrator sees, and what an
// administrator does with administrative access, checked against systemd on
// the booted machine; an accessibility audit of every screen; the page in
// German; and its load times beside Cockpit's own Services page. Run by
// machine-test.sh inside the machine's network namespace, with NODE_PATH
// naming the page's node_modules:
//
//   node browser-test.cjs MACHINE_PID SCREENSHOT_DIR DEFINITION_FILE
//
// MACHINE_PID is the machine's PID 1, whose namespaces the systemd checks
// enter; DEFINITION_FILE is a service definition on this side, uploaded
// through the page. Screenshots of each state go to SCREENSHOT_DIR. Prints
// "browser: ..." lines; exits non-zero at the first check that fails, and
// on any console error, page exception or Cockpit "Oops".
"use strict";

const { spawnSync } = require("node:child_process");
const fs = require("node:fs");
const path = require("node:path");
const puppeteer = require("puppeteer-core");
const axeSource = require("axe-core").source;

const [machinePid, shots, definitionFile] = process.argv.slice(2);
const url = "http://127.0.0.1:9090";
const heartbeat = "com.orvane.tessary.heartbeat";
const dynamic = "com.example.browser.dynamic";
const daemonUnit = "com.orvane.tessaryd.service";
const libexec = "/Applications/Tessary.app/Contents/TessaryRoot/usr/libexec/tessary";
const password = "correct horse";
const crowd = 100;
const bigCrowd = 1000;

function runInMachine(command, input) {
    const run = spawnSync("nsenter", ["-t", machinePid, "-m", "-u", "-i", "-n", "-p", "--",
        "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", ...command],
    { encoding: "utf8", input });
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

// Every console error and page exception fails the run. The login page's
// own probe of the session answers 401 before anyone has logged in.
const problems = [];
function watchForProblems() {
    page.on("console", message => {
        const where = message.location()?.url || "";
        if (message.type() === "error" && !(where.endsWith("/cockpit/login") && message.text().includes("401")))
            problems.push(`console error: ${message.text()} (${where}) ${JSON.stringify(message.stackTrace().slice(0, 2))}`);
    });
    page.on("pageerror", error => problems.push(`page exception: ${error.message}`));
}

// Fails on what the console reported since the last check, and on the
// shell's "Oops" that marks an exception in one of its pages.
async function noProblems(step) {
    if (await page.$("#navbar-oops"))
        problems.push("Cockpit shows \"Oops\"");
    if (problems.length > 0)
        throw new Error(`${step}: ${[...new Set(problems)].slice(0, 5).join("; ")}`);
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

async function openTessary(hash = "") {
    await page.goto(`${url}/tessary${hash}`, { waitUntil: "domcontentloaded" });
    const frame = await tessaryFrame();
    await frame.waitForSelector("#tessary-status, #tessary-details", { visible: true, timeout: 30000 });
    return frame;
}

// The axe-core audit of what the frame shows: no violation at all.
const audits = [];
async function audit(frame, screen) {
    if (!(await frame.evaluate(() => window.axe !== undefined)))
        await frame.evaluate(axeSource);
    const violations = await frame.evaluate(async () =>
        (await window.axe.run(document, { resultTypes: ["violations"] })).violations
                .map(v => `${v.id} (${v.impact}): ${v.nodes.map(n => n.target.join(" ")).join(", ")}`));
    if (violations.length > 0)
        throw new Error(`accessibility violations on "${screen}": ${violations.join("; ")}`);
    audits.push(screen);
    console.log(`browser: axe-core finds no violation on "${screen}"`);
}

const rowOf = label => `tr[data-service="${label}"]`;

async function switchService(frame, label, on) {
    await frame.click(`label[for="switch-${label}"]`);
    await frame.waitForSelector(`${rowOf(label)}[data-on="${on}"]`, { timeout: 20000 });
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
const textOf = (frame, selector) => frame.$eval(selector, el => el.innerText.trim());
const rowsShown = frame => frame.$$eval("tr[data-service]", rows => rows.map(r => r.dataset.service));

const listOptions = frame => frame.evaluate(() => window.cockpit.location.options);

async function openDetails(frame, label) {
    await frame.click(`${rowOf(label)} a`);
    await frame.waitForSelector(`body[data-details="${label}"]`, { timeout: 20000 });
}

async function backToList(frame) {
    await frame.click("#tessary-details .pf-c-breadcrumb a");
    await frame.waitForSelector("#tessary-services, #tessary-nothing-matches", { visible: true });
}

// --- the steps ------------------------------------------------------------

async function userWithoutAdministrativeAccess() {
    await logIn("tessuser");
    const frame = await openTessary();
    await frame.waitForSelector("#tessary-needs-admin", { visible: true });
    const status = await frame.$eval("#tessary-status", el => el.dataset.status);
    if (!["configured", "unconfigured", "updatable"].includes(status))
        throw new Error(`the status reads "${status}"`);
    if ((await frame.$$("input[id^='switch-']")).length !== 0)
        throw new Error("a user without administrative access is shown switches");
    console.log(`browser: a user without administrative access sees the status "${status}" and no switches`);
    await shot("user-without-administrative-access");
    await audit(frame, "limited access");
    await logOut();
}

const indicatorSays = async text =>
    (await page.$eval("#super-user-indicator", el => el.innerText)).includes(text);

const shellDialogButton = async text => (await modalButton(page, text)).click();

// An administrator starts in limited access (the console may have turned
// administrative access on at login: it is turned off first), where the
// page is as for any user; the "Limited access" button and the password
// then give administrative access, which the open page follows.
async function takeAdministrativeAccess() {
    await logIn("tessadmin");
    if (await indicatorSays("Administrative access")) {
        await page.click("#super-user-indicator button");
        await shellDialogButton("Limit access");
        await until("limited access", () => indicatorSays("Limited access"), 30);
    }
    let frame = await openTessary();
    await frame.waitForSelector("#tessary-needs-admin", { visible: true });
    await frame.evaluate(() => { window.tessaryBeforeAccess = true });
    await shot("administrator-in-limited-access");

    await page.click("#super-user-indicator button");
    await page.waitForSelector(".pf-c-modal-box input[type=password]", { visible: true });
    await page.type(".pf-c-modal-box input[type=password]", password);
    await shellDialogButton("Authenticate");
    await until("administrative access", () => indicatorSays("Administrative access"), 30);
    frame = await tessaryFrame();
    await frame.waitForSelector("input[id^='switch-']", { visible: true, timeout: 30000 });
    const kept = await frame.evaluate(() => window.tessaryBeforeAccess === true);
    console.log("browser: tessadmin, in limited access, saw \"Needs administrative access\"; took " +
                `administrative access with the password; the switches appeared ${kept ? "in the same page, without a reload" : "after the console reloaded the page"}`);
}

async function switchesAndState(frame) {
    await frame.waitForSelector(rowOf(heartbeat), { visible: true });
    await shot("services-list");
    await audit(frame, "services list");
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

// The text and state filters, their count, the empty state, the sort, and
// the filter in the URL kept over a reload.
async function filters(frame) {
    const total = (await rowsShown(frame)).length;
    await replaceText(frame, "#tessary-filter-text input", "HEART");
    await frame.waitForSelector("#tessary-services[data-filter-text='HEART']");
    const shown = await rowsShown(frame);
    if (shown.length !== 1 || shown[0] !== heartbeat)
        throw new Error(`the filter "HEART" shows ${shown.join(", ")}`);
    const count = await textOf(frame, "#tessary-count");
    if (count !== `1 of ${total} services shown`)
        throw new Error(`the count reads "${count}"`);
    await shot("filtered-by-text");

    await frame.select("#tessary-filter-state", "stopped");
    await frame.waitForSelector("#tessary-nothing-matches", { visible: true });
    await shot("nothing-matches");
    await audit(frame, "nothing matches the filter");
    await frame.click("#tessary-nothing-matches button");
    await until("all services again", async () => (await rowsShown(frame)).length === total);

    await frame.select("#tessary-filter-state", "stopped");
    await until("the stopped services", async () =>
        (await frame.$$eval("tr[data-service]", rows => rows.every(r => r.dataset.state === "stopped"))) &&
        (await rowsShown(frame)).length > 0);
    const stopped = (await rowsShown(frame)).length;
    await replaceText(frame, "#tessary-filter-text input", "tessary");
    // The console shows the page's location in its own.
    await until("the filter in the console's URL", () => decodeURIComponent(page.url()).includes("q=tessary"));
    await page.reload({ waitUntil: "domcontentloaded" });
    frame = await tessaryFrame();
    await frame.waitForSelector("#tessary-services", { visible: true, timeout: 30000 });
    const kept = await frame.$eval("#tessary-filter-text input", el => el.value);
    const state = await frame.$eval("#tessary-filter-state", el => el.value);
    if (kept !== "tessary" || state !== "stopped")
        throw new Error(`after a reload the filter is "${kept}" and "${state}"`);
    await shot("filter-kept-over-reload");

    // Sorted by state, descending: the stopped ones first among them all.
    await frame.select("#tessary-filter-state", "all");
    await replaceText(frame, "#tessary-filter-text input", "");
    const stateHeader = "::-p-xpath(//th[.//*[normalize-space()='State']]//button)";
    await frame.click(stateHeader);
    await frame.click(stateHeader);
    const states = () => frame.$$eval("tr[data-service]", rows => rows.map(r => r.dataset.state));
    await until("the descending sort by state", async () => {
        const order = await states();
        return order[0] === "stopped" && order.indexOf("running") > order.lastIndexOf("stopped");
    }).catch(async e => { throw new Error(`${e.message}: ${(await states()).join(", ")}`) });
    await frame.click(stateHeader.replace("State", "Service"));
    console.log(`browser: "HEART" shows ${heartbeat} ("${count}"); state "stopped" with it: nothing ` +
                `matches; "tessary" with "stopped" (${stopped} stopped of ${total}) kept over a reload; ` +
                "sorted by state both ways");
    return frame;
}

// A service's page: its units with their states, the overridden arguments
// beside the definition's, the journal and the link to Cockpit's Logs page.
async function details(frame) {
    await openDetails(frame, heartbeat);
    await frame.waitForSelector(`tr[data-unit="${heartbeat}.service"][data-active="active"]`, { timeout: 20000 });
    const since = await frame.$eval(`tr[data-unit="${heartbeat}.service"] td:last-child`, el => el.innerText);
    const setting = "[data-setting='programArguments']";
    await frame.waitForSelector(`${setting}[data-overridden='true']`);
    const current = await textOf(frame, `${setting} .tessary-current`);
    const definition = await textOf(frame, `${setting} .tessary-definition-value`);
    if (!current.endsWith("/run/tessary-heartbeat 1") || !definition.endsWith("/run/tessary-heartbeat 5"))
        throw new Error(`the arguments read "${current}", the definition's "${definition}"`);
    if (!(await textOf(frame, "#tessary-definition-text")).includes("<key>ThrottleInterval</key>"))
        throw new Error("the definition's text is not shown");
    await frame.waitForSelector("#tessary-journal", { visible: true, timeout: 20000 });
    if (!(await textOf(frame, "#tessary-journal")).includes(`${heartbeat}.service`))
        throw new Error(`the journal shows: ${(await textOf(frame, "#tessary-journal")).slice(0, 300)}`);
    await shot("service-details");
    await audit(frame, "service details");
    console.log(`browser: ${heartbeat}'s page: ${heartbeat}.service active since ${since}; arguments ` +
                "\"... 1\" overridden beside the definition's \"... 5\"; its definition and journal shown");

    // The arguments edited there: systemd runs a new process with them.
    const before = mainPid(`${heartbeat}.service`);
    await frame.click("#tessary-edit-programArguments");
    await frame.waitForSelector("#tessary-argument-2", { visible: true });
    await replaceText(frame, "#tessary-argument-2", "2");
    await shot("program-arguments");
    await audit(frame, "program arguments dialog");
    await (await modalButton(frame, "Save")).click();
    await frame.waitForSelector(".pf-c-modal-box", { hidden: true, timeout: 20000 });
    await until("a new heartbeat process", () => {
        const pid = mainPid(`${heartbeat}.service`);
        return pid !== "0" && pid !== before;
    });
    const expected = `/bin/bash ${libexec}/tessary-heartbeat /run/tessary-heartbeat 2`;
    await until("the new arguments", () => commandLine(`${heartbeat}.service`) === expected);
    await until("the new arguments on the page", async () =>
        (await textOf(frame, `${setting} .tessary-current`)).endsWith("heartbeat 2"));
    console.log(`browser: new arguments; systemd runs: ${commandLine(`${heartbeat}.service`)}`);

    // The property-list fields refuse what is not a property list of their
    // kind before anything is sent.
    await frame.click("#tessary-edit-sockets");
    await frame.waitForSelector("#tessary-plist", { visible: true });
    if (!(await modalText(frame)).includes("has no sockets"))
        throw new Error(`the sockets dialog says: ${await modalText(frame)}`);
    await replaceText(frame, "#tessary-plist", "<plist><array/></plist>");
    await frame.waitForSelector("::-p-text(Sockets are a dictionary)", { visible: true });
    if (!(await (await modalButton(frame, "Save")).evaluate(el => el.disabled)))
        throw new Error("Save is offered for sockets that are not a dictionary");
    await shot("sockets-refused");
    await audit(frame, "sockets dialog, refused");
    await closeModal(frame);
    await frame.click("#tessary-edit-startCalendarIntervals");
    await frame.waitForSelector("#tessary-plist", { visible: true });
    await closeModal(frame);
    console.log("browser: sockets and calendar start times shown; a wrong property list is refused");

    // The journal link opens Cockpit's Logs page filtered to the service.
    await frame.click("#tessary-logs-link");
    await until("the Logs page", () => page.url().includes("/system/logs"));
    const logs = decodeURIComponent(page.url());
    if (!logs.includes(`service=${heartbeat}.service`))
        throw new Error(`the Logs page opened as ${logs}`);
    const logsFrame = await until("the Logs page's frame", () =>
        page.frames().some(f => f.name().startsWith("cockpit1:localhost/system/logs"))).then(() =>
        page.frames().find(f => f.name().startsWith("cockpit1:localhost/system/logs")));
    await logsFrame.waitForSelector(".cockpit-log-panel, #journal-box", { visible: true, timeout: 30000 });
    await shot("logs-page-filtered");
    console.log(`browser: the journal link opened ${logs.slice(logs.indexOf("/system/logs"))}`);
    await page.goBack({ waitUntil: "domcontentloaded" });
}

// A dialog opened from the page's root keeps what was typed while the daemon
// is stopped and started; the create dialog then shows the translation's
// findings before anything is created.
async function createAndDestroy(frame) {
    await frame.click("#tessary-create");
    await frame.waitForSelector("#tessary-definition", { visible: true });
    const typed = "<plist><dict><key>Program</key><string>/bin/true</string></dict></plist>";
    await replaceText(frame, "#tessary-definition", typed);
    await frame.waitForSelector("::-p-text(needs a \"Label\")", { visible: true });
    await shot("definition-refused");

    machineMust("systemctl", "stop", daemonUnit);
    await frame.waitForSelector("#tessary-unreachable", { visible: true, timeout: 20000 });
    if ((await frame.$eval("#tessary-definition", el => el.value)) !== typed)
        throw new Error("the create dialog lost its text while the daemon was stopped");
    await shot("dialog-kept-while-daemon-stopped");
    machineMust("systemctl", "start", daemonUnit);
    await frame.waitForSelector("#tessary-services", { visible: true, timeout: 30000 });
    if ((await frame.$eval("#tessary-definition", el => el.value)) !== typed)
        throw new Error("the create dialog lost its text when the daemon came back");
    console.log("browser: the create dialog kept its text while the daemon stopped and came back");

    if (checkAvailable())
        await findings(frame);
    else
        console.log("browser: this tessaryctl has no check command: the findings are not shown before Create");

    // Uploaded: the file's definition.
    const input = await frame.$(".pf-c-modal-box input[type=file]");
    await input.uploadFile(definitionFile);
    await until("the uploaded definition", async () =>
        (await frame.$eval("#tessary-definition", el => el.value)).includes(dynamic));
    await (await modalButton(frame, "Create")).click();
    await frame.waitForSelector(`${rowOf(dynamic)}[data-on="false"]`, { timeout: 20000 });
    await openDetails(frame, dynamic);
    if (!(await textOf(frame, "#tessary-dynamic")).startsWith("Yes"))
        throw new Error(`${dynamic} is not marked as created at run time`);
    await frame.click("label[for='tessary-details-switch']");
    await frame.waitForSelector("#tessary-details-state[class*='green']", { timeout: 20000 });
    await frame.waitForSelector(`tr[data-unit="${dynamic}.service"][data-active="active"]`, { timeout: 20000 });
    await shot("dynamic-service-running");

    // Reset names what it drops, and switches the service off.
    await frame.click("#tessary-reset");
    const resetText = await modalText(frame);
    if (!resetText.includes("program arguments, sockets and calendar start times are dropped"))
        throw new Error(`the reset confirmation says: ${resetText}`);
    await (await modalButton(frame, "Reset")).click();
    await until("the service switched off", async () =>
        !(await frame.$eval("#tessary-details-switch", el => el.checked)));

    await frame.click("#tessary-destroy");
    await audit(frame, "destroy confirmation");
    await (await modalButton(frame, "Destroy")).click();
    await frame.waitForSelector("#tessary-services", { visible: true, timeout: 20000 });
    await frame.waitForSelector(rowOf(dynamic), { hidden: true, timeout: 20000 });
    const load = machine("systemctl", "show", "-P", "LoadState", `${dynamic}.service`);
    if (load !== "not-found")
        throw new Error(`${dynamic}.service is ${load} after its destruction`);
    console.log(`browser: ${dynamic} created from an uploaded file, run from its page, reset and destroyed`);
}

const checkAvailable = () =>
    runInMachine(["tessaryctl", "--json", "check", "--file", "-"], "<plist><dict/></plist>").status !== 64;

// A key the translation warns of, then one it refuses: both shown, with
// Create refused for the second, before anything is created.
async function findings(frame) {
    const definition = extra => `<plist version="1.0"><dict><key>Label</key><string>com.example.findings</string>
<key>ProgramArguments</key><array><string>/bin/sleep</string><string>infinity</string></array>
<key>KeepAlive</key><true/>${extra}</dict></plist>`;
    await replaceText(frame, "#tessary-definition",
                      definition("<key>MachServices</key><dict><key>com.example.port</key><true/></dict>"));
    await frame.waitForSelector("#tessary-findings[data-runs='true'] tr[data-finding='MachServices']", { timeout: 20000 });
    await shot("create-findings-warned");
    await audit(frame, "create dialog, a key warned of");
    await replaceText(frame, "#tessary-definition", definition(
        "<key>SoftResourceLimits</key><dict><key>NumberOfFiles</key><integer>8192</integer></dict>" +
        "<key>HardResourceLimits</key><dict><key>NumberOfFiles</key><integer>4096</integer></dict>"));
    await frame.waitForSelector("#tessary-findings[data-runs='false'] tr[data-kind='refused']", { timeout: 20000 });
    if (!(await (await modalButton(frame, "Create")).evaluate(el => el.disabled)))
        throw new Error("Create is offered for a definition that would be refused");
    await shot("create-findings-refused");
    const kinds = await frame.$$eval("tr[data-finding]", rows => rows.map(r => `${r.dataset.finding}: ${r.dataset.kind}`));
    console.log(`browser: the create dialog shows MachServices warned of, then ${kinds.join(", ")} with Create refused`);
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

// A service destroyed elsewhere while it is off is still listed until the
// next read; switching it on fails, and says so in an alert that closes.
async function actionFailure(frame) {
    const gone = "com.example.browser.gone";
    runInMachine(["tessaryctl", "create", "--file", "-"], `<plist version="1.0"><dict><key>Label</key>
<string>${gone}</string><key>Program</key><string>/bin/true</string></dict></plist>`);
    await page.reload({ waitUntil: "domcontentloaded" });
    frame = await tessaryFrame();
    await frame.waitForSelector(rowOf(gone), { visible: true, timeout: 30000 });
    machineMust("tessaryctl", "destroy", gone);
    await frame.click(`label[for="switch-${gone}"]`);
    await frame.waitForSelector(".tessary-action-alert", { visible: true, timeout: 20000 });
    const alert = await textOf(frame, ".tessary-action-alert");
    await shot("action-failed");
    await audit(frame, "an action's failure");
    await frame.click(".tessary-action-alert .pf-c-alert__action button");
    await frame.waitForSelector(".tessary-action-alert", { hidden: true });
    console.log(`browser: switching a service destroyed elsewhere failed with a dismissible alert: "${alert.replace(/\s+/g, " ")}"`);
    return frame;
}

// Whether the element that has the focus shows it.
const focusShows = frame => frame.evaluate(() => {
    const style = getComputedStyle(document.activeElement);
    return (style.outlineStyle !== "none" && parseFloat(style.outlineWidth) > 0) || style.boxShadow !== "none";
});

// Presses Tab until the element SELECTOR has the focus, which must show.
async function tabTo(frame, selector, presses = 60) {
    for (let i = 0; i < presses; i++) {
        await page.keyboard.press("Tab");
        if (await frame.evaluate(s => document.activeElement?.matches(s), selector)) {
            if (!(await focusShows(frame)))
                throw new Error(`${selector} has the focus, and does not show it`);
            return i + 1;
        }
    }
    throw new Error(`${presses} presses of Tab did not reach ${selector}`);
}

// List, a service's page and a dialog with the keyboard alone.
async function keyboardOnly(frame) {
    await frame.evaluate(() => { document.activeElement?.blur(); window.focus() });
    await tabTo(frame, "#tessary-filter-text input");
    await page.keyboard.type("heart");
    await tabTo(frame, `${rowOf(heartbeat)} a`);
    await shot("keyboard-focus-on-a-row");
    await page.keyboard.press("Enter");
    await frame.waitForSelector(`body[data-details="${heartbeat}"]`, { timeout: 20000 });
    await tabTo(frame, "#tessary-edit-programArguments");
    await page.keyboard.press("Enter");
    await frame.waitForSelector("#tessary-argument-0", { visible: true });
    await tabTo(frame, "#tessary-argument-1");
    await page.keyboard.press("Escape");
    await frame.waitForSelector(".pf-c-modal-box", { hidden: true });
    await frame.evaluate(() => { document.activeElement?.blur(); window.focus() });
    await tabTo(frame, "#tessary-details .pf-c-breadcrumb a");
    await page.keyboard.press("Enter");
    await frame.waitForSelector("#tessary-services", { visible: true });
    const kept = await frame.$eval("#tessary-filter-text input", el => el.value);
    if (kept !== "heart")
        throw new Error(`Back from the service's page gave the filter "${kept}"`);
    await replaceText(frame, "#tessary-filter-text input", "");
    console.log("browser: with the keyboard alone: filter typed, a row's link, the service's page, its " +
                "arguments dialog and back to the filtered list, the focus shown at each stop");
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
    const status = await frame.$eval("#tessary-status", el => el.dataset.status);
    if (status === "configured")
        throw new Error("the machine is set up before the page set it up");
    await shot("not-set-up");
    await frame.click("#tessary-setup");
    await frame.waitForSelector(".pf-c-modal-box", { visible: true });
    if (!(await modalText(frame)).includes("keeps the machine from sleeping"))
        throw new Error("the set-up dialog does not say what it does");
    await audit(frame, "set-up dialog");
    await (await modalButton(frame, "Set up")).click();
    await frame.waitForSelector("#tessary-status[data-status='configured']", { timeout: 30000 });
    await shot("configured");
    console.log(`browser: set up from the page: "${status}" became "configured"`);
}

// The console's language set to German in its Session menu: the menu label,
// a heading, a dialog's button and a plural of the page in German.
async function inGerman() {
    await page.click("#toggle-menu");
    await page.click(".display-language-menu");
    await page.waitForSelector("#display-language-modal", { visible: true });
    await page.click("#display-language-list [data-value^='de'] button");
    await Promise.all([page.waitForNavigation({ waitUntil: "domcontentloaded" }), shellDialogButton("Select")]);
    const frame = await openTessary();
    await frame.waitForSelector("#tessary-services", { visible: true, timeout: 30000 });
    const menu = await page.$$eval("#host-apps a", links => links.map(a => a.innerText.trim()));
    const heading = await textOf(frame, "h1");
    const count = await textOf(frame, "#tessary-count");
    await frame.click("#tessary-create");
    await frame.waitForSelector(".pf-c-modal-box", { visible: true });
    const buttons = await frame.$$eval(".pf-c-modal-box__footer button", b => b.map(e => e.innerText.trim()));
    await shot("german-create-dialog");
    await audit(frame, "create dialog, in German");
    await page.keyboard.press("Escape");
    await frame.waitForSelector(".pf-c-modal-box", { hidden: true });
    await shot("german-list");
    await audit(frame, "services list, in German");
    const lang = await frame.$eval("html", el => el.lang);
    if (!menu.includes("Tessary-Dienste") || heading !== "Tessary-Dienste" || !/^\d+ Dienste$/.test(count) ||
        !buttons.includes("Erstellen") || !buttons.includes("Abbrechen") || !lang.startsWith("de"))
        throw new Error(`in German: menu ${menu.join(", ")}; heading "${heading}"; count "${count}"; ` +
                        `buttons ${buttons.join(", ")}; the page's language "${lang}"`);
    console.log(`browser: in German: the menu's "Tessary-Dienste", the heading "${heading}", "${count}", ` +
                `the dialog's ${buttons.map(b => `"${b}"`).join(" and ")}`);
    await page.evaluate(() => { document.cookie = "CockpitLang=en-us; path=/"; window.localStorage.setItem("cockpit.lang", "en-us") });
}

// --- load times -------------------------------------------------------------

// Navigates the console to PAGE and waits in its frame for SELECTOR; the time
// from navigating, and from the frame's own start to when SELECTOR matched,
// as the frame saw it.
async function loadOnce(pagePath, frameName, selector) {
    const started = Date.now();
    await page.goto(`${url}${pagePath}`, { waitUntil: "domcontentloaded" });
    let frame = null;
    await until(`the frame ${frameName}`, () => {
        frame = page.frames().find(f => f.name() === frameName);
        return frame !== undefined;
    }, 60);
    const inFrame = await (await frame.waitForFunction(s => document.querySelector(s) && performance.now(),
                                                       { polling: "mutation", timeout: 60000 }, selector)).jsonValue();
    const whole = Date.now() - started;
    return { inFrame, whole, frame, rows: (await frame.$$("tbody tr")).length };
}

const median = values => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
const ms = v => `${v.toFixed(0)} ms`;

// Five loads each of this page and of Cockpit's Services page, alternating,
// in the same run: median times to an interactive list.
async function loads(expectedRows, withServicesPage) {
    const ours = [];
    const theirs = [];
    for (let run = 0; run < 5; run++) {
        const load = await loadOnce("/tessary", "cockpit1:localhost/tessary", "tr[data-service] input[id^='switch-']");
        await load.frame.waitForSelector("body[data-interactive='true']", { timeout: 60000 });
        const rows = (await load.frame.$$("tr[data-service]")).length;
        if (rows < expectedRows)
            throw new Error(`the list shows ${rows} services, not ${expectedRows} or more`);
        ours.push(load);
        if (withServicesPage)
            theirs.push(await loadOnce("/system/services", "cockpit1:localhost/system/services",
                                       "#services-list tbody tr"));
    }
    const summary = loaded => ({
        inFrame: median(loaded.map(l => l.inFrame)),
        whole: median(loaded.map(l => l.whole)),
        all: loaded.map(l => l.inFrame),
        rows: loaded[loaded.length - 1].rows,
    });
    return { ours: summary(ours), theirs: withServicesPage ? summary(theirs) : null };
}

// Creates the services com.example.crowd.FROM to TO-1 in one command inside
// the machine.
function createCrowd(from, to) {
    machineMust("bash", "--norc", "-c", `for ((i = ${from}; i < ${to}; i++)); do printf -v label 'com.example.crowd.%04d' "$i"
tessaryctl create --file - >/dev/null <<PLIST || exit 1
<plist version="1.0"><dict><key>Label</key><string>$label</string>
<key>ProgramArguments</key><array><string>/bin/sleep</string><string>infinity</string></array>
</dict></plist>
PLIST
done`);
}

function destroyCrowd(count) {
    machineMust("bash", "--norc", "-c", `for ((i = 0; i < ${count}; i++)); do printf -v label 'com.example.crowd.%04d' "$i"
tessaryctl destroy "$label" >/dev/null || exit 1; done`);
}

// Typing one more letter into the filter: the time from the key to the
// filtered list on the screen, as the page marks it.
async function filterAnswer(frame, text) {
    await frame.$eval("#tessary-filter-text input", el => el.focus());
    const times = [];
    for (const letter of text) {
        await frame.evaluate(() => {
            window.tessaryKeyAt = undefined;
            document.addEventListener("keydown", () => { window.tessaryKeyAt = performance.now() }, { once: true, capture: true });
        });
        await page.keyboard.type(letter);
        const typed = await frame.$eval("#tessary-filter-text input", el => el.value);
        await frame.waitForSelector(`#tessary-services[data-filter-text="${typed}"], #tessary-nothing-matches`);
        times.push(await frame.evaluate(() => window.tessaryFilteredAt - window.tessaryKeyAt));
    }
    return times;
}

// A service's page from the click on its row to the page whole.
async function detailsAnswer(frame, label) {
    const clicked = await frame.evaluate(() => performance.now());
    await openDetails(frame, label);
    return (await frame.evaluate(() => window.tessaryDetailsAt)) - clicked;
}

// This page with CROWD services created at run time (and the app's own
// four) beside Cockpit's Services page with the machine's units, measured
// the same way in the same run; then the list of a thousand services.
async function loadTimes() {
    const own = (await loads(1, false)).ours;
    createCrowd(0, crowd);
    const { ours, theirs } = await loads(crowd, true);
    await shot("services-page-beside");
    console.log(`browser: interactive list of ${crowd + 4} services: median ${ms(ours.inFrame)} from the ` +
                `page's start (5 loads: ${ours.all.map(ms).join(", ")}), ${ms(ours.whole)} from navigating ` +
                `the console; Cockpit's Services page with ${theirs.rows} units: ${ms(theirs.inFrame)} ` +
                `(${theirs.all.map(ms).join(", ")}) and ${ms(theirs.whole)}; ratio ` +
                `${(ours.inFrame / theirs.inFrame).toFixed(2)}; with the app's own services alone: ${ms(own.inFrame)}`);

    let frame = await openTessary();
    await shot("hundred-services");
    const detailsTimes = [];
    for (const label of ["com.example.crowd.0042", "com.example.crowd.0043", "com.example.crowd.0044"]) {
        detailsTimes.push(await detailsAnswer(frame, label));
        await backToList(frame);
    }
    createCrowd(crowd, bigCrowd - 4);
    const big = (await loads(bigCrowd - 4, false)).ours;
    frame = await tessaryFrame();
    await shot("thousand-services");
    const typing = await filterAnswer(frame, "crowd.09");
    await shot("thousand-services-filtered");
    const bigDetailsTimes = [];
    for (const label of ["com.example.crowd.0950", "com.example.crowd.0951", "com.example.crowd.0952"]) {
        bigDetailsTimes.push(await detailsAnswer(frame, label));
        if (bigDetailsTimes.length < 3)
            await backToList(frame);
    }
    await shot("details-among-a-thousand");
    console.log(`browser: interactive list of ${bigCrowd} services: median ${ms(big.inFrame)} from the page's ` +
                `start (${big.all.map(ms).join(", ")}), ${ms(big.whole)} from navigating the console; ` +
                `typing "crowd.09" into the filter answered in ${typing.map(ms).join(", ")}; a service's ` +
                `page whole after the click in ${detailsTimes.map(ms).join(", ")} with 104 services, ` +
                `${bigDetailsTimes.map(ms).join(", ")} with 1,000`);
    destroyCrowd(bigCrowd - 4);
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
        watchForProblems();
        await userWithoutAdministrativeAccess();
        await noProblems("limited access");
        await takeAdministrativeAccess();
        let frame = await openTessary();
        await switchesAndState(frame);
        await noProblems("the switches");
        frame = await filters(frame);
        await noProblems("the filters");
        await details(frame);
        await noProblems("a service's page");
        frame = await openTessary();
        await createAndDestroy(frame);
        await noProblems("a service created and destroyed");
        await liveUpdate(frame);
        frame = await actionFailure(frame);
        await noProblems("an action's failure");
        await keyboardOnly(frame);
        await noProblems("the keyboard");
        await demotionConfirmation(frame);
        await setUp(frame);
        await noProblems("the set-up");
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
        await audit(frame, "services list, dark style");
        await page.evaluate(() => window.localStorage.removeItem("shell:style"));
        await inGerman();
        await noProblems("the page in German");
        await loadTimes();
        await noProblems("the load times");
        console.log(`browser: axe-core found no violation on ${audits.length} screens: ${audits.join("; ")}`);
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
