// Follows the console's style (Session → Style in Cockpit's top bar: light,
// dark, or the system's), as Cockpit's own pages do: the shell keeps the
// choice under "shell:style" in local storage, which this page's origin
// shares, and PatternFly's dark theme is the "pf-theme-dark" class.
const darkSystem = window.matchMedia ? window.matchMedia("(prefers-color-scheme: dark)") : null;

function apply(style) {
    const chosen = style || window.localStorage.getItem("shell:style") || "auto";
    const dark = chosen === "dark" || (chosen === "auto" && darkSystem !== null && darkSystem.matches);
    document.documentElement.classList.toggle("pf-theme-dark", dark);
}

export function followConsoleStyle() {
    apply();
    window.addEventListener("storage", event => {
        if (event.key === "shell:style")
            apply(event.newValue);
    });
    window.addEventListener("cockpit-style", event => apply(event.detail.style));
    if (darkSystem !== null)
        darkSystem.addEventListener("change", () => apply());
}
