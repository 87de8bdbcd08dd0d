// One service whole: its switch, whether it was created at run time, its
// job's units as systemd has them, the settings a user may override beside
// the definition's own values, the definition itself, and its journal.
/* global cockpit */
import React, { useEffect } from "react";
import {
    Alert, Breadcrumb, BreadcrumbItem, Button, Card, CardBody, CardTitle, DescriptionList,
    DescriptionListDescription, DescriptionListGroup, DescriptionListTerm, EmptyState, EmptyStateBody,
    Flex, FlexItem, Label, PageSection, Spinner, Stack, StackItem, Switch, Text, TextContent, Title,
    TableComposable, Tbody, Td, Th, Thead, Tr
} from "./pf.js";

import { ArgumentsDialog, DestroyDialog, PlistDialog, ResetDialog, useDialogs, useRead } from "./dialogs.jsx";
import { StateLabel } from "./state.jsx";
import { journalOf, logsPageOf, unitsOf } from "./systemd.js";
import { tessaryctl } from "./tessaryctl.js";

const _ = cockpit.gettext;

const dateFormat = () => new Intl.DateTimeFormat(cockpit.language || undefined,
                                                 { dateStyle: "medium", timeStyle: "medium" });

function UnitsCard({ units }) {
    let body;
    if (units.error) {
        body = <Alert component="h3" variant="danger" isInline title={_("Cannot ask systemd for the units")}>{units.error}</Alert>;
    } else if (units.value === null) {
        body = <Spinner size="lg" aria-label={_("Reading the units")} />;
    } else if (units.value.length === 0) {
        body = <Text id="tessary-no-units">{_("No unit of this service is loaded: systemd has them while the service is switched on and can run.")}</Text>;
    } else {
        const format = dateFormat();
        body = (
            <TableComposable aria-label={_("Units")} variant="compact" id="tessary-units">
                <Thead><Tr><Th>{_("Unit")}</Th><Th>{_("State")}</Th><Th>{_("Since")}</Th></Tr></Thead>
                <Tbody>
                    {units.value.map(u => (
                        <Tr key={u.name} data-unit={u.name} data-active={u.active}>
                            <Td dataLabel={_("Unit")}>{u.name}</Td>
                            <Td dataLabel={_("State")}>{`${u.active} (${u.sub})`}</Td>
                            <Td dataLabel={_("Since")}>{u.since ? format.format(u.since) : "—"}</Td>
                        </Tr>
                    ))}
                </Tbody>
            </TableComposable>
        );
    }
    return (
        <Card id="tessary-units-card">
            <CardTitle component="h2">{_("Units")}</CardTitle>
            <CardBody>{body}</CardBody>
        </Card>
    );
}

// The three settings a user may override, with how each is shown.
const SETTINGS = [
    {
        key: "programArguments",
        title: () => _("Program arguments"),
        shown: args => <code className="tessary-arguments">{args.map(a => (/\s|^$/.test(a) ? JSON.stringify(a) : a)).join(" ")}</code>,
        dialog: label => <ArgumentsDialog label={label} />,
    },
    {
        key: "sockets",
        title: () => _("Sockets"),
        shown: xml => <pre className="tessary-xml tessary-value" tabIndex={0}>{xml}</pre>,
        dialog: label => <PlistDialog kind="sockets" label={label} />,
    },
    {
        key: "startCalendarIntervals",
        title: () => _("Calendar start times"),
        shown: xml => <pre className="tessary-xml tessary-value" tabIndex={0}>{xml}</pre>,
        dialog: label => <PlistDialog kind="calendar" label={label} />,
    },
];

function Setting({ label, setting, values }) {
    const dialogs = useDialogs();
    const { definition, override } = values || {};
    const overridden = override !== undefined;
    const current = overridden ? override : definition;
    const title = setting.title();
    return (
        <DescriptionListGroup data-setting={setting.key} data-overridden={overridden ? "true" : "false"}>
            <DescriptionListTerm>
                <Flex spaceItems={{ default: "spaceItemsSm" }}>
                    <FlexItem>{title}</FlexItem>
                    {overridden && <FlexItem><Label color="orange" isCompact>{_("overridden")}</Label></FlexItem>}
                </Flex>
            </DescriptionListTerm>
            <DescriptionListDescription>
                <Stack hasGutter>
                    <StackItem className="tessary-current">
                        {current === undefined ? <Text>{_("None")}</Text> : setting.shown(current)}
                    </StackItem>
                    {overridden &&
                        <StackItem className="tessary-definition-value">
                            <div className="tessary-caption">{_("The definition's value:")}</div>
                            {definition === undefined ? <Text>{_("None")}</Text> : setting.shown(definition)}
                        </StackItem>}
                    <StackItem>
                        <Button
                            variant="secondary" isSmall id={`tessary-edit-${setting.key}`}
                            aria-label={cockpit.format(_("Edit $0"), title.toLowerCase())}
                            onClick={() => dialogs.show(setting.dialog(label))}
                        >
                            {_("Edit…")}
                        </Button>
                    </StackItem>
                </Stack>
            </DescriptionListDescription>
        </DescriptionListGroup>
    );
}

function JournalCard({ label, journal }) {
    let body;
    if (journal.error)
        body = <Alert component="h3" variant="danger" isInline title={_("Cannot read the journal")}>{journal.error}</Alert>;
    else if (journal.value === null)
        body = <Spinner size="lg" aria-label={_("Reading the journal")} />;
    else
        body = (
            <pre
                id="tessary-journal" className="tessary-journal" tabIndex={0}
                aria-label={_("Recent journal lines")}
            >
                {journal.value.trim() || _("No journal lines for this service.")}
            </pre>
        );
    return (
        <Card>
            <CardTitle component="h2">
                <Flex justifyContent={{ default: "justifyContentSpaceBetween" }}>
                    <span>{_("Recent journal lines")}</span>
                    <Button
                        variant="link" isInline id="tessary-logs-link"
                        onClick={() => cockpit.jump(logsPageOf(label))}
                    >
                        {_("Show in Logs")}
                    </Button>
                </Flex>
            </CardTitle>
            <CardBody>{body}</CardBody>
        </Card>
    );
}

export function DetailsPage({ label, service, generation, busy, onSwitch, onBack, listHref }) {
    const dialogs = useDialogs();
    const show = useRead(() => tessaryctl.show(label), label, generation);
    const units = useRead(() => unitsOf(label), label, generation);
    const ready = show.value !== null && units.value !== null;
    // The journal is read once the rest is there, not competing with it.
    const journal = useRead(() => (ready ? journalOf(label) : new Promise(() => {})), label,
                            `${generation}:${ready}`);

    // When the service's page was first whole on the screen, for the page's
    // responsiveness as the browser tests measure it.
    useEffect(() => {
        if (ready && document.body.dataset.details !== label) {
            window.tessaryDetailsAt = performance.now();
            document.body.dataset.details = label;
        }
    }, [ready, label]);
    useEffect(() => () => { delete document.body.dataset.details }, [label]);

    const dynamic = service ? service.dynamic : show.value?.dynamic;
    const back = (
        <Breadcrumb>
            <BreadcrumbItem to={listHref} onClick={e => { e.preventDefault(); onBack() }}>
                {_("Tessary services")}
            </BreadcrumbItem>
            <BreadcrumbItem isActive>{label}</BreadcrumbItem>
        </Breadcrumb>
    );

    if (service === null) {
        return (
            <PageSection variant="light">
                {back}
                <EmptyState id="tessary-no-such-service">
                    <Title headingLevel="h1" size="lg">{label}</Title>
                    <EmptyStateBody>{_("No service has this label.")}</EmptyStateBody>
                    <Button variant="primary" onClick={onBack}>{_("Back to the services")}</Button>
                </EmptyState>
            </PageSection>
        );
    }

    return (
        <>
            <PageSection variant="light" id="tessary-details" data-label={label}>
                <Stack hasGutter>
                    <StackItem>{back}</StackItem>
                    <StackItem>
                        <Flex
                            justifyContent={{ default: "justifyContentSpaceBetween" }}
                            alignItems={{ default: "alignItemsCenter" }}
                        >
                            <FlexItem>
                                <Title headingLevel="h1" className="tessary-label">{label}</Title>
                            </FlexItem>
                            <FlexItem>
                                <Flex>
                                    <Button
                                        variant="secondary" id="tessary-reset"
                                        onClick={() => dialogs.show(<ResetDialog label={label} />)}
                                    >
                                        {_("Reset…")}
                                    </Button>
                                    {dynamic &&
                                        <Button
                                            variant="danger" id="tessary-destroy"
                                            onClick={() => dialogs.show(<DestroyDialog label={label} onDestroyed={onBack} />)}
                                        >
                                            {_("Destroy…")}
                                        </Button>}
                                </Flex>
                            </FlexItem>
                        </Flex>
                    </StackItem>
                    <StackItem>
                        <DescriptionList isHorizontal>
                            <DescriptionListGroup>
                                <DescriptionListTerm>{_("Switched on")}</DescriptionListTerm>
                                <DescriptionListDescription>
                                    {service &&
                                        <Switch
                                            id="tessary-details-switch"
                                            aria-label={cockpit.format(_("Switch $0 on or off"), label)}
                                            isChecked={service.on} isDisabled={busy}
                                            onChange={checked => onSwitch(label, checked)}
                                        />}
                                </DescriptionListDescription>
                            </DescriptionListGroup>
                            <DescriptionListGroup>
                                <DescriptionListTerm>{_("State")}</DescriptionListTerm>
                                <DescriptionListDescription>
                                    {service && <StateLabel id="tessary-details-state" state={service.state} />}
                                </DescriptionListDescription>
                            </DescriptionListGroup>
                            <DescriptionListGroup>
                                <DescriptionListTerm>{_("Created at run time")}</DescriptionListTerm>
                                <DescriptionListDescription id="tessary-dynamic">
                                    {dynamic ? _("Yes: created on this machine, not part of the app") : _("No: part of the app")}
                                </DescriptionListDescription>
                            </DescriptionListGroup>
                        </DescriptionList>
                    </StackItem>
                </Stack>
            </PageSection>
            <PageSection>
                <Stack hasGutter>
                    <StackItem><UnitsCard units={units} /></StackItem>
                    <StackItem>
                        <Card>
                            <CardTitle component="h2">{_("Settings")}</CardTitle>
                            <CardBody>
                                {show.error &&
                                    <Alert component="h3" variant="danger" isInline title={_("Cannot read the definition")}>
                                        {show.error}
                                    </Alert>}
                                {show.value === null && !show.error && <Spinner size="lg" aria-label={_("Reading the definition")} />}
                                {show.value !== null &&
                                    <Stack hasGutter>
                                        <TextContent>
                                            <Text>{_("A setting you change here overrides the definition's value until the service is reset.")}</Text>
                                        </TextContent>
                                        <DescriptionList id="tessary-settings" className="tessary-settings">
                                            {SETTINGS.map(s => <Setting key={s.key} label={label} setting={s} values={show.value[s.key]} />)}
                                        </DescriptionList>
                                    </Stack>}
                            </CardBody>
                        </Card>
                    </StackItem>
                    <StackItem>
                        <Card>
                            <CardTitle component="h2">{_("Definition")}</CardTitle>
                            <CardBody>
                                {show.value !== null &&
                                    <pre
                                        id="tessary-definition-text" className="tessary-xml tessary-value" tabIndex={0}
                                        aria-label={_("Definition")}
                                    >
                                        {show.value.definition}
                                    </pre>}
                            </CardBody>
                        </Card>
                    </StackItem>
                    <StackItem><JournalCard label={label} journal={journal} /></StackItem>
                </Stack>
            </PageSection>
        </>
    );
}
