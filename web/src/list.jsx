// The services list: a text and a state filter over it, the count of what
// they let through, sorting by label or state, and each row's switch and
// link to the service's own page.
/* global cockpit */
import React, { memo, useDeferredValue, useEffect, useLayoutEffect, useMemo, useRef } from "react";
import {
    Button, Card, CardBody, CardTitle, EmptyState, EmptyStateBody, EmptyStatePrimary, Flex,
    FormSelect, FormSelectOption, Label, SearchInput, Spinner, Switch, Text, Title, Toolbar,
    ToolbarContent, ToolbarGroup, ToolbarItem,
    TableComposable, Tbody, Td, Th, Thead, Tr
} from "./pf.js";

import { DEFAULT_VIEW, visibleServices } from "./services.js";
import { StateLabel } from "./state.jsx";

const _ = cockpit.gettext;

const STATE_CHOICES = () => [
    ["all", _("All states")],
    ["running", _("Running")],
    ["waiting", _("Waiting")],
    ["failed", _("Failed")],
    ["stopped", _("Stopped")],
];

const SWITCH_CHOICES = () => [
    ["all", _("Switched on or off")],
    ["on", _("Switched on")],
    ["off", _("Switched off")],
];

export const detailsLink = label => "#" + cockpit.location.encode([label]);

const ServiceRow = memo(function ServiceRow({ service, busy, onSwitch, onOpen }) {
    const { label, on, state, dynamic } = service;
    return (
        <Tr data-service={label} data-state={state} data-on={on ? "true" : "false"}>
            <Td dataLabel={_("Service")}>
                <a
                    href={detailsLink(label)} className="tessary-service-link"
                    onClick={e => { e.preventDefault(); onOpen(label) }}
                >{label}
                </a>
                {dynamic && <> <Label isCompact>{_("created")}</Label></>}
            </Td>
            <Td dataLabel={_("State")}><StateLabel state={state} /></Td>
            <Td dataLabel={_("Switched on")}>
                <Switch
                    id={`switch-${label}`} aria-label={cockpit.format(_("Switch $0 on or off"), label)}
                    isChecked={on} isDisabled={busy} onChange={checked => onSwitch(label, checked)}
                />
            </Td>
        </Tr>
    );
});

function FilterToolbar({ view, onView, shown, total }) {
    const set = change => onView({ ...view, ...change });
    return (
        <Toolbar id="tessary-filters" clearAllFilters={() => onView(DEFAULT_VIEW)}>
            <ToolbarContent>
                <ToolbarGroup variant="filter-group">
                    <ToolbarItem>
                        <SearchInput
                            id="tessary-filter-text" aria-label={_("Filter by label")}
                            placeholder={_("Filter by label")} value={view.text}
                            onChange={(_event, text) => set({ text })}
                            onClear={() => set({ text: "" })}
                        />
                    </ToolbarItem>
                    <ToolbarItem>
                        <FormSelect
                            id="tessary-filter-state" aria-label={_("Filter by state")}
                            value={view.state} onChange={state => set({ state })}
                        >
                            {STATE_CHOICES().map(([value, text]) =>
                                <FormSelectOption key={value} value={value} label={text} />)}
                        </FormSelect>
                    </ToolbarItem>
                    <ToolbarItem>
                        <FormSelect
                            id="tessary-filter-switch" aria-label={_("Filter by switch")}
                            value={view.switched} onChange={switched => set({ switched })}
                        >
                            {SWITCH_CHOICES().map(([value, text]) =>
                                <FormSelectOption key={value} value={value} label={text} />)}
                        </FormSelect>
                    </ToolbarItem>
                </ToolbarGroup>
                <ToolbarItem alignment={{ default: "alignRight" }}>
                    <Text id="tessary-count" aria-live="polite">
                        {shown === total
                            ? cockpit.format(cockpit.ngettext("$0 service", "$0 services", total), total)
                            : cockpit.format(cockpit.ngettext("$0 of $1 service shown", "$0 of $1 services shown",
                                                              total), shown, total)}
                    </Text>
                </ToolbarItem>
            </ToolbarContent>
        </Toolbar>
    );
}

function sortProps(view, onView, column) {
    return {
        sortBy: { index: view.sort === "state" ? 1 : 0, direction: view.descending ? "desc" : "asc" },
        onSort: (_event, _index, direction) => onView({ ...view, sort: column, descending: direction === "desc" }),
        columnIndex: column === "state" ? 1 : 0,
    };
}

export function ServicesCard({ services, view, onView, busy, onSwitch, onOpen, onCreate }) {
    // Typing answers at once; the table follows when it has rendered.
    const shownView = useDeferredValue(view);
    // A filter that lets the same rows through keeps the same array, and the
    // table is left as it is.
    const lastShown = useRef([]);
    const shown = useMemo(() => {
        const next = services === null ? [] : visibleServices(services, shownView);
        const same = next.length === lastShown.current.length && next.every((s, i) => s === lastShown.current[i]);
        lastShown.current = same ? lastShown.current : next;
        return lastShown.current;
    }, [services, shownView]);

    // When the filtered list was last on the screen, for the page's
    // responsiveness as the browser tests measure it.
    useLayoutEffect(() => {
        if (services !== null)
            window.tessaryFilteredAt = performance.now();
    }, [services, shown, shownView]);
    useEffect(() => {
        if (services !== null && window.tessaryInteractiveAt === undefined) {
            window.tessaryInteractiveAt = performance.now();
            document.body.dataset.interactive = "true";
        }
    }, [services]);

    // The rows only change with what is shown: typing re-renders the toolbar
    // at once, and the table once the deferred view has caught up.
    const rows = useMemo(() => shown.map(s => (
        <ServiceRow key={s.label} service={s} busy={busy.has(s.label)} onSwitch={onSwitch} onOpen={onOpen} />
    )), [shown, busy, onSwitch, onOpen]);

    let body;
    if (services === null) {
        body = <EmptyState><Spinner size="xl" aria-label={_("Reading the services")} /></EmptyState>;
    } else if (services.length === 0) {
        body = <EmptyState><EmptyStateBody>{_("No services are loaded.")}</EmptyStateBody></EmptyState>;
    } else if (shown.length === 0) {
        body = (
            <EmptyState id="tessary-nothing-matches">
                <Title headingLevel="h3" size="lg">{_("No service matches")}</Title>
                <EmptyStateBody>{_("No service matches the filter.")}</EmptyStateBody>
                <EmptyStatePrimary>
                    <Button variant="link" onClick={() => onView(DEFAULT_VIEW)}>{_("Clear all filters")}</Button>
                </EmptyStatePrimary>
            </EmptyState>
        );
    } else {
        body = (
            <TableComposable
                aria-label={_("Tessary services")} variant="compact" gridBreakPoint="grid-md"
                className="tessary-services" id="tessary-services"
                data-filter-text={shownView.text}
            >
                <Thead>
                    <Tr>
                        <Th sort={sortProps(view, onView, "label")}>{_("Service")}</Th>
                        <Th sort={sortProps(view, onView, "state")}>{_("State")}</Th>
                        <Th>{_("Switched on")}</Th>
                    </Tr>
                </Thead>
                <Tbody>
                    {rows}
                </Tbody>
            </TableComposable>
        );
    }

    return (
        <Card>
            <CardTitle component="h2">
                <Flex justifyContent={{ default: "justifyContentSpaceBetween" }}>
                    <span>{_("Background services")}</span>
                    <Button variant="secondary" id="tessary-create" onClick={onCreate}>
                        {_("Create service…")}
                    </Button>
                </Flex>
            </CardTitle>
            <CardBody>
                {services !== null && services.length > 0 &&
                    <FilterToolbar view={view} onView={onView} shown={shown.length} total={services.length} />}
                {body}
            </CardBody>
        </Card>
    );
}
