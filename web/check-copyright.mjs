// Checks debian/copyright against the lock file: every npm package that the
// page's bundle may hold (every package of the lock file but the development
// ones) has the pattern "node_modules/NAME/*" in a paragraph whose licence is
// the one the lock file gives it, and no node_modules/ pattern names a package
// the lock file does not install for the page. Prints what differs and fails;
// writes STAMP when nothing does.
//
//   node check-copyright.mjs LOCK_FILE COPYRIGHT_FILE [STAMP]
import fs from "node:fs";

const [lockFile, copyrightFile, stamp] = process.argv.slice(2);
const lock = JSON.parse(fs.readFileSync(lockFile, "utf8"));

// The lock file's SPDX expressions as DEP-5 writes them.
const dep5 = (spdx) => spdx.replace(/[()]/g, "").replace(/ OR /g, " or ").replace(/ AND /g, " and ");

const bundled = new Map();  // lock file key -> licence
for (const [key, entry] of Object.entries(lock.packages ?? {})) {
    if (key !== "" && !entry.dev && !entry.link) {
        bundled.set(key, typeof entry.license === "string" ? dep5(entry.license) : "");
    }
}

const listed = new Map();  // Files pattern -> licence
for (const paragraph of fs.readFileSync(copyrightFile, "utf8").split(/\n[ \t]*\n/)) {
    const field = (name) => paragraph.match(new RegExp(`^${name}:(.*(?:\\n[ \\t].*)*)`, "m"))?.[1];
    const files = field("Files");
    if (files === undefined) {
        continue;
    }
    const licence = (field("License") ?? "").split("\n")[0].trim();
    for (const pattern of files.trim().split(/\s+/)) {
        if (pattern.startsWith("node_modules/")) {
            listed.set(pattern, licence);
        }
    }
}

const problems = [];
for (const [key, licence] of bundled) {
    const pattern = `${key}/*`;
    if (!licence) {
        problems.push(`${key} has no licence in ${lockFile}`);
    } else if (!listed.has(pattern)) {
        problems.push(`no paragraph has "Files: ${pattern}" (License: ${licence})`);
    } else if (listed.get(pattern) !== licence) {
        problems.push(`${pattern} has License: ${listed.get(pattern)}; the lock file says ${licence}`);
    }
}
for (const pattern of listed.keys()) {
    if (![...bundled.keys()].some((key) => pattern.startsWith(`${key}/`))) {
        problems.push(`${pattern} is no package of the page in ${lockFile}`);
    }
}

if (problems.length > 0) {
    for (const problem of problems) {
        console.error(`${copyrightFile}: ${problem}`);
    }
    process.exit(1);
}
if (stamp) {
    fs.writeFileSync(stamp, "");
}
