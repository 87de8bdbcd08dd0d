// The services list as data: rows from `tessaryctl --json list`, the filters
// and the sort a person sets above the list, and their form in the page's
// URL, so that a link or a reload keeps them.

// What systemd says of a service, as tessaryctl reports it, in the order the
// list sorts them: what needs a look first.
export const STATES = [
    "failed", "invalid", "running", "waiting for a connection", "waiting for its timer",
    "waiting for a path", "stopped", "unknown",
];

// The state filter's choices, each with the states it lets through.
export const STATE_FILTERS = {
    all: null,
    running: ["running"],
    waiting: ["waiting for a connection", "waiting for its timer", "waiting for a path"],
    failed: ["failed", "invalid"],
    stopped: ["stopped"],
};

export const SWITCH_FILTERS = { all: null, on: true, off: false };

export const SORTS = ["label", "state"];

export const DEFAULT_VIEW = { text: "", state: "all", switched: "all", sort: "label", descending: false };

// The rows of the list, by label.
export function servicesOf(list) {
    const states = list.states || {};
    const dynamic = new Set(list.dynamicServices || []);
    const row = on => label => ({
        label,
        on,
        state: STATES.includes(states[label]) ? states[label] : "unknown",
        dynamic: dynamic.has(label),
    });
    return [...(list.enabledServices || []).map(row(true)),
        ...(list.disabledServices || []).map(row(false))]
            .sort((a, b) => compareLabels(a.label, b.label));
}

// Labels compare by their characters, as the daemon compares them, so that
// the order is the same in every language.
const compareLabels = (a, b) => (a < b ? -1 : a > b ? 1 : 0);

export function visibleServices(services, view) {
    const text = view.text.trim().toLowerCase();
    const states = STATE_FILTERS[view.state];
    const switched = SWITCH_FILTERS[view.switched];
    const shown = services.filter(s =>
        (text === "" || s.label.toLowerCase().includes(text)) &&
        (states === null || states.includes(s.state)) &&
        (switched === null || s.on === switched));
    const byState = (a, b) => STATES.indexOf(a.state) - STATES.indexOf(b.state) ||
                              compareLabels(a.label, b.label);
    const order = view.sort === "state" ? byState : (a, b) => compareLabels(a.label, b.label);
    shown.sort(view.descending ? (a, b) => order(b, a) : order);
    return shown;
}

// The view a URL's options name; what they do not name, or name wrongly, is
// the default.
export function viewOf(options) {
    const pick = (value, choices, fallback) => (choices.includes(value) ? value : fallback);
    return {
        text: typeof options.q === "string" ? options.q : "",
        state: pick(options.state, Object.keys(STATE_FILTERS), "all"),
        switched: pick(options.switched, Object.keys(SWITCH_FILTERS), "all"),
        sort: pick(options.sort, SORTS, "label"),
        descending: options.order === "desc",
    };
}

// The URL options of a view: only what differs from the default.
export function optionsOf(view) {
    const options = {};
    if (view.text !== "")
        options.q = view.text;
    if (view.state !== "all")
        options.state = view.state;
    if (view.switched !== "all")
        options.switched = view.switched;
    if (view.sort !== "label")
        options.sort = view.sort;
    if (view.descending)
        options.order = "desc";
    return options;
}
