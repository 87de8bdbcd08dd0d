// Bundles the page into OUTDIR (default: dist/) for Cockpit to serve:
// index.html, manifest.json, index.js.gz, index.css.gz, the fonts the styles
// name, and po.LANG.js.gz for each translation in po/. Cockpit serves FILE.gz
// for FILE to a browser that takes gzip, as its own pages ship, and po.js as
// the po.LANG.js of the console's language. Everything comes from
// node_modules, which `npm ci` filled from the lock file; nothing is fetched
// when the page runs.
//
// The strings to translate are extracted from the sources into POT (default:
// OUTDIR/../tessary.pot) with xgettext; the build fails when a translation
// misses one of them or keeps one the page no longer has, or when the
// manifest's menu label is not among them.
//
//   node build.mjs [--outdir DIR] [--modules DIR] [--pot FILE]
//
// --modules names the node_modules to resolve from, for builds that install
// the packages outside this folder (the CMake build does). With
// TESSARY_WEB_DEBUG set in the environment the bundle is not minified.
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import { createRequire } from "node:module";
import zlib from "node:zlib";
import path from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";

const here = path.dirname(fileURLToPath(import.meta.url));
const args = process.argv.slice(2);
const option = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 && i + 1 < args.length ? path.resolve(args[i + 1]) : fallback;
};
const outdir = option("--outdir", path.join(here, "dist"));
const modules = option("--modules", path.join(here, "node_modules"));
const pot = option("--pot", path.join(outdir, "..", "tessary.pot"));
const resolve = createRequire(path.join(modules, "resolve-from-here.js"));
const esbuild = resolve("esbuild");
const gettextParser = (await import(pathToFileURL(resolve.resolve("gettext-parser")))).default;

fs.rmSync(outdir, { recursive: true, force: true });
fs.mkdirSync(outdir, { recursive: true });

await esbuild.build({
    entryPoints: { index: path.join(here, "src/index.jsx") },
    outdir,
    bundle: true,
    minify: !process.env.TESSARY_WEB_DEBUG,
    sourcemap: false,
    target: ["es2020"],
    format: "iife",
    nodePaths: [modules],
    jsx: "automatic",
    loader: {
        ".js": "jsx",
        ".woff": "file",
        ".woff2": "file",
        ".ttf": "file",
        ".eot": "file",
        ".svg": "file",
        ".png": "file",
        ".jpg": "file",
        ".gif": "file"
    },
    assetNames: "assets/[name]-[hash]",
    define: { "process.env.NODE_ENV": '"production"' },
    legalComments: "none",
    logLevel: "warning",
});

for (const file of ["index.html", "manifest.json"]) {
    fs.copyFileSync(path.join(here, "src", file), path.join(outdir, file));
}

for (const file of ["index.js", "index.css"]) {
    const plain = path.join(outdir, file);
    fs.writeFileSync(plain + ".gz", zlib.gzipSync(fs.readFileSync(plain), { level: 9 }));
    fs.rmSync(plain);
}

// --- translations ---------------------------------------------------------

const sources = fs.readdirSync(path.join(here, "src")).filter(f => /\.jsx?$/.test(f))
        .sort()
        .map(f => path.join("src", f));
// The sources are JSX, which xgettext's JavaScript parser does not read; its
// C parser finds the calls and their strings (cockpit.ngettext as ngettext).
execFileSync("xgettext", ["--language=C", "--from-code=UTF-8", "--no-wrap", "--sort-by-file",
    "--package-name=tessary", "--add-comments=Translators:",
    "--keyword=", "--keyword=_", "--keyword=N_", "--keyword=gettext",
    "--keyword=ngettext:1,2", `--output=${pot}`, ...sources], { cwd: here, stdio: "pipe" });

const entries = catalog => Object.entries(catalog.translations)
        .flatMap(([context, messages]) => Object.values(messages).map(m => ({ ...m, context })))
        .filter(m => m.msgid !== "");
const keyOf = m => (m.context ? `${m.context}\u0004${m.msgid}` : m.msgid);
const wanted = entries(gettextParser.po.parse(fs.readFileSync(pot)));
const wantedKeys = new Set(wanted.map(keyOf));

const manifest = JSON.parse(fs.readFileSync(path.join(here, "src", "manifest.json"), "utf8"));
for (const item of Object.values(manifest.menu || {})) {
    if (!wantedKeys.has(item.label))
        throw new Error(`the menu label "${item.label}" is not among the page's strings`);
}

// "nplurals=2; plural=(n != 1);" as a function of n; nothing but arithmetic
// on n is let through into the page.
function pluralFunction(header) {
    const match = /^\s*nplurals\s*=\s*\d+\s*;\s*plural\s*=\s*([^;]*);?\s*$/.exec(header || "");
    if (!match || !/^[n0-9\s()!=<>&|?:%+-]*$/.test(match[1]))
        throw new Error(`unusable Plural-Forms "${header}"`);
    return `n => ${match[1]}`;
}

const poDir = path.join(here, "po");
for (const file of fs.readdirSync(poDir).filter(f => f.endsWith(".po"))
        .sort()) {
    const language = file.slice(0, -3);
    const catalog = gettextParser.po.parse(fs.readFileSync(path.join(poDir, file)));
    const problems = [];
    const translated = new Map();
    for (const m of entries(catalog)) {
        if (!wantedKeys.has(keyOf(m)))
            problems.push(`"${m.msgid}" is no longer in the page`);
        else if ((m.comments?.flag || "").includes("fuzzy") || m.msgstr.some(s => s === ""))
            problems.push(`"${m.msgid}" is not translated`);
        else
            translated.set(keyOf(m), m);
    }
    for (const m of wanted) {
        if (!translated.has(keyOf(m)) && !problems.some(p => p.startsWith(`"${m.msgid}"`)))
            problems.push(`"${m.msgid}" is missing`);
    }
    if (problems.length > 0)
        throw new Error(`po/${file}:\n  ${problems.join("\n  ")}`);

    const messages = [...translated.entries()].sort(([a], [b]) => (a < b ? -1 : a > b ? 1 : 0))
            .map(([key, m]) => `${JSON.stringify(key)}:${JSON.stringify([m.msgid_plural || null, ...m.msgstr])}`);
    const header = `"":{"plural-forms":${pluralFunction(catalog.headers["Plural-Forms"])},` +
                   `"language":${JSON.stringify(language)},"language-direction":"ltr"}`;
    const js = `cockpit.locale({${[header, ...messages].join(",")}});\n`;
    fs.writeFileSync(path.join(outdir, `po.${language}.js.gz`), zlib.gzipSync(js, { level: 9 }));
}
