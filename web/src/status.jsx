// The machine's setup status, and setting it up.
/* global cockpit */
import React from "react";
import {
    Alert, Button, Card, CardBody, CardTitle, Flex, FlexItem, Label, Text,
    TextContent,
} from "./pf.js";

import { ActionDialog, useDialogs } from "./dialogs.jsx";
import { tessaryctl } from "./tessaryctl.js";

const _ = cockpit.gettext;

const STATUSES = {
    configured: {
        text: () => _("configured"),
        meaning: () => _("This machine is set up: the services you switch on are started, and stay on across restarts of the daemon."),
        color: "green",
    },
    unconfigured: {
        text: () => _("unconfigured"),
        meaning: () => _("This machine has not been set up. Until it is, each start of the daemon parks the services that are switched on."),
        color: "orange",
    },
    updatable: {
        text: () => _("updatable"),
        meaning: () => _("Services were parked by an update of the app or by a start before set-up. Setting the machine up again brings them back."),
        color: "blue",
    },
};

function SetUpDialog() {
    return (
        <ActionDialog
            title={_("Set up this machine")} actionLabel={_("Set up")} errorTitle={_("The set-up failed")}
            perform={() => tessaryctl.promote()}
        >
            <TextContent>
                <Text>{_("Setting up runs a promotion of this machine. While it runs, the daemon:")}</Text>
                <Text component="ul">
                    <Text component="li">{_("keeps the machine from sleeping;")}</Text>
                    <Text component="li">{cockpit.format(_("switches on the administration back end ($0);"),
                                                         "com.orvane.tessaryadmind.backend")}
                    </Text>
                    <Text component="li">{cockpit.format(_("records that the machine is set up, in $0;"),
                                                         "/var/db/.TessarySetupDone")}
                    </Text>
                    <Text component="li">{_("switches on again the services that were on before an update of the app, and starts every service that is switched on.")}</Text>
                </Text>
            </TextContent>
        </ActionDialog>
    );
}

export function StatusCard({ status, unreachable, admin }) {
    const dialogs = useDialogs();
    const known = STATUSES[status];

    let body;
    if (unreachable) {
        body = (
            <Alert component="h3" id="tessary-unreachable" variant="warning" isInline title={_("The Tessary daemon is not running")}>
                {unreachable}
            </Alert>
        );
    } else if (status === null) {
        body = <Text>{_("Reading the status…")}</Text>;
    } else {
        body = (
            <Flex direction={{ default: "column" }} spaceItems={{ default: "spaceItemsSm" }}>
                <FlexItem>
                    <Label id="tessary-status" data-status={status} color={known?.color || "grey"}>
                        {known ? known.text() : status}
                    </Label>
                </FlexItem>
                <FlexItem><Text>{known ? known.meaning() : ""}</Text></FlexItem>
                {admin && status !== "configured" &&
                    <FlexItem>
                        <Button
                            id="tessary-setup" variant="primary"
                            onClick={() => dialogs.show(<SetUpDialog />)}
                        >{_("Set up this machine…")}
                        </Button>
                    </FlexItem>}
            </Flex>
        );
    }

    return (
        <Card>
            <CardTitle component="h2">{_("Setup status")}</CardTitle>
            <CardBody>
                <TextContent>{body}</TextContent>
            </CardBody>
        </Card>
    );
}
