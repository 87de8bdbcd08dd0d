# Shell functions that build the daemon's sandbox inside the namespace that
# tests/systemd/with-systemd.sh makes (private /run, a real systemd at the
# system manager's fixed addresses). Sourced by daemon-sandbox.sh and by the
# demo; nothing here touches the host.

sandbox_fail() {
    echo "sandbox: $*" >&2
    exit 70
}

# Private tmpfs over everything the daemon writes outside /run.
sandbox_private_dirs() {
    local dir
    for dir in /Applications /Library /var/db /etc/tessary; do
        mkdir -p "$dir"
        mount -t tmpfs -o mode=0755 tmpfs "$dir" || sandbox_fail "cannot mount a tmpfs over $dir"
    done
}

# A private system bus at /run/dbus/system_bus_socket with polkitd on it; the
# project's action (POLICY) is installed beside the system's, and a rule lets
# the user "daemon" hold it. Sets SANDBOX_PIDS.
sandbox_system_bus() {
    local policy=$1 work=/run/tessary-sandbox
    mkdir -p "$work/actions" "$work/rules" /run/dbus /etc/polkit-1/rules.d
    cp /usr/share/polkit-1/actions/*.policy "$work/actions/" 2>/dev/null || true
    cp "$policy" "$work/actions/"
    cat >"$work/rules/50-tessary-test.rules" <<'RULES'
polkit.addRule(function(action, subject) {
    if (action.id == "com.orvane.tessaryd.admin" && subject.user == "daemon") {
        return polkit.Result.YES;
    }
});
RULES
    mount --bind "$work/actions" /usr/share/polkit-1/actions
    mount --bind "$work/rules" /etc/polkit-1/rules.d
    cat >"$work/system-bus.conf" <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
    dbus-daemon --config-file="$work/system-bus.conf" --nofork --nopidfile 2>/dev/null &
    SANDBOX_PIDS+=($!)
    local _
    for _ in $(seq 100); do
        [[ -S /run/dbus/system_bus_socket ]] && break
        sleep 0.05
    done
    /usr/lib/polkit-1/polkitd --no-debug >"$work/polkitd.log" 2>&1 &
    SANDBOX_PIDS+=($!)
    sandbox_wait_for_name org.freedesktop.PolicyKit1 ||
        sandbox_fail "polkitd did not come up: $(cat "$work/polkitd.log")"
}

sandbox_wait_for_name() {
    local _
    for _ in $(seq 100); do
        busctl --address=unix:path=/run/dbus/system_bus_socket list 2>/dev/null | grep -q "$1" &&
            return 0
        sleep 0.05
    done
    return 1
}

# The app bundle BUNDLE at /Applications/Tessary.app with DAEMON inside it,
# root's alone as an installed app is (the daemon takes nothing from it that
# others may change), whoever owns the checkout.
sandbox_app() {
    local bundle=$1 daemon=$2
    cp -a "$bundle" /Applications/Tessary.app
    mkdir -p /Applications/Tessary.app/Contents/Library/LaunchServices
    cp "$daemon" /Applications/Tessary.app/Contents/Library/LaunchServices/com.orvane.tessaryd
    chown -R root:root /Applications/Tessary.app
    chmod -R go-w /Applications/Tessary.app
}

# Waits until the daemon's socket is there.
sandbox_wait_for_daemon() {
    local _
    for _ in $(seq 200); do
        [[ -S /run/tessaryd/com.orvane.tessaryd ]] && return 0
        sleep 0.05
    done
    return 1
}

sandbox_stop() {
    kill "${SANDBOX_PIDS[@]}" 2>/dev/null
    wait 2>/dev/null
}

SANDBOX_PIDS=()

# The system-log lines of everything in the namespace, appended to FILE as
# "IDENT: TEXT" (with --priority "<PRIORITY>IDENT: TEXT"): a private /dev
# (the host's nodes bound back one by one) with a datagram socket at /dev/log.
sandbox_syslog() {
    local file=$1 priority=${2:-} host=/run/tessary-sandbox/hostdev entry name
    mkdir -p "$host"
    mount --rbind /dev "$host"  # with its submounts: /dev/pts for terminals
    mount -t tmpfs -o mode=0755 tmpfs /dev
    for entry in "$host"/*; do
        name="${entry##*/}"
        if [[ -L "$entry" ]]; then
            cp -P "$entry" "/dev/$name"
        elif [[ -d "$entry" ]]; then
            mkdir -p "/dev/$name" && mount --bind "$entry" "/dev/$name"
        elif [[ "$name" == ptmx ]]; then
            # Terminals come from the devpts beside it, which a bound device
            # node cannot find.
            ln -s pts/ptmx /dev/ptmx
        elif [[ "$name" != log ]]; then
            touch "/dev/$name" && mount --bind "$entry" "/dev/$name"
        fi
    done
    : >"$file"
    python3 - "$file" "$priority" <<'PY' &
import re, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("/dev/log")
form = re.compile(rb"(<\d+>)\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)(?:\[\d+\])?: ?(.*)", re.S)
keep = sys.argv[2] == "--priority"
with open(sys.argv[1], "ab", buffering=0) as out:
    while True:
        line = s.recv(65536)
        m = form.match(line)
        # One line per event: "ident: text".
        if m:
            line = (m.group(1) if keep else b"") + m.group(2) + b": " + m.group(3)
        out.write(line.rstrip(b"\n") + b"\n")
PY
    SANDBOX_PIDS+=($!)
    local _
    for _ in $(seq 100); do
        [[ -S /dev/log ]] && return 0
        sleep 0.05
    done
    sandbox_fail "no log socket"
}

# A throw-away layer over /usr, so that the project's helper commands can be
# put in /usr/lib/tessary/bin without touching the host.
sandbox_overlay_usr() {
    local top=/run/tessary-sandbox/usr
    mkdir -p "$top/upper" "$top/work"
    mount -t overlay overlay -o "lowerdir=/usr,upperdir=$top/upper,workdir=$top/work" /usr ||
        sandbox_fail "cannot lay an overlay over /usr"
}
