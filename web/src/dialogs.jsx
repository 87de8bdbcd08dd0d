// The dialogs of the services list: confirmations, the three overrides, a
// new service, and a service's journal.
import React, { useEffect, useState } from "react";
import {
    Alert, Button, FileUpload, Form, FormGroup, InputGroup, Modal, ModalVariant, Spinner, Text,
    TextArea, TextContent, TextInput,
} from "./pf.js";

import { problemWith } from "./plist-text.js";
import { failureText, tessaryctl } from "./tessaryctl.js";

// A dialog whose one action runs `perform`; it stays open with the reason
// when that fails.
function ActionDialog({ title, actionLabel, danger, perform, onClose, onDone, isDisabled,
    children, variant = ModalVariant.small }) {
    const [running, setRunning] = useState(false);
    const [error, setError] = useState(null);

    const act = () => {
        setRunning(true);
        setError(null);
        perform()
                .then(result => onDone(result))
                .catch(e => {
                    setError(failureText(e));
                    setRunning(false);
                });
    };

    return (
        <Modal variant={variant} isOpen onClose={onClose} title={title}
               titleIconVariant={danger ? "warning" : undefined}
               actions={[
                   <Button key="act" variant={danger ? "danger" : "primary"} onClick={act}
                           isLoading={running} isDisabled={running || isDisabled}>
                       {actionLabel}
                   </Button>,
                   <Button key="cancel" variant="link" onClick={onClose}>Cancel</Button>,
               ]}>
            {children}
            {error && <Alert variant="danger" isInline title={`${actionLabel} failed`}>{error}</Alert>}
        </Modal>
    );
}

export function ResetDialog({ label, onClose, onDone }) {
    return (
        <ActionDialog title={`Reset ${label}?`} actionLabel="Reset" danger
                      perform={() => tessaryctl.reset(label)} onClose={onClose} onDone={onDone}>
            <TextContent>
                <Text>{label} will be switched off and stopped. Its overridden program
                    arguments, sockets and calendar start times are dropped: it goes back to
                    its definition.</Text>
            </TextContent>
        </ActionDialog>
    );
}

export function DestroyDialog({ label, onClose, onDone }) {
    return (
        <ActionDialog title={`Destroy ${label}?`} actionLabel="Destroy" danger
                      perform={() => tessaryctl.destroy(label)} onClose={onClose} onDone={onDone}>
            <TextContent>
                <Text>{label} will be switched off, stopped and removed, with its definition
                    and its overrides.</Text>
            </TextContent>
        </ActionDialog>
    );
}

export function DemoteDialog({ onClose, onDone }) {
    return (
        <ActionDialog title="Remove Tessary from this machine?" actionLabel="Remove" danger
                      perform={() => tessaryctl.demote()} onClose={onClose} onDone={onDone}>
            <TextContent>
                <Text>Every Tessary service will be stopped and your choices cleared. The
                    daemon then uninstalls itself: this page can do nothing more until the
                    Tessary package is installed again.</Text>
            </TextContent>
        </ActionDialog>
    );
}

// Loads a value with `load` and shows a spinner until it is there.
function useLoaded(load) {
    const [state, setState] = useState({ value: null, error: null });
    useEffect(() => {
        let live = true;
        load().then(value => live && setState({ value, error: null }))
                .catch(e => live && setState({ value: null, error: failureText(e) }));
        return () => { live = false };
    }, []); // eslint-disable-line react-hooks/exhaustive-deps
    return state;
}

export function ArgumentsDialog({ label, onClose, onDone }) {
    const loaded = useLoaded(() => tessaryctl.programArguments(label));
    const [values, setValues] = useState(null);
    const current = values ?? loaded.value?.programArguments ?? null;

    const change = (i, text) => setValues(current.map((v, k) => (k === i ? text : v)));
    const remove = i => setValues(current.filter((_, k) => k !== i));
    const empty = current !== null && (current.length === 0 || current[0] === "");

    return (
        <ActionDialog title={`Program arguments of ${label}`} actionLabel="Save"
                      variant={ModalVariant.medium} isDisabled={current === null || empty}
                      perform={() => tessaryctl.setProgramArguments(label, current)}
                      onClose={onClose} onDone={onDone}>
            {loaded.error && <Alert variant="danger" isInline title="Cannot read the arguments">
                {loaded.error}</Alert>}
            {current === null && !loaded.error && <Spinner size="lg" />}
            {current !== null &&
                <Form onSubmit={e => e.preventDefault()}>
                    <Text>The first argument is the program. Saving restarts the service with
                        the new arguments when it runs.</Text>
                    {current.map((value, i) => (
                        <FormGroup key={i} label={i === 0 ? "Program" : `Argument ${i}`}
                                   fieldId={`tessary-argument-${i}`}>
                            <InputGroup>
                                <TextInput id={`tessary-argument-${i}`} value={value}
                                           onChange={text => change(i, text)} />
                                {i > 0 &&
                                    <Button variant="control" onClick={() => remove(i)}
                                            aria-label={`Remove argument ${i}`}>Remove</Button>}
                            </InputGroup>
                        </FormGroup>
                    ))}
                    <Button variant="link" id="tessary-add-argument"
                            onClick={() => setValues([...current, ""])}>Add argument</Button>
                    {empty && <Alert variant="warning" isInline title="A program is needed" />}
                </Form>}
        </ActionDialog>
    );
}

// Sockets and calendar start times, edited as property-list text.
const PLIST_KINDS = {
    sockets: {
        title: "Sockets",
        load: tessaryctl.sockets,
        save: tessaryctl.setSockets,
        none: "This service has no sockets. Enter a dictionary of named sockets to add them.",
        example: "<dict>\n  <key>Listeners</key>\n  <dict>\n    <key>SockServiceName</key>\n" +
                 "    <string>8080</string>\n  </dict>\n</dict>",
    },
    calendar: {
        title: "Calendar start times",
        load: tessaryctl.calendar,
        save: tessaryctl.setCalendar,
        none: "This service has no calendar start times. An empty array keeps it so.",
        example: "<array>\n  <dict>\n    <key>Hour</key>\n    <integer>3</integer>\n" +
                 "  </dict>\n</array>",
    },
};

const wrapped = value =>
    '<?xml version="1.0" encoding="UTF-8"?>\n' +
    '<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" ' +
    '"http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n' +
    `<plist version="1.0">\n${value}\n</plist>\n`;

export function PlistDialog({ kind, label, onClose, onDone }) {
    const spec = PLIST_KINDS[kind];
    const loaded = useLoaded(() => spec.load(label));
    const [text, setText] = useState(null);
    const shown = text ?? (loaded.value === null ? null : loaded.value || wrapped(spec.example));
    const problem = shown === null ? null : problemWith(kind, shown);

    return (
        <ActionDialog title={`${spec.title} of ${label}`} actionLabel="Save"
                      variant={ModalVariant.medium} isDisabled={shown === null || problem !== null}
                      perform={() => spec.save(label, shown)} onClose={onClose} onDone={onDone}>
            {loaded.error && <Alert variant="danger" isInline title="Cannot read the current value">
                {loaded.error}</Alert>}
            {shown === null && !loaded.error && <Spinner size="lg" />}
            {shown !== null &&
                <Form onSubmit={e => e.preventDefault()}>
                    {loaded.value === "" && <Text>{spec.none}</Text>}
                    <FormGroup label="Property list" fieldId="tessary-plist"
                               validated={problem ? "error" : "default"}
                               helperTextInvalid={problem}
                               helperText="The current value; saving replaces it.">
                        <TextArea id="tessary-plist" className="tessary-xml" value={shown}
                                  onChange={setText} rows={14} resizeOrientation="vertical"
                                  validated={problem ? "error" : "default"}
                                  aria-label={`${spec.title} as a property list`} />
                    </FormGroup>
                </Form>}
        </ActionDialog>
    );
}

const SERVICE_EXAMPLE = wrapped(
    "<dict>\n  <key>Label</key>\n  <string>com.example.service</string>\n" +
    "  <key>ProgramArguments</key>\n  <array>\n    <string>/usr/bin/sleep</string>\n" +
    "    <string>infinity</string>\n  </array>\n  <key>KeepAlive</key>\n  <true/>\n</dict>");

export function CreateDialog({ onClose, onDone }) {
    const [text, setText] = useState(SERVICE_EXAMPLE);
    const [filename, setFilename] = useState("");
    const problem = problemWith("service", text);

    return (
        <ActionDialog title="Create a service" actionLabel="Create" variant={ModalVariant.medium}
                      isDisabled={problem !== null} perform={() => tessaryctl.create(text)}
                      onClose={onClose} onDone={onDone}>
            <Form onSubmit={e => e.preventDefault()}>
                <Text>Type the service's definition, a job definition as a property list, or
                    upload it from a file. A new service starts switched off.</Text>
                <FormGroup label="Definition" fieldId="tessary-definition"
                           validated={problem ? "error" : "default"} helperTextInvalid={problem}>
                    <FileUpload id="tessary-definition" type="text" value={text}
                                filename={filename} filenamePlaceholder="Drag a file here or upload one"
                                browseButtonText="Upload" allowEditingUploadedText
                                onChange={(value, name) => { setText(value ?? ""); setFilename(name ?? "") }}
                                onClearClick={() => { setText(""); setFilename("") }}
                                validated={problem ? "error" : "default"}
                                textAreaProps={{ className: "tessary-xml", rows: 14 }} />
                </FormGroup>
            </Form>
        </ActionDialog>
    );
}

export function JournalDialog({ label, onClose }) {
    const loaded = useLoaded(() => tessaryctl.logs(label));
    return (
        <Modal variant={ModalVariant.large} isOpen onClose={onClose} title={`Journal of ${label}`}
               actions={[<Button key="close" variant="primary" onClick={onClose}>Close</Button>]}>
            {loaded.error && <Alert variant="danger" isInline title="Cannot read the journal">
                {loaded.error}</Alert>}
            {loaded.value === null && !loaded.error && <Spinner size="lg" />}
            {loaded.value !== null &&
                <pre id="tessary-journal" className="tessary-journal">
                    {loaded.value.trim() || "No journal lines for this service."}
                </pre>}
        </Modal>
    );
}
