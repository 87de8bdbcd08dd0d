// The page's logic that runs without a browser: the property-list checks a
// person meets while typing, and the list's filters, sort and URL form.
import assert from "node:assert/strict";
import { test } from "node:test";

// What the page takes from Cockpit, untranslated.
globalThis.cockpit = {
    gettext: text => text,
    format: (text, ...args) => text.replace(/\$(\d)/g, (_, i) => args[i]),
};

const { problemWith } = await import("../src/plist-text.js");
const { optionsOf, servicesOf, viewOf, visibleServices, DEFAULT_VIEW } = await import("../src/services.js");

const plist = body => `<?xml version="1.0"?><plist version="1.0">${body}</plist>`;

test("property-list checks", () => {
    const rows = [
        ["service", plist("<dict><key>Label</key><string>a</string><key>Program</key><string>/bin/true</string></dict>"), null],
        ["service", plist("<dict><key>Program</key><string>/bin/true</string></dict>"), 'needs a "Label"'],
        ["service", plist("<dict><key>Label</key><string>a</string></dict>"), 'needs "Program"'],
        ["service", plist("<array/>"), "is a dictionary"],
        ["service", "<plist><dict>", "not well-formed"],
        ["service", "   ", "Nothing was entered"],
        ["service", "<dict/>", "must be a property list"],
        ["service", plist("<dict/><dict/>"), "exactly one value"],
        ["service", plist("<dict><key>Label</key></dict>"), 'key "Label" has no value'],
        ["service", plist("<dict><string>x</string><string>y</string></dict>"), "<string> stands where a <key>"],
        ["sockets", plist("<dict><key>L</key><dict/><key>M</key><array><dict/></array></dict>"), null],
        ["sockets", plist("<array/>"), "dictionary of named sockets"],
        ["sockets", plist("<dict><key>L</key><string>8080</string></dict>"), 'socket "L" must be'],
        ["calendar", plist("<dict><key>Hour</key><integer>0x3</integer></dict>"), null],
        ["calendar", plist("<array><dict><key>Minutes</key><integer>5</integer></dict></array>"), '"Minutes" is not one of'],
        ["calendar", plist("<dict><key>Hour</key><string>3</string></dict>"), '"Hour" must be an integer'],
        ["calendar", plist("<dict><key>Hour</key><integer>1.5</integer></dict>"), '"1.5" is not an integer'],
        ["calendar", plist("<dict><key>Hour</key><bogus/></dict>"), "<bogus> is not a property-list value"],
    ];
    for (const [kind, text, expected] of rows) {
        const problem = problemWith(kind, text);
        if (expected === null)
            assert.equal(problem, null, `${kind}: ${text}`);
        else
            assert.ok(problem?.includes(expected), `${kind}: ${text}: ${problem}`);
    }
});

const services = servicesOf({
    enabledServices: ["c.gamma", "a.alpha"],
    disabledServices: ["d.delta", "b.beta", "E.eps", "f.phi"],
    states: {
        "a.alpha": "running",
        "b.beta": "stopped",
        "c.gamma": "waiting for a connection",
        "d.delta": "failed",
        "E.eps": "invalid",
        "f.phi": "something new",
    },
    dynamicServices: ["b.beta"],
});

test("list rows from tessaryctl's list", () => {
    assert.deepEqual(services.map(s => [s.label, s.on, s.state, s.dynamic]), [
        ["E.eps", false, "invalid", false],
        ["a.alpha", true, "running", false],
        ["b.beta", false, "stopped", true],
        ["c.gamma", true, "waiting for a connection", false],
        ["d.delta", false, "failed", false],
        ["f.phi", false, "unknown", false],
    ]);
});

test("filters and sort", () => {
    const rows = [
        [{ text: " ALP" }, ["a.alpha"]],
        [{ text: "a", state: "waiting" }, ["c.gamma"]],
        [{ state: "failed" }, ["E.eps", "d.delta"]],
        [{ switched: "off", state: "stopped" }, ["b.beta"]],
        [{ switched: "on", descending: true }, ["c.gamma", "a.alpha"]],
        [{ sort: "state" }, ["d.delta", "E.eps", "a.alpha", "c.gamma", "b.beta", "f.phi"]],
        [{ sort: "state", descending: true, switched: "off" }, ["f.phi", "b.beta", "E.eps", "d.delta"]],
        [{ text: "zzz" }, []],
    ];
    for (const [change, expected] of rows)
        assert.deepEqual(visibleServices(services, { ...DEFAULT_VIEW, ...change }).map(s => s.label), expected,
                         JSON.stringify(change));
});

test("the view in the URL", () => {
    const rows = [
        [{}, {}],
        [{ q: "heart", state: "running", switched: "on", sort: "state", order: "desc" },
            { q: "heart", state: "running", switched: "on", sort: "state", order: "desc" }],
        [{ state: "bogus", switched: "maybe", sort: "size", order: "up", q: ["a"] }, {}],
    ];
    for (const [options, expected] of rows)
        assert.deepEqual(optionsOf(viewOf(options)), expected, JSON.stringify(options));
});
