// Bundles the page into OUTDIR (default: dist/) for Cockpit to serve:
// index.html, manifest.json, index.js.gz, index.css.gz and the fonts the
// styles name. Cockpit serves FILE.gz for FILE to a browser that takes gzip,
// as its own pages ship. Everything comes from node_modules, which `npm ci` filled from the
// lock file; nothing is fetched when the page runs.
//
//   node build.mjs [--outdir DIR] [--modules DIR]
//
// --modules names the node_modules to resolve from, for builds that install
// the packages outside this folder (the CMake build does).
import fs from "node:fs";
import { createRequire } from "node:module";
import zlib from "node:zlib";
import path from "node:path";
import { fileURLToPath } from "node:url";

const here = path.dirname(fileURLToPath(import.meta.url));
const args = process.argv.slice(2);
const option = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 && i + 1 < args.length ? path.resolve(args[i + 1]) : fallback;
};
const outdir = option("--outdir", path.join(here, "dist"));
const modules = option("--modules", path.join(here, "node_modules"));
const esbuild = createRequire(path.join(modules, "resolve-from-here.js"))("esbuild");

fs.rmSync(outdir, { recursive: true, force: true });
fs.mkdirSync(outdir, { recursive: true });

await esbuild.build({
    entryPoints: { index: path.join(here, "src/index.jsx") },
    outdir,
    bundle: true,
    minify: true,
    sourcemap: false,
    target: ["es2020"],
    format: "iife",
    nodePaths: [modules],
    jsx: "automatic",
    loader: { ".js": "jsx", ".woff": "file", ".woff2": "file", ".ttf": "file", ".eot": "file",
              ".svg": "file", ".png": "file", ".jpg": "file", ".gif": "file" },
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
