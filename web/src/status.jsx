// The machine's setup status, and setting it up.
import React, { useState } from "react";
import {
    Alert, Button, Card, CardBody, CardTitle, Flex, FlexItem, Label, Modal, ModalVariant, Text,
    TextContent,
} from "./pf.js";

import { failureText, tessaryctl } from "./tessaryctl.js";

const MEANINGS = {
    configured: "This machine is set up: the services you switch on are started, and stay on " +
                "across restarts of the daemon.",
    unconfigured: "This machine has not been set up. Until it is, each start of the daemon " +
                  "parks the services that are switched on.",
    updatable: "Services were parked by an update of the app or by a start before set-up. " +
               "Setting the machine up again brings them back.",
};

const COLORS = { configured: "green", unconfigured: "orange", updatable: "blue" };

function SetUpDialog({ onClose, onDone }) {
    const [running, setRunning] = useState(false);
    const [error, setError] = useState(null);

    const setUp = () => {
        setRunning(true);
        setError(null);
        tessaryctl.promote()
                .then(() => onDone())
                .catch(e => {
                    setError(failureText(e));
                    setRunning(false);
                });
    };

    return (
        <Modal variant={ModalVariant.small} isOpen onClose={onClose} title="Set up this machine"
               actions={[
                   <Button key="setup" variant="primary" onClick={setUp} isLoading={running}
                           isDisabled={running}>Set up</Button>,
                   <Button key="cancel" variant="link" onClick={onClose}>Cancel</Button>,
               ]}>
            <TextContent>
                <Text>Setting up runs a promotion of this machine. While it runs, the daemon:</Text>
                <Text component="ul">
                    <Text component="li">keeps the machine from sleeping;</Text>
                    <Text component="li">switches on the administration back end
                        (com.orvane.tessaryadmind.backend);</Text>
                    <Text component="li">records that the machine is set up, in
                        /var/db/.TessarySetupDone;</Text>
                    <Text component="li">switches on again the services that were on before an
                        update of the app, and starts every service that is switched on.</Text>
                </Text>
            </TextContent>
            {error && <Alert variant="danger" isInline title="The set-up failed">{error}</Alert>}
        </Modal>
    );
}

export function StatusCard({ status, unreachable, admin, onChanged }) {
    const [settingUp, setSettingUp] = useState(false);

    let body;
    if (unreachable) {
        body = <Alert variant="warning" isInline title="The Tessary daemon is not running">
            {unreachable}
        </Alert>;
    } else if (status === null) {
        body = <Text>Reading the status…</Text>;
    } else {
        body = (
            <Flex direction={{ default: "column" }} spaceItems={{ default: "spaceItemsSm" }}>
                <FlexItem>
                    <Label id="tessary-status" color={COLORS[status] || "grey"}>{status}</Label>
                </FlexItem>
                <FlexItem><Text>{MEANINGS[status] || ""}</Text></FlexItem>
                {admin && status !== "configured" &&
                    <FlexItem>
                        <Button id="tessary-setup" variant="primary"
                                onClick={() => setSettingUp(true)}>Set up this machine</Button>
                    </FlexItem>}
            </Flex>
        );
    }

    return (
        <Card>
            <CardTitle component="h2">Setup status</CardTitle>
            <CardBody>
                <TextContent>{body}</TextContent>
                {settingUp &&
                    <SetUpDialog onClose={() => setSettingUp(false)}
                                 onDone={() => { setSettingUp(false); onChanged() }} />}
            </CardBody>
        </Card>
    );
}
