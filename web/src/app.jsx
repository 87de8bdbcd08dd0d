// The Tessary page: the machine's setup status and its background services;
// a list to find one among many (#/), and a page that shows one whole
// (#/LABEL). The page reads the services when systemd says one of their
// units changed, when it becomes visible again, when administrative access
// changes, and slowly besides; it shows the dialogs at its root.
/* global cockpit */
import React, { useCallback, useEffect, useMemo, useRef, useState } from "react";
import {
    Alert, AlertActionCloseButton, Button, Card, CardBody, CardTitle, Page, PageSection, Stack,
    StackItem, Text, TextContent, Title, Toolbar, ToolbarContent, ToolbarItem,
} from "./pf.js";

import { DetailsPage } from "./details.jsx";
import { CreateDialog, DemoteDialog, DialogHost } from "./dialogs.jsx";
import { ServicesCard } from "./list.jsx";
import { optionsOf, servicesOf, viewOf } from "./services.js";
import { StatusCard } from "./status.jsx";
import { followUnits } from "./systemd.js";
import { EXIT_UNREACHABLE, failureText, tessaryctl } from "./tessaryctl.js";

const _ = cockpit.gettext;

// The list is read this often besides, for what systemd does not announce
// (a service created or destroyed elsewhere while it is off).
const FALLBACK_MS = 30000;

// The daemon's own unit: when it stops or starts, the page reads again.
const DAEMON = "com.orvane.tessaryd";

function useAdministrativeAccess() {
    const [allowed, setAllowed] = useState(null);
    useEffect(() => {
        const permission = cockpit.permission({ admin: true });
        const update = () => setAllowed(permission.allowed);
        permission.addEventListener("changed", update);
        update();
        return () => {
            permission.removeEventListener("changed", update);
            permission.close();
        };
    }, []);
    return allowed;
}

function useLocation() {
    const here = () => ({ path: cockpit.location.path, options: cockpit.location.options });
    const [location, setLocation] = useState(here);
    useEffect(() => {
        const update = () => setLocation(here());
        cockpit.addEventListener("locationchanged", update);
        return () => cockpit.removeEventListener("locationchanged", update);
    }, []);
    return location;
}

// The status and the services, read again on `refresh()`. A read that fails
// leaves `loadError` until one succeeds; one asked for while another runs
// follows it.
function useTessary(admin) {
    const [status, setStatus] = useState(null);
    const [unreachable, setUnreachable] = useState(null);
    const [services, setServices] = useState(null);
    const [loadError, setLoadError] = useState(null);
    const [generation, setGeneration] = useState(0);
    const reading = useRef(false);
    const again = useRef(false);
    // The list is asked for before Cockpit has said whether the session has
    // administrative access, so that the two round trips overlap; without
    // it the list's refusal is not an error worth showing.
    const adminNow = useRef(admin);
    adminNow.current = admin;

    const refresh = useCallback(() => {
        if (reading.current) {
            again.current = true;
            return;
        }
        reading.current = true;
        const statusRead = tessaryctl.status().then(s => {
            setStatus(s.status);
            setUnreachable(null);
            return null;
        }, e => {
            if (e.exit_status !== EXIT_UNREACHABLE)
                return failureText(e);
            setUnreachable(failureText(e));
            return null;
        });
        const listRead = adminNow.current === false
            ? Promise.resolve(null)
            : tessaryctl.list().then(list => {
                setServices(servicesOf(list));
                return null;
            }, e => (adminNow.current && e.exit_status !== EXIT_UNREACHABLE ? failureText(e) : null));
        Promise.all([statusRead, listRead]).then(([statusError, listError]) => {
            setLoadError(statusError || listError);
            setGeneration(g => g + 1);
            reading.current = false;
            if (again.current) {
                again.current = false;
                refresh();
            }
        });
    }, []);

    useEffect(() => {
        refresh();
        const timer = window.setInterval(() => { if (!cockpit.hidden) refresh(); }, FALLBACK_MS);
        const visible = () => { if (!cockpit.hidden) refresh(); };
        document.addEventListener("visibilitychange", visible);
        return () => {
            window.clearInterval(timer);
            document.removeEventListener("visibilitychange", visible);
        };
    }, [refresh]);

    // Administrative access taken or given up: read again, in place.
    const firstAdmin = useRef(true);
    useEffect(() => {
        if (admin === null)
            return;
        if (firstAdmin.current)
            firstAdmin.current = false;
        else
            refresh();
    }, [admin, refresh]);

    // systemd announces what happens to the services' units.
    const labels = useRef(new Set());
    labels.current = useMemo(() => new Set((services || []).map(s => s.label)), [services]);
    useEffect(() => followUnits(label => label === DAEMON || labels.current.has(label), refresh), [refresh]);

    return { status, unreachable, services, loadError, generation, refresh };
}

let alertNumber = 0;

export function App() {
    const admin = useAdministrativeAccess();
    const { status, unreachable, services, loadError, generation, refresh } = useTessary(admin);
    const location = useLocation();
    const [dialog, setDialog] = useState(null);
    const [alerts, setAlerts] = useState([]);
    const [busy, setBusy] = useState(new Set());

    const dialogs = useMemo(() => ({
        show: setDialog,
        close: () => setDialog(null),
        done: () => { setDialog(null); refresh() },
    }), [refresh]);

    // PatternFly's modal hides the rest of the page from screen readers while
    // it is open, and leaves it hidden when it goes away unclosed.
    useEffect(() => {
        if (dialog === null)
            Array.from(document.body.children).forEach(el => el.removeAttribute("aria-hidden"));
    }, [dialog]);

    const addAlert = useCallback((title, text) =>
        setAlerts(a => [...a, { id: ++alertNumber, title, text }]), []);

    const onSwitch = useCallback((label, on) => {
        setBusy(b => new Set(b).add(label));
        (on ? tessaryctl.enable(label) : tessaryctl.disable(label))
                .catch(e => addAlert(cockpit.format(on ? _("$0 could not be switched on") : _("$0 could not be switched off"),
                                                    label), failureText(e)))
                .finally(() => {
                    setBusy(b => { const n = new Set(b); n.delete(label); return n });
                    refresh();
                });
    }, [addAlert, refresh]);

    // The list's filter and sort live in the URL; the list's last ones are
    // where Back returns to from a service's page.
    const listOptions = useRef({});
    const label = location.path.length > 0 ? location.path[0] : null;
    if (label === null)
        listOptions.current = location.options;
    const [view, setView] = useState(() => viewOf(location.options));
    useEffect(() => {
        if (label === null && JSON.stringify(optionsOf(view)) !== JSON.stringify(location.options))
            setView(viewOf(location.options));
    }, [label, location.options]); // eslint-disable-line react-hooks/exhaustive-deps
    // The URL follows the typing once it rests, so that a keystroke does not
    // also move the console's location.
    const urlTimer = useRef(null);
    const onView = useCallback(next => {
        setView(next);
        window.clearTimeout(urlTimer.current);
        urlTimer.current = window.setTimeout(() => cockpit.location.replace([], optionsOf(next)), 300);
    }, []);
    // Opening a service writes the list's pending filter first, for Back.
    const viewNow = useRef(view);
    viewNow.current = view;
    const onOpen = useCallback(l => {
        window.clearTimeout(urlTimer.current);
        cockpit.location.replace([], optionsOf(viewNow.current));
        listOptions.current = optionsOf(viewNow.current);
        cockpit.location.go([l]);
    }, []);
    const onBack = useCallback(() => cockpit.location.go([], listOptions.current), []);

    let main;
    if (admin && !unreachable && label !== null) {
        const service = services === null ? undefined : (services.find(s => s.label === label) || null);
        main = (
            <DetailsPage
                label={label} service={service} generation={generation} busy={busy.has(label)}
                onSwitch={onSwitch} onBack={onBack}
                listHref={"#" + cockpit.location.encode([], listOptions.current)}
            />
        );
    } else {
        main = (
            <>
                <PageSection variant="light">
                    <Title headingLevel="h1">{_("Tessary services")}</Title>
                    <TextContent><Text>{_("The background services of the Tessary app, run by its supervisor daemon, tessaryd.")}</Text></TextContent>
                </PageSection>
                <PageSection>
                    <Stack hasGutter>
                        <StackItem>
                            <StatusCard status={status} unreachable={unreachable} admin={admin} />
                        </StackItem>
                        {admin === false &&
                            <StackItem>
                                <Alert
                                    component="h2"
                                    id="tessary-needs-admin" variant="info" isInline
                                    title={_("Needs administrative access")}
                                >
                                    {_("Switching services, overrides and setting up the machine need administrative access. Turn it on with the “Limited access” button at the top of the window.")}
                                </Alert>
                            </StackItem>}
                        {admin && !unreachable &&
                            <StackItem>
                                <ServicesCard
                                    services={services} view={view} onView={onView} busy={busy}
                                    onSwitch={onSwitch} onOpen={onOpen}
                                    onCreate={() => dialogs.show(<CreateDialog />)}
                                />
                            </StackItem>}
                        {admin && !unreachable &&
                            <StackItem>
                                <Card>
                                    <CardTitle component="h2">{_("Remove Tessary")}</CardTitle>
                                    <CardBody>
                                        <Toolbar>
                                            <ToolbarContent>
                                                <ToolbarItem>
                                                    <Text>{_("Stop every service and uninstall the daemon from this machine.")}</Text>
                                                </ToolbarItem>
                                                <ToolbarItem>
                                                    <Button
                                                        variant="danger" id="tessary-demote"
                                                        onClick={() => dialogs.show(<DemoteDialog />)}
                                                    >
                                                        {_("Remove…")}
                                                    </Button>
                                                </ToolbarItem>
                                            </ToolbarContent>
                                        </Toolbar>
                                    </CardBody>
                                </Card>
                            </StackItem>}
                    </Stack>
                </PageSection>
            </>
        );
    }

    return (
        <DialogHost.Provider value={dialogs}>
            <Page>
                {(loadError || alerts.length > 0) &&
                    <PageSection variant="light" className="tessary-alerts">
                        <Stack hasGutter>
                            {loadError &&
                                <Alert
                                    component="h2"
                                    id="tessary-load-error" variant="danger" isInline
                                    title={_("Cannot read the services")}
                                >{loadError}
                                </Alert>}
                            {alerts.map(a => (
                                <Alert
                                    component="h2"
                                    key={a.id} className="tessary-action-alert" variant="danger" isInline title={a.title}
                                    actionClose={<AlertActionCloseButton onClose={() => setAlerts(all => all.filter(x => x.id !== a.id))} />}
                                >
                                    {a.text}
                                </Alert>
                            ))}
                        </Stack>
                    </PageSection>}
                {main}
            </Page>
            {dialog}
        </DialogHost.Provider>
    );
}
