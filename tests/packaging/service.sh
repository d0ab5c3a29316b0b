#!/usr/bin/env bash
# service.sh BUILD: the unit as it is shipped, under a real service manager: the agent does all its work with
# what the unit leaves it, comes back after a crash, and stays away when its settings are wrong.
#
# The manager is an instance of systemd for a user, so that it needs not be the machine's first process. It
# runs in a mount namespace, control groups and folders of the script's own; the agent sees the script's scope
# only.
. "$(dirname "$0")/lib.sh"

if [[ ${2:-} != inside ]]; then
    ((EUID == 0)) || skip "mounting needs root"
    exec unshare --mount --propagation private "$0" "$1" inside
fi

BUILD=$1
SOURCE=$(cd "$(dirname "$0")/../.." && pwd)
GROUP_MOUNT=$(awk '/ - cgroup2 /{print $5; exit}' /proc/self/mountinfo)
[[ -n $GROUP_MOUNT ]] || skip "no control group file system (v2) is mounted"
mount -t tmpfs -o mode=0755 corvalent-service /run || skip "nothing can be mounted here"

WORK=$(mktemp -d /tmp/corvalent-service-XXXXXX)
ROOT=$WORK/root
NAME=corvalent-service-$$
SCOPE=$GROUP_MOUNT/$NAME-scope
WATCHDOG_S=4
# Where the manager keeps its services: the unified hierarchy and, beside it, systemd's own older one.
HIERARCHIES=("$GROUP_MOUNT")
[[ ! -d /sys/fs/cgroup/systemd ]] || HIERARCHIES+=(/sys/fs/cgroup/systemd)

# ---- the manager ------------------------------------------------------------------------------------

# A manager takes every process of its own group for its own: it begins in one where there is no other.
start_manager() {
    export XDG_RUNTIME_DIR=$WORK/run HOME=$WORK/home SYSTEMD_UNIT_PATH=$WORK/units SYSTEMD_LOG_TARGET=console
    unset DBUS_SESSION_BUS_ADDRESS
    # What a manager asks for before it serves anybody.
    mkdir -p /run/systemd/system
    (
        for hierarchy in "${HIERARCHIES[@]}"; do
            echo 0 >"$hierarchy/$NAME/cgroup.procs"
        done
        exec /lib/systemd/systemd --user </dev/null >"$WORK/manager.log" 2>&1
    ) &
    MANAGER=$!
    until_true test -S "$XDG_RUNTIME_DIR/systemd/private" || fail "no manager: $(cat "$WORK/manager.log")"
}

clean_up() {
    stop_manager
    echo 1 >"$SCOPE/cgroup.kill" || true
    for group in "$SCOPE" "${HIERARCHIES[@]/%//$NAME}"; do
        until_true remove_groups "$group" || echo "$group cannot be removed" >&2
    done
    rm -rf "$WORK"
} 2>/dev/null

stop_manager() {
    [[ -n ${MANAGER:-} ]] || return 0
    systemctl --user stop corvalent.service || true
    # At once: there is no exit.target here.
    systemctl --user --force exit || true
    until_true manager_has_ended || kill -KILL "$MANAGER"
    wait "$MANAGER" || true
}
manager_has_ended() { ! kill -0 "$MANAGER"; }
remove_groups() { [[ ! -d $1 ]] || find "$1" -depth -type d -exec rmdir {} +; }

service() { timeout 90 systemctl --user "$1" corvalent.service || fail "$1: $(systemctl --user status corvalent.service)"; }
property() { systemctl --user show -P "$1" corvalent.service; }
property_is() { [[ $(property "$1") == "$2" ]]; }
pid() { property MainPID; }
of_process() { sed -n "s/^$1:[[:space:]]*//p" "/proc/$(pid)/status"; }

count_bits() {
    local bits=$((16#$1)) count=0
    for (( ; bits; bits >>= 1)); do
        count=$((count + (bits & 1)))
    done
    echo $count
}

# ---- the agent --------------------------------------------------------------------------------------

ctl() { "$ROOT/bin/corvalentctl" --root "$ROOT" "$@"; }
status_is() { [[ $(ctl status --json 2>/dev/null | jq -r "$1") == "$2" ]]; }

make_root() {
    mkdir -p "$ROOT"/{conf,run} "$WORK"/{units,run,home,programs,watched}
    chmod 0700 "$WORK/run"
    for folder in bin lib module; do
        ln -s "$BUILD/root/$folder" "$ROOT/$folder"
    done
    printf '{"scope": {"cgroup": "/%s"}, "log": {"level": "debug"}}' "$NAME-scope" >"$ROOT/conf/agent.json"
    # Trusted programs that nobody runs, so that there are enough for blocking; the learning period has passed.
    jq -nc '{process_info: [range(60) | {name: "p\(.)", path: "/nowhere/p\(.)", hash: "h\(.)", size: 1, type: 1}]}' \
        >"$ROOT/conf/whitelist.data"
    printf '[Driver]\nLearnTime=43200\nLearnMod=2\n' >"$ROOT/conf/modwhitelist.ini"
}

# Other folders than those of the package, and shorter times; all else is the unit's own.
make_units() {
    sed "s|^ExecStart=.*|ExecStart=$ROOT/bin/corvalentd --root $ROOT|
        s|^WatchdogSec=.*|WatchdogSec=$WATCHDOG_S|; s|^RestartSec=.*|RestartSec=1|" \
        "$SOURCE/packaging/corvalent.service" >"$WORK/units/corvalent.service"
    for target in default basic shutdown; do
        printf '[Unit]\nDefaultDependencies=no\n' >"$WORK/units/$target.target"
    done
}

# apply_policy CONTENT: members of the policy's content, besides those that every policy has.
apply_policy() {
    printf '{"module_name": "whitelist_module", "feature_name": "whitelist_feature", "enabled": "enabled",
        "content": {"learning_days": 7, "action_block": true, "process_manager_task": {"task_condition": {}},
        "learn_status_check_task": {"task_condition": {}}, %s}}' "$1" | ctl policy apply - >/dev/null
}

is_detecting() { status_is '.mode == 3 and .lists.local == 60 and .counters["events.subscribed"] >= 3' true; }
expect_detecting() { until_true is_detecting || fail "$1: it does not detect: $(ctl status)"; }

# expect_killed WHAT PROGRAM ARGUMENT…: the program, a variant that nobody knows, ends by the agent's hand.
expect_killed() {
    local what=$1 program=$WORK/programs/$2-$RANDOM$RANDOM outcome
    { cat "/usr/bin/$2" && echo "$program"; } >"$program"
    chmod 0755 "$program"
    read -r _ outcome _ < <("$BUILD/tests/start_in_scope" "$SCOPE" 20000 "$program" "${@:3}" </dev/null)
    expect "$what" killed "$outcome"
    expect "$what: mode of its file" 400 "$(stat -c %a "$program")"
}

# ---- what is seen -----------------------------------------------------------------------------------

trap clean_up EXIT
mkdir "$SCOPE" "${HIERARCHIES[@]/%//$NAME}"
make_root
make_units
start_manager

echo "== it becomes ready with what the unit leaves it"
service start
expect "no new privileges" 1 "$(of_process NoNewPrivs)"
expect "filter of system calls" 2 "$(of_process Seccomp)"
expect "capabilities" "$(of_process CapBnd)" "$(of_process CapEff)"
expect "number of capabilities" 6 "$(count_bits "$(of_process CapEff)")"
for namespace in mnt pid net; do
    expect "$namespace namespace" "$(readlink "/proc/self/ns/$namespace")" "$(readlink "/proc/$(pid)/ns/$namespace")"
done

echo "== it detects and kills programs, and readers of watched files"
apply_policy '"auto_detect": false, "full_proc_task": {"task_condition": {"period": 1}}'
until_true status_is '.lists.local' 60 || fail "the lists are not loaded: $(ctl status)"
ctl detect start >/dev/null
expect_detecting "policy"
expect_killed "an unknown program" sleep 60
echo content >"$WORK/watched/file"
apply_policy '"dir_mod": true, "dirs": ["'"$WORK/watched"'"], "exts": [], "specified_file_audit_task": {"task_condition": {}}'
until_true status_is '"\(.files.marks) \(.mode)"' "1 3" || fail "it does not watch: $(ctl status)"
expect_killed "an unknown reader" tail -f "$WORK/watched/file"
expect "what was not permitted" "" "$(grep 'not permitted' "$ROOT/log/corvalent.log" || true)"

# expect_restarted TIMES: it runs again, and detects.
expect_restarted() {
    until_true property_is NRestarts "$1" || fail "it is not started again"
    until_true property_is ActiveState active || fail "it does not become ready again"
    until_true status_is '"\(.mode) \(.files.marks)"' "3 1" || fail "it does not detect again: $(ctl status)"
}

echo "== it comes back after a crash, and detects again"
kill -SEGV "$(pid)"
expect_restarted 1

echo "== while it is alive the watchdog leaves it alone; when it hangs it is started anew"
has_been_up() { status_is ".uptime_seconds > $1" true; }
until_true has_been_up $((WATCHDOG_S + 1)) || fail "it is not left alone: $(systemctl --user status corvalent.service)"
kill -STOP "$(pid)"
expect_restarted 2

echo "== it stops in order"
service stop
expect "result" success "$(property Result)"
expect "status" 0 "$(property ExecMainStatus)"

echo "== wrong settings do not heal by trying again"
echo '{"unknown": 1}' >"$ROOT/conf/agent.json"
! timeout 90 systemctl --user start corvalent.service 2>/dev/null || fail "it started"
expect "state" failed "$(property ActiveState)"
expect "status" 78 "$(property ExecMainStatus)"
expect "restarts" 0 "$(property NRestarts)"

echo "== the unit leaves the agent what it needs"
