// What the page asks of systemd itself, over D-Bus through Cockpit's bridge:
// the units of one service with their states, and the signals that tell the
// list to read again.
/* global cockpit */

const MANAGER_PATH = "/org/freedesktop/systemd1";
const MANAGER = "org.freedesktop.systemd1.Manager";
const UNIT = "org.freedesktop.systemd1.Unit";
const PROPERTIES = "org.freedesktop.DBus.Properties";

let client = null;
function systemd() {
    if (client === null)
        client = cockpit.dbus("org.freedesktop.systemd1", { superuser: "try" });
    return client;
}

// The unit names a job of LABEL may have: its service, socket, timer and
// path unit, and the instances of its template service (a socket that
// accepts each connection starts one per connection).
export const unitPatterns = label =>
    [".service", ".socket", ".timer", ".path"].map(suffix => label + suffix)
            .concat([`${label}@*.service`]);

// The label whose job a unit name belongs to.
export const labelOfUnit = name => name.replace(/(@[^.]*)?\.(service|socket|timer|path)$/, "");

// D-Bus object paths of units escape each byte outside [A-Za-z0-9] as _XX.
const unitOfPath = path =>
    path.slice(path.lastIndexOf("/") + 1)
            .replace(/_([0-9a-f]{2})/g, (_, hex) => String.fromCharCode(parseInt(hex, 16)));

// The loaded units of LABEL: name, active and sub state, and since when
// (a Date, or null when systemd has no time for it), by name.
export async function unitsOf(label) {
    const [units] = await systemd().call(MANAGER_PATH, MANAGER, "ListUnitsByPatterns",
                                         [[], unitPatterns(label)]);
    const rows = await Promise.all(units.map(async ([name, , load, active, sub, , path]) => {
        const [since] = await systemd().call(path, PROPERTIES, "Get", [UNIT, "StateChangeTimestamp"]);
        return { name, load, active, sub, since: since.v ? new Date(since.v / 1000) : null };
    }));
    return rows.sort((a, b) => (a.name < b.name ? -1 : 1));
}

// Calls `changed` (debounced by DELAY ms) whenever systemd says a unit of a
// label that `concerns` answers true for was added, removed, changed state
// or finished a job. Returns the function that stops following.
export function followUnits(concerns, changed, delay = 300) {
    let timer = null;
    const soon = name => {
        if (!concerns(labelOfUnit(name)))
            return;
        window.clearTimeout(timer);
        timer = window.setTimeout(changed, delay);
    };
    const bus = systemd();
    const subscriptions = [
        bus.subscribe({ interface: MANAGER, member: "JobRemoved" }, (p, i, s, args) => soon(args[2])),
        bus.subscribe({ interface: MANAGER, member: "UnitNew" }, (p, i, s, args) => soon(args[0])),
        bus.subscribe({ interface: MANAGER, member: "UnitRemoved" }, (p, i, s, args) => soon(args[0])),
        bus.subscribe({ interface: PROPERTIES, member: "PropertiesChanged", path_namespace: `${MANAGER_PATH}/unit` },
                      path => soon(unitOfPath(path))),
    ];
    // systemd sends its signals to the clients that asked for them.
    bus.call(MANAGER_PATH, MANAGER, "Subscribe", []).catch(() => {});
    return () => {
        window.clearTimeout(timer);
        subscriptions.forEach(s => s.remove());
    };
}

// The journal's last lines of LABEL's units, oldest first.
export function journalOf(label, lines = 20) {
    const units = unitPatterns(label).flatMap(u => ["--unit", u]);
    return cockpit.spawn(["journalctl", "--no-pager", "--quiet", "--output=short-iso",
        `--lines=${lines}`, ...units], { superuser: "try", err: "message" });
}

// Cockpit's Logs page, filtered to LABEL's service: the page filters by
// service units only, with the lines systemd writes about the unit.
export const logsPageOf = label =>
    "/system/logs#/?prio=debug&service=" + encodeURIComponent(`${label}.service`);
