/* global cockpit */
import "@patternfly/react-core/dist/styles/base.css";

import React from "react";
import { createRoot } from "react-dom/client";

import { App } from "./app.jsx";
import { followConsoleStyle } from "./theme.js";

// The page's own rules come after PatternFly's, which the components above
// bring with them, so that they win where both say something.
import "./tessary.css";

followConsoleStyle();

document.addEventListener("DOMContentLoaded", () => {
    document.documentElement.lang = cockpit.language || "en";
    createRoot(document.getElementById("app")).render(<App />);
});
