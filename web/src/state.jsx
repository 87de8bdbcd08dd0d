// A service's state as a coloured label, in the reader's language.
/* global cockpit */
import React from "react";
import { Label } from "./pf.js";

const _ = cockpit.gettext;

const STATE_TEXT = {
    running: () => _("running"),
    "waiting for a connection": () => _("waiting for a connection"),
    "waiting for its timer": () => _("waiting for its timer"),
    "waiting for a path": () => _("waiting for a path"),
    failed: () => _("failed"),
    stopped: () => _("stopped"),
    invalid: () => _("invalid label"),
    unknown: () => _("unknown"),
};

const STATE_COLORS = {
    running: "green",
    "waiting for a connection": "blue",
    "waiting for its timer": "blue",
    "waiting for a path": "blue",
    failed: "red",
    invalid: "red",
    stopped: "grey",
};

export const StateLabel = ({ state, id }) => (
    <Label id={id} color={STATE_COLORS[state] || "grey"} className="tessary-state">
        {(STATE_TEXT[state] || STATE_TEXT.unknown)()}
    </Label>
);
