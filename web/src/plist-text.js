// Reads property-list XML typed or uploaded into the page, so that a mistake
// is shown beside the field before anything is sent. tessaryctl and the
// daemon check again; this is for the person typing.
// The XML is read with xmldom rather than the browser's DOMParser, whose
// error document carries an inline style that Cockpit's content security
// policy refuses (and reports as a console error) on every mistake typed.
/* global cockpit */
import { DOMParser } from "@xmldom/xmldom";

const _ = cockpit.gettext;

export class PlistError extends Error {}

const SCALARS = {
    string: el => el.textContent,
    integer: el => {
        const text = el.textContent.trim();
        if (!/^[+-]?(0x[0-9a-fA-F]+|[0-9]+)$/.test(text))
            throw new PlistError(cockpit.format(_("\"$0\" is not an integer."), text));
        return Number(text);
    },
    real: el => {
        const value = Number(el.textContent.trim());
        if (Number.isNaN(value))
            throw new PlistError(cockpit.format(_("\"$0\" is not a number."), el.textContent.trim()));
        return value;
    },
    date: el => el.textContent.trim(),
    data: el => el.textContent.replace(/\s+/g, ""),
};

function elementsOf(node) {
    return Array.from(node.childNodes).filter(n => {
        if (n.nodeType === 3 && n.textContent.trim() !== "")
            throw new PlistError(cockpit.format(_("The text \"$0\" stands outside a value."), n.textContent.trim()));
        return n.nodeType === 1;
    });
}

function valueOf(el) {
    const tag = el.tagName;
    if (tag === "true" || tag === "false")
        return tag === "true";
    if (SCALARS[tag])
        return SCALARS[tag](el);
    if (tag === "array")
        return elementsOf(el).map(valueOf);
    if (tag === "dict") {
        const result = {};
        const children = elementsOf(el);
        for (let i = 0; i < children.length; i += 2) {
            const key = children[i];
            if (key.tagName !== "key")
                throw new PlistError(cockpit.format(_("<$0> stands where a <key> belongs."), key.tagName));
            if (i + 1 >= children.length)
                throw new PlistError(cockpit.format(_("The key \"$0\" has no value."), key.textContent));
            result[key.textContent] = valueOf(children[i + 1]);
        }
        return result;
    }
    throw new PlistError(cockpit.format(_("<$0> is not a property-list value."), tag));
}

// The value of an XML property list, or a PlistError saying what is wrong.
export function parsePlist(text) {
    if (!text.trim())
        throw new PlistError(_("Nothing was entered."));
    let doc;
    try {
        const parser = new DOMParser({
            onError: (level, message) => {
                if (level !== "warning")
                    throw new Error(message);
            },
        });
        doc = parser.parseFromString(text, "application/xml");
    } catch (e) {
        throw new PlistError(cockpit.format(_("This is not well-formed XML: $0"),
                                            e.message.split("\n").filter(Boolean)
                                                    .slice(0, 2)
                                                    .join(" ")));
    }
    const root = doc.documentElement;
    if (root.tagName !== "plist")
        throw new PlistError(_("The text must be a property list: <plist> … </plist>."));
    const values = elementsOf(root);
    if (values.length !== 1)
        throw new PlistError(_("A property list holds exactly one value."));
    return valueOf(values[0]);
}

const isDictionary = v => v !== null && typeof v === "object" && !Array.isArray(v);

// Each kind of text the page takes, and what its value must be.
export const checks = {
    service: v => {
        if (!isDictionary(v))
            throw new PlistError(_("A service definition is a dictionary."));
        if (typeof v.Label !== "string" || v.Label === "")
            throw new PlistError(_("A service definition needs a \"Label\" string."));
        if (!("Program" in v) && !("ProgramArguments" in v))
            throw new PlistError(_("A service definition needs \"Program\" or \"ProgramArguments\"."));
    },
    sockets: v => {
        if (!isDictionary(v))
            throw new PlistError(_("Sockets are a dictionary of named sockets."));
        for (const [name, socket] of Object.entries(v)) {
            const list = Array.isArray(socket) ? socket : [socket];
            if (!list.every(isDictionary))
                throw new PlistError(cockpit.format(_("The socket \"$0\" must be a dictionary or an array of them."), name));
        }
    },
    calendar: v => {
        const list = Array.isArray(v) ? v : [v];
        const fields = ["Minute", "Hour", "Day", "Weekday", "Month"];
        for (const entry of list) {
            if (!isDictionary(entry))
                throw new PlistError(_("Calendar start times are a dictionary or an array of them."));
            for (const [key, value] of Object.entries(entry)) {
                if (!fields.includes(key))
                    throw new PlistError(cockpit.format(_("\"$0\" is not one of $1."), key, fields.join(", ")));
                if (!Number.isInteger(value))
                    throw new PlistError(cockpit.format(_("\"$0\" must be an integer."), key));
            }
        }
    },
};

// null when `text` is a property list of the kind, else the reason it is not.
export function problemWith(kind, text) {
    try {
        checks[kind](parsePlist(text));
        return null;
    } catch (e) {
        if (e instanceof PlistError)
            return e.message;
        throw e;
    }
}
