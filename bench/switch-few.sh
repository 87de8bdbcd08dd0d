#!/usr/bin/env bash
# "enable" then "disable" with whole tessaryctl processes beside
# "systemctl --user start" then "stop" of an equivalent unit, with the small
# app of the end-to-end tests (three services), where the synchronisation
# after each switch asks about three services rather than a hundred. Inside
# daemon-sandbox.sh; prints the median of five rounds of 20 pairs each.
#   switch-few.sh BUILD
set -euo pipefail
ctl="$1/tessaryctl"
printf '[Service]\nType=exec\nExecStart=/bin/sleep 1000\n' >/run/systemd/system/tessary-few-ctl.service
systemctl --user daemon-reload

pair_ms() {
    local s e
    s=$(date +%s%N)
    for _ in $(seq 20); do "$@"; done
    e=$(date +%s%N)
    echo $(((e - s) / 20000))
}
median() { sort -n | sed -n 3p; }
ours() { "$ctl" enable com.example.probe >/dev/null && "$ctl" disable com.example.probe >/dev/null; }
theirs() { systemctl --user start tessary-few-ctl && systemctl --user stop tessary-few-ctl; }

a=$(for _ in 1 2 3 4 5; do pair_ms ours; done | median)
b=$(for _ in 1 2 3 4 5; do pair_ms theirs; done | median)
echo "switch_few_tessaryctl_us $a"
echo "switch_few_systemctl_us $b"
