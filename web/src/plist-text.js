// Reads property-list XML typed or uploaded into the page, so that a mistake
// is shown beside the field before anything is sent. tessaryctl and the
// daemon check again; this is for the person typing.

export class PlistError extends Error {}

const SCALARS = {
    string: el => el.textContent,
    integer: el => {
        const text = el.textContent.trim();
        if (!/^[+-]?(0x[0-9a-fA-F]+|[0-9]+)$/.test(text))
            throw new PlistError(`"${text}" is not an integer`);
        return Number(text);
    },
    real: el => {
        const value = Number(el.textContent.trim());
        if (Number.isNaN(value))
            throw new PlistError(`"${el.textContent.trim()}" is not a number`);
        return value;
    },
    date: el => el.textContent.trim(),
    data: el => el.textContent.replace(/\s+/g, ""),
};

function elementsOf(node) {
    return Array.from(node.childNodes).filter(n => {
        if (n.nodeType === 3 && n.textContent.trim() !== "")
            throw new PlistError(`text "${n.textContent.trim()}" outside a value`);
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
                throw new PlistError(`<${key.tagName}> where a <key> belongs`);
            if (i + 1 >= children.length)
                throw new PlistError(`the key "${key.textContent}" has no value`);
            result[key.textContent] = valueOf(children[i + 1]);
        }
        return result;
    }
    throw new PlistError(`<${tag}> is not a property-list value`);
}

// The value of an XML property list, or a PlistError saying what is wrong.
export function parsePlist(text) {
    if (!text.trim())
        throw new PlistError("Nothing was entered.");
    const doc = new DOMParser().parseFromString(text, "application/xml");
    const broken = doc.getElementsByTagName("parsererror");
    if (broken.length > 0)
        throw new PlistError("This is not well-formed XML: " +
                             broken[0].textContent.split("\n").filter(Boolean)
                                     .slice(0, 2).join(" "));
    const root = doc.documentElement;
    if (root.tagName !== "plist")
        throw new PlistError("The text must be a property list: <plist> … </plist>.");
    const values = elementsOf(root);
    if (values.length !== 1)
        throw new PlistError("A property list holds exactly one value.");
    return valueOf(values[0]);
}

const isDictionary = v => v !== null && typeof v === "object" && !Array.isArray(v);

// Each kind of text the page takes, and what its value must be.
export const checks = {
    service: v => {
        if (!isDictionary(v))
            throw new PlistError("A service definition is a dictionary.");
        if (typeof v.Label !== "string" || v.Label === "")
            throw new PlistError("A service definition needs a \"Label\" string.");
        if (!("Program" in v) && !("ProgramArguments" in v))
            throw new PlistError("A service definition needs \"Program\" or \"ProgramArguments\".");
    },
    sockets: v => {
        if (!isDictionary(v))
            throw new PlistError("Sockets are a dictionary of named sockets.");
        for (const [name, socket] of Object.entries(v)) {
            const list = Array.isArray(socket) ? socket : [socket];
            if (!list.every(isDictionary))
                throw new PlistError(`The socket "${name}" must be a dictionary or an array of them.`);
        }
    },
    calendar: v => {
        const list = Array.isArray(v) ? v : [v];
        const fields = ["Minute", "Hour", "Day", "Weekday", "Month"];
        for (const entry of list) {
            if (!isDictionary(entry))
                throw new PlistError("Calendar start times are a dictionary or an array of them.");
            for (const [key, value] of Object.entries(entry)) {
                if (!fields.includes(key))
                    throw new PlistError(`"${key}" is not one of ${fields.join(", ")}.`);
                if (!Number.isInteger(value))
                    throw new PlistError(`"${key}" must be an integer.`);
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
