// The page's dialogs: confirmations, the three overrides and a new service.
// They are shown by the page's root (DialogHost), not by the card or page
// that opened them, so that a read of the list that fails or a service page
// that goes away does not take what was typed in them.
/* global cockpit */
import React, { createContext, useContext, useEffect, useState } from "react";
import {
    Alert, Button, FileUpload, Form, FormGroup, InputGroup, Label, Modal, ModalVariant, Spinner,
    Text, TextArea, TextContent, TextInput,
    TableComposable, Tbody, Td, Th, Thead, Tr
} from "./pf.js";

import { problemWith } from "./plist-text.js";
import { failureText, tessaryctl } from "./tessaryctl.js";

const _ = cockpit.gettext;

// show(dialog) opens a dialog, close() closes it, done() closes it and
// reads the services again.
export const DialogHost = createContext(null);
export const useDialogs = () => useContext(DialogHost);

// A dialog whose one action runs `perform`; it stays open with the reason
// when that fails.
export function ActionDialog({
    title, actionLabel, danger, perform, onDone, isDisabled, children,
    variant = ModalVariant.small, errorTitle = cockpit.format(_("$0 failed"), actionLabel)
}) {
    const { close, done } = useDialogs();
    const [running, setRunning] = useState(false);
    const [error, setError] = useState(null);

    const act = () => {
        setRunning(true);
        setError(null);
        perform()
                .then(result => { done(); onDone?.(result) })
                .catch(e => {
                    setError(failureText(e));
                    setRunning(false);
                });
    };

    return (
        <Modal
            variant={variant} isOpen onClose={close} title={title}
            titleIconVariant={danger ? "warning" : undefined}
            actions={[
                <Button
                       key="act" variant={danger ? "danger" : "primary"} onClick={act}
                       isLoading={running} isDisabled={running || isDisabled}
                >
                    {actionLabel}
                </Button>,
                <Button key="cancel" variant="link" onClick={close}>{_("Cancel")}</Button>,
            ]}
        >
            {children}
            {error &&
                <Alert component="h2" variant="danger" isInline title={errorTitle}>{error}</Alert>}
        </Modal>
    );
}

export function ResetDialog({ label }) {
    return (
        <ActionDialog
            title={cockpit.format(_("Reset $0?"), label)} actionLabel={_("Reset")} danger
            perform={() => tessaryctl.reset(label)}
        >
            <TextContent>
                <Text>{cockpit.format(_("$0 will be switched off and stopped. Its overridden program arguments, sockets and calendar start times are dropped: it goes back to its definition."), label)}</Text>
            </TextContent>
        </ActionDialog>
    );
}

export function DestroyDialog({ label, onDestroyed }) {
    return (
        <ActionDialog
            title={cockpit.format(_("Destroy $0?"), label)} actionLabel={_("Destroy")} danger
            perform={() => tessaryctl.destroy(label)} onDone={onDestroyed}
        >
            <TextContent>
                <Text>{cockpit.format(_("$0 will be switched off, stopped and removed, with its definition and its overrides."), label)}</Text>
            </TextContent>
        </ActionDialog>
    );
}

export function DemoteDialog() {
    return (
        <ActionDialog
            title={_("Remove Tessary from this machine?")} actionLabel={_("Remove")} danger
            perform={() => tessaryctl.demote()}
        >
            <TextContent>
                <Text>{_("Every Tessary service will be stopped and your choices cleared. The daemon then uninstalls itself: this page can do nothing more until the Tessary package is installed again.")}</Text>
            </TextContent>
        </ActionDialog>
    );
}

// Reads with `read` whenever `generation` moves on; keeps the last value
// while a new read runs.
export function useRead(read, key, generation) {
    const [state, setState] = useState({ key, value: null, error: null });
    useEffect(() => {
        let live = true;
        read().then(value => live && setState({ key, value, error: null }),
                    e => live && setState(s => ({ key, value: s.key === key ? s.value : null, error: failureText(e) })));
        return () => { live = false };
    }, [key, generation]); // eslint-disable-line react-hooks/exhaustive-deps
    return state.key === key ? state : { key, value: null, error: null };
}

export function ArgumentsDialog({ label }) {
    const loaded = useRead(() => tessaryctl.programArguments(label), label, 0);
    const [values, setValues] = useState(null);
    const current = values ?? loaded.value?.programArguments ?? null;

    const change = (i, text) => setValues(current.map((v, k) => (k === i ? text : v)));
    const remove = i => setValues(current.filter((_v, k) => k !== i));
    const empty = current !== null && (current.length === 0 || current[0] === "");

    return (
        <ActionDialog
            title={cockpit.format(_("Program arguments of $0"), label)} actionLabel={_("Save")}
            variant={ModalVariant.medium} isDisabled={current === null || empty}
            perform={() => tessaryctl.setProgramArguments(label, current)}
        >
            {loaded.error &&
                <Alert component="h2" variant="danger" isInline title={_("Cannot read the arguments")}>{loaded.error}</Alert>}
            {current === null && !loaded.error && <Spinner size="lg" aria-label={_("Reading the arguments")} />}
            {current !== null &&
                <Form onSubmit={e => e.preventDefault()}>
                    <Text>{_("The first argument is the program. Saving restarts the service with the new arguments when it runs.")}</Text>
                    {current.map((value, i) => (
                        <FormGroup
                            key={i} label={i === 0 ? _("Program") : cockpit.format(_("Argument $0"), i)}
                            fieldId={`tessary-argument-${i}`}
                        >
                            <InputGroup>
                                <TextInput
                                    id={`tessary-argument-${i}`} value={value}
                                    onChange={text => change(i, text)}
                                />
                                {i > 0 &&
                                    <Button
                                        variant="control" onClick={() => remove(i)}
                                        aria-label={cockpit.format(_("Remove argument $0"), i)}
                                    >
                                        {_("Remove")}
                                    </Button>}
                            </InputGroup>
                        </FormGroup>
                    ))}
                    <Button
                        variant="link" id="tessary-add-argument"
                        onClick={() => setValues([...current, ""])}
                    >{_("Add argument")}
                    </Button>
                    {empty && <Alert component="h2" variant="warning" isInline title={_("A program is needed")} />}
                </Form>}
        </ActionDialog>
    );
}

// Sockets and calendar start times, edited as property-list text.
const PLIST_KINDS = {
    sockets: {
        title: label => cockpit.format(_("Sockets of $0"), label),
        field: () => _("Sockets as a property list"),
        load: tessaryctl.sockets,
        save: tessaryctl.setSockets,
        none: () => _("This service has no sockets. Enter a dictionary of named sockets to add them."),
        example: "<dict>\n  <key>Listeners</key>\n  <dict>\n    <key>SockServiceName</key>\n" +
                 "    <string>8080</string>\n  </dict>\n</dict>",
    },
    calendar: {
        title: label => cockpit.format(_("Calendar start times of $0"), label),
        field: () => _("Calendar start times as a property list"),
        load: tessaryctl.calendar,
        save: tessaryctl.setCalendar,
        none: () => _("This service has no calendar start times. An empty array keeps it so."),
        example: "<array>\n  <dict>\n    <key>Hour</key>\n    <integer>3</integer>\n" +
                 "  </dict>\n</array>",
    },
};

const wrapped = value =>
    '<?xml version="1.0" encoding="UTF-8"?>\n' +
    '<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" ' +
    '"http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n' +
    `<plist version="1.0">\n${value}\n</plist>\n`;

export function PlistDialog({ kind, label }) {
    const kindInfo = PLIST_KINDS[kind];
    const loaded = useRead(() => kindInfo.load(label), label, 0);
    const [text, setText] = useState(null);
    const shown = text ?? (loaded.value === null ? null : loaded.value || wrapped(kindInfo.example));
    const problem = shown === null ? null : problemWith(kind, shown);

    return (
        <ActionDialog
            title={kindInfo.title(label)} actionLabel={_("Save")}
            variant={ModalVariant.medium} isDisabled={shown === null || problem !== null}
            perform={() => kindInfo.save(label, shown)}
        >
            {loaded.error &&
                <Alert component="h2" variant="danger" isInline title={_("Cannot read the current value")}>{loaded.error}</Alert>}
            {shown === null && !loaded.error && <Spinner size="lg" aria-label={_("Reading the current value")} />}
            {shown !== null &&
                <Form onSubmit={e => e.preventDefault()}>
                    {loaded.value === "" && <Text>{kindInfo.none()}</Text>}
                    <FormGroup
                        label={_("Property list")} fieldId="tessary-plist"
                        validated={problem ? "error" : "default"}
                        helperTextInvalid={problem}
                        helperText={_("The current value; saving replaces it.")}
                    >
                        <TextArea
                            id="tessary-plist" className="tessary-xml" value={shown}
                            onChange={setText} rows={14} resizeOrientation="vertical"
                            validated={problem ? "error" : "default"}
                            aria-label={kindInfo.field()}
                        />
                    </FormGroup>
                </Form>}
        </ActionDialog>
    );
}

const SERVICE_EXAMPLE = wrapped(
    "<dict>\n  <key>Label</key>\n  <string>com.example.service</string>\n" +
    "  <key>ProgramArguments</key>\n  <array>\n    <string>/usr/bin/sleep</string>\n" +
    "    <string>infinity</string>\n  </array>\n  <key>KeepAlive</key>\n  <true/>\n</dict>");

const FINDING_KINDS = {
    approximate: { text: () => _("approximated"), color: "orange" },
    ignored: { text: () => _("ignored"), color: "orange" },
    refused: { text: () => _("refused"), color: "red" },
};

// What the translation would make of the definition: the units it becomes,
// and each key it maps only approximately, ignores or refuses.
function Findings({ check }) {
    if (check === null)
        return null;
    if (check.error)
        return <Alert component="h2" variant="warning" isInline title={_("The definition could not be checked")}>{check.error}</Alert>;
    if (check.result === undefined)
        return <Spinner size="md" aria-label={_("Checking the definition")} />;
    const { runs, units = [], findings = [] } = check.result;
    const names = units.map(u => u.name).join(", ");
    const title = findings.length
        ? cockpit.format(cockpit.ngettext("It would run as $0, with $1 key not as written.",
                                          "It would run as $0, with $1 keys not as written.", findings.length),
                         names, findings.length)
        : cockpit.format(_("It would run as $0, every key as written."), names);
    return (
        <div id="tessary-findings" data-runs={runs ? "true" : "false"}>
            {runs
                ? <Alert component="h2" variant={findings.length ? "warning" : "success"} isInline isPlain title={title} />
                : <Alert component="h2" variant="danger" isInline isPlain title={_("This definition would be refused.")} />}
            {findings.length > 0 &&
                <TableComposable aria-label={_("What the translation does with the keys")} variant="compact">
                    <Thead><Tr><Th>{_("Key")}</Th><Th>{_("Finding")}</Th><Th>{_("Reason")}</Th></Tr></Thead>
                    <Tbody>
                        {findings.map((f, i) => (
                            <Tr key={i} data-finding={f.key} data-kind={f.kind}>
                                <Td dataLabel={_("Key")}>{f.key}</Td>
                                <Td dataLabel={_("Finding")}>
                                    <Label isCompact color={FINDING_KINDS[f.kind]?.color || "grey"}>
                                        {FINDING_KINDS[f.kind]?.text() || f.kind}
                                    </Label>
                                </Td>
                                <Td dataLabel={_("Reason")}>{f.reason}</Td>
                            </Tr>
                        ))}
                    </Tbody>
                </TableComposable>}
        </div>
    );
}

// The findings of the text typed, asked for once the typing rests; null
// while the text is no definition, or when tessaryctl cannot check.
function useCheck(text, problem) {
    const [check, setCheck] = useState(null);
    useEffect(() => {
        if (problem !== null) {
            setCheck(null);
            return;
        }
        let live = true;
        setCheck({});
        const timer = window.setTimeout(() => {
            tessaryctl.check(text)
                    .then(result => live && setCheck(result === null ? null : { result }))
                    .catch(e => live && setCheck({ error: failureText(e) }));
        }, 400);
        return () => { live = false; window.clearTimeout(timer) };
    }, [text, problem]);
    return check;
}

export function CreateDialog() {
    const [text, setText] = useState(SERVICE_EXAMPLE);
    const [filename, setFilename] = useState("");
    const problem = problemWith("service", text);
    const check = useCheck(text, problem);
    const refused = check?.result?.runs === false;

    return (
        <ActionDialog
            title={_("Create a service")} actionLabel={_("Create")} variant={ModalVariant.medium}
            isDisabled={problem !== null || refused} perform={() => tessaryctl.create(text)}
        >
            <Form onSubmit={e => e.preventDefault()}>
                <Text>{_("Type the service's definition, a job definition as a property list, or upload it from a file. A new service starts switched off.")}</Text>
                <FormGroup
                    label={_("Definition")} fieldId="tessary-definition"
                    validated={problem ? "error" : "default"} helperTextInvalid={problem}
                >
                    <FileUpload
                        id="tessary-definition" type="text" value={text}
                        filename={filename} filenamePlaceholder={_("Drag a file here or upload one")}
                        browseButtonText={_("Upload")} clearButtonText={_("Clear")} allowEditingUploadedText
                        onChange={(value, name) => { setText(value ?? ""); setFilename(name ?? "") }}
                        onClearClick={() => { setText(""); setFilename("") }}
                        validated={problem ? "error" : "default"}
                        textAreaProps={{ className: "tessary-xml", rows: 14 }}
                    />
                </FormGroup>
                <Findings check={check} />
            </Form>
        </ActionDialog>
    );
}
