import "@patternfly/react-core/dist/styles/base.css";
import "./tessary.css";

import React from "react";
import { createRoot } from "react-dom/client";

import { App } from "./app.jsx";
import { followConsoleStyle } from "./theme.js";

followConsoleStyle();

document.addEventListener("DOMContentLoaded", () => {
    createRoot(document.getElementById("app")).render(<App />);
});
