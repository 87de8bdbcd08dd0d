// The page drives the daemon the way an administrator does: through
// tessaryctl, run by Cockpit's bridge. Commands that need the right run with
// administrative access ("require"), so that the daemon sees a process of
// root; the status is open to everyone and runs as the user when the
// session has no administrative access ("try").
/* global cockpit */

// Why a command failed, in a sentence: tessaryctl's own line when it wrote
// one, else what Cockpit says of the process.
export function failureText(error) {
    const text = (error && error.message) || String(error);
    return text.replace(/^tessaryctl: /, "").trim();
}

// The exit status tessaryctl gives when the daemon is not there or did not
// answer, and when it does not know a command.
export const EXIT_UNREACHABLE = 2;
const EXIT_USAGE = 64;

function run(args, { superuser = "require", input = null } = {}) {
    const process = cockpit.spawn(["tessaryctl", ...args], { superuser, err: "message" });
    if (input !== null) {
        process.input(input);
    }
    return process;
}

async function runJson(args, options) {
    const output = await run(["--json", ...args], options);
    return output.trim() ? JSON.parse(output) : {};
}

// What the translation would make of a definition, asking nothing of the
// daemon: {label, runs, units, findings}. It answers 1 with its findings
// when it would refuse the job. Null when this tessaryctl cannot check.
async function check(xml) {
    let output = "";
    const process = cockpit.spawn(["tessaryctl", "--json", "check", "--file", "-"],
                                  { superuser: "try", err: "message" });
    process.stream(chunk => { output += chunk });
    process.input(xml);
    try {
        await process;
    } catch (e) {
        if (e.exit_status === EXIT_USAGE)
            return null;
        if (e.exit_status !== 1 || !output.trim())
            throw e;
    }
    return JSON.parse(output);
}

export const tessaryctl = {
    status: () => runJson(["status"], { superuser: "try" }),
    list: () => runJson(["list"]),
    show: label => runJson(["show", label]),
    enable: label => runJson(["enable", label]),
    disable: label => runJson(["disable", label]),
    reset: label => runJson(["reset", label]),
    programArguments: label => runJson(["program-arguments", label]),
    setProgramArguments: (label, values) => runJson(["program-arguments", label, "--", ...values]),
    // The readable form of sockets and calendar start times is their XML.
    sockets: label => run(["sockets", label]),
    setSockets: (label, xml) => runJson(["sockets", label, "--file", "-"], { input: xml }),
    calendar: label => run(["start-calendar-intervals", label]),
    setCalendar: (label, xml) =>
        runJson(["start-calendar-intervals", label, "--file", "-"], { input: xml }),
    check,
    create: xml => runJson(["create", "--file", "-"], { input: xml }),
    destroy: label => runJson(["destroy", label]),
    // tessaryctl stays the promoting process while the set-up command runs,
    // and ends the promotion when it succeeds.
    promote: () => run(["promote", "--", "true"]),
    demote: () => runJson(["demote"]),
};
