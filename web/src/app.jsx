// The Tessary page: the machine's setup status, its background services with
// their switches and what systemd says of them, and everything tessaryctl
// does with them.
/* global cockpit */
import React, { useCallback, useEffect, useRef, useState } from "react";
import {
    Alert, AlertActionCloseButton, Button, Card, CardBody, CardTitle, EmptyState, EmptyStateBody, Flex, Label, Page,
    PageSection, Spinner, Stack, StackItem, Switch, Text, TextContent, Title, Toolbar,
    ToolbarContent, ToolbarItem,
} from "./pf.js";
import {
    ActionsColumn, TableComposable, Tbody, Td, Th, Thead, Tr,
} from "./pf.js";

import {
    ArgumentsDialog, CreateDialog, DemoteDialog, DestroyDialog, JournalDialog, PlistDialog,
    ResetDialog,
} from "./dialogs.jsx";
import { StatusCard } from "./status.jsx";
import { EXIT_UNREACHABLE, failureText, tessaryctl } from "./tessaryctl.js";

// How often the list is read again while the page is shown.
const REFRESH_MS = 2000;

const STATE_COLORS = {
    running: "green",
    "waiting for a connection": "blue",
    "waiting for its timer": "blue",
    failed: "red",
    stopped: "grey",
};

// The services from `tessaryctl --json list`, in the daemon's order.
function servicesOf(list) {
    const states = list.states || {};
    const dynamic = new Set(list.dynamicServices || []);
    const row = on => label => ({ label, on, state: states[label] || "unknown", dynamic: dynamic.has(label) });
    return [...(list.enabledServices || []).map(row(true)),
        ...(list.disabledServices || []).map(row(false))]
            .sort((a, b) => a.label.localeCompare(b.label));
}

function useAdministrativeAccess() {
    const [allowed, setAllowed] = useState(null);
    useEffect(() => {
        const permission = cockpit.permission({ admin: true });
        const update = () => setAllowed(permission.allowed);
        permission.addEventListener("changed", update);
        update();
        return () => permission.removeEventListener("changed", update);
    }, []);
    return allowed;
}

function ServiceRow({ service, busy, onSwitch, onDialog }) {
    const { label, on, state, dynamic } = service;
    const items = [
        { title: "Program arguments…", onClick: () => onDialog("arguments", label) },
        { title: "Sockets…", onClick: () => onDialog("sockets", label) },
        { title: "Calendar start times…", onClick: () => onDialog("calendar", label) },
        { title: "Journal…", onClick: () => onDialog("journal", label) },
        { isSeparator: true },
        { title: "Reset…", onClick: () => onDialog("reset", label) },
    ];
    if (dynamic)
        items.push({ title: "Destroy…", onClick: () => onDialog("destroy", label) });

    return (
        <Tr data-service={label} data-state={state} data-on={on ? "true" : "false"}>
            <Td dataLabel="Service">{label}{dynamic && <> <Label isCompact>created</Label></>}</Td>
            <Td dataLabel="State">
                <Label color={STATE_COLORS[state] || "grey"} className="tessary-state">{state}</Label>
            </Td>
            <Td dataLabel="Switched on">
                <Switch id={`switch-${label}`} aria-label={`Switch ${label} on or off`}
                        isChecked={on} isDisabled={busy} onChange={checked => onSwitch(label, checked)} />
            </Td>
            <Td isActionCell>
                <ActionsColumn items={items} popperProps={{ position: "right" }} />
            </Td>
        </Tr>
    );
}

function ServicesCard({ services, error, onChanged, setError }) {
    const [busy, setBusy] = useState(new Set());
    const [dialog, setDialog] = useState(null);

    const onSwitch = (label, on) => {
        setBusy(b => new Set(b).add(label));
        (on ? tessaryctl.enable(label) : tessaryctl.disable(label))
                .catch(e => setError(`${label} could not be switched ${on ? "on" : "off"}: ${failureText(e)}`))
                .finally(() => {
                    setBusy(b => { const n = new Set(b); n.delete(label); return n });
                    onChanged();
                });
    };
    const close = () => setDialog(null);
    const done = () => { setDialog(null); onChanged() };

    const dialogs = {
        arguments: l => <ArgumentsDialog label={l} onClose={close} onDone={done} />,
        sockets: l => <PlistDialog kind="sockets" label={l} onClose={close} onDone={done} />,
        calendar: l => <PlistDialog kind="calendar" label={l} onClose={close} onDone={done} />,
        journal: l => <JournalDialog label={l} onClose={close} />,
        reset: l => <ResetDialog label={l} onClose={close} onDone={done} />,
        destroy: l => <DestroyDialog label={l} onClose={close} onDone={done} />,
        create: () => <CreateDialog onClose={close} onDone={done} />,
    };

    let body;
    if (services === null && !error) {
        body = <EmptyState><Spinner size="xl" /></EmptyState>;
    } else if (services !== null && services.length === 0) {
        body = <EmptyState><EmptyStateBody>No services are loaded.</EmptyStateBody></EmptyState>;
    } else if (services !== null) {
        body = (
            <TableComposable aria-label="Tessary services" variant="compact" gridBreakPoint="grid-md"
                             className="tessary-services" id="tessary-services">
                <Thead>
                    <Tr>
                        <Th>Service</Th>
                        <Th>State</Th>
                        <Th>Switched on</Th>
                        <Th screenReaderText="Actions" />
                    </Tr>
                </Thead>
                <Tbody>
                    {services.map(s => (
                        <ServiceRow key={s.label} service={s} busy={busy.has(s.label)}
                                    onSwitch={onSwitch} onDialog={(kind, l) => setDialog({ kind, label: l })} />
                    ))}
                </Tbody>
            </TableComposable>
        );
    }

    return (
        <Card>
            <CardTitle component="h2">
                <Flex justifyContent={{ default: "justifyContentSpaceBetween" }}>
                    <span>Background services</span>
                    <Button variant="secondary" id="tessary-create"
                            onClick={() => setDialog({ kind: "create" })}>Create service</Button>
                </Flex>
            </CardTitle>
            <CardBody>
                {error && <Alert variant="danger" isInline title={error}
                                 actionClose={<AlertActionCloseButton onClose={() => setError(null)} />} />}
                {body}
                {dialog && dialogs[dialog.kind](dialog.label)}
            </CardBody>
        </Card>
    );
}

export function App() {
    const admin = useAdministrativeAccess();
    const [status, setStatus] = useState(null);
    const [unreachable, setUnreachable] = useState(null);
    const [services, setServices] = useState(null);
    const [error, setError] = useState(null);
    const [demoting, setDemoting] = useState(false);
    const reading = useRef(false);
    // The list is asked for before Cockpit has said whether the session has
    // administrative access, so that the two round trips overlap; without
    // it the list's refusal is not an error worth showing.
    const adminNow = useRef(admin);
    adminNow.current = admin;

    const refresh = useCallback(() => {
        if (reading.current)
            return;
        reading.current = true;
        const statusRead = tessaryctl.status()
                .then(s => { setStatus(s.status); setUnreachable(null) })
                .catch(e => {
                    if (e.exit_status === EXIT_UNREACHABLE)
                        setUnreachable(failureText(e));
                    else
                        setError(failureText(e));
                });
        const listRead = adminNow.current === false
            ? Promise.resolve()
            : tessaryctl.list().then(list => setServices(servicesOf(list)))
                    .catch(e => adminNow.current && e.exit_status !== EXIT_UNREACHABLE &&
                                setError(failureText(e)));
        Promise.allSettled([statusRead, listRead]).then(() => { reading.current = false });
    }, []);

    useEffect(() => {
        refresh();
        const timer = window.setInterval(() => { if (!cockpit.hidden) refresh() }, REFRESH_MS);
        return () => window.clearInterval(timer);
    }, [refresh]);

    // Marks when the list first became usable, for the page's load time.
    useEffect(() => {
        if (admin && services !== null && window.tessaryInteractiveAt === undefined) {
            window.tessaryInteractiveAt = performance.now();
            document.body.dataset.interactive = "true";
        }
    }, [admin, services]);

    return (
        <Page>
            <PageSection variant="light">
                <Title headingLevel="h1">Tessary</Title>
                <TextContent><Text>The background services of the Tessary app, run by its
                    supervisor daemon, tessaryd.</Text></TextContent>
            </PageSection>
            <PageSection>
                <Stack hasGutter>
                    <StackItem>
                        <StatusCard status={status} unreachable={unreachable} admin={admin}
                                    onChanged={refresh} />
                    </StackItem>
                    {admin === false &&
                        <StackItem>
                            <Alert id="tessary-needs-admin" variant="info" isInline
                                   title="Needs administrative access">
                                Switching services, overrides and setting up the machine need
                                administrative access. Turn it on with the “Limited access”
                                button at the top of the window.
                            </Alert>
                        </StackItem>}
                    {admin && !unreachable &&
                        <StackItem>
                            <ServicesCard services={services} error={error} setError={setError}
                                          onChanged={refresh} />
                        </StackItem>}
                    {admin && !unreachable &&
                        <StackItem>
                            <Card>
                                <CardTitle component="h2">Remove Tessary</CardTitle>
                                <CardBody>
                                    <Toolbar><ToolbarContent>
                                        <ToolbarItem><Text>Stop every service and uninstall the
                                            daemon from this machine.</Text></ToolbarItem>
                                        <ToolbarItem>
                                            <Button variant="danger" id="tessary-demote"
                                                    onClick={() => setDemoting(true)}>Remove…</Button>
                                        </ToolbarItem>
                                    </ToolbarContent></Toolbar>
                                    {demoting &&
                                        <DemoteDialog onClose={() => setDemoting(false)}
                                                      onDone={() => { setDemoting(false); refresh() }} />}
                                </CardBody>
                            </Card>
                        </StackItem>}
                </Stack>
            </PageSection>
        </Page>
    );
}
