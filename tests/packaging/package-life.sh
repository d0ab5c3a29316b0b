#!/usr/bin/env bash
# package-life.sh BUILD: installs, upgrades, removes and purges the package of a build tree with dpkg, the
# service running and detecting, and looks at what is kept and what goes.
#
# All of it happens in a layer over this machine's own system, in a mount namespace that ends with the
# script: the machine itself stays as it is. The agent sees one control group only, the script's own.
. "$(dirname "$0")/lib.sh"

if [[ ${2:-} != inside ]]; then
    ((EUID == 0)) || skip "mounting needs root"
    exec unshare --mount --propagation private "$0" "$1" inside
fi

BUILD=$1
HERE=$(cd "$(dirname "$0")" && pwd)
GROUP_MOUNT=$(awk '/ - cgroup2 /{print $5; exit}' /proc/self/mountinfo)
[[ -n $GROUP_MOUNT ]] || skip "no control group file system (v2) is mounted"

# ---- the layer --------------------------------------------------------------------------------------

LAYER=$(mktemp -d /tmp/corvalent-life-XXXXXX)
SYSTEM=$LAYER/system
GROUP=$GROUP_MOUNT/corvalent-life-$$

clean_up() {
    echo 1 >"$GROUP/cgroup.kill" || true
    until_true rmdir "$GROUP" || echo "$GROUP cannot be removed" >&2
    # What the daemon's stand-in of systemctl started, and only that.
    [[ ! -e $SYSTEM/tmp/service.pid ]] || kill -KILL "$(cat "$SYSTEM/tmp/service.pid")" || true
    umount --recursive --lazy "$LAYER"
    rmdir "$LAYER"
} 2>/dev/null

mount -t tmpfs -o mode=0755 corvalent-life "$LAYER" || skip "nothing can be mounted here"
mkdir "$GROUP"
trap clean_up EXIT
mkdir "$LAYER"/{upper,work,system}
mount -t overlay -o "lowerdir=/,upperdir=$LAYER/upper,workdir=$LAYER/work" corvalent-life "$SYSTEM" ||
    skip "no overlay can be mounted over this system"
for folder in proc sys dev; do
    mount --rbind "/$folder" "$SYSTEM/$folder"
done
for folder in run tmp; do
    mount -t tmpfs -o mode=1777 corvalent-life "$SYSTEM/$folder"
done
# No other service is to be touched, and the index of all manual pages is not what this is about.
rm -f "$SYSTEM/usr/sbin/policy-rc.d" "$SYSTEM/var/lib/man-db/auto-update"
[[ ! -e $SYSTEM/usr/local/corvalent ]] || fail "/usr/local/corvalent is there: this machine has an agent of its own"
mv "$SYSTEM/usr/bin/systemctl" "$SYSTEM/usr/bin/systemctl.real"
install -m 0755 "$HERE/systemctl.sh" "$SYSTEM/usr/bin/systemctl"
# What maintainer scripts take for a running systemd.
mkdir -p "$SYSTEM/run/systemd/system"

system() {
    chroot "$SYSTEM" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"
}

# Becomes a program inside the scope, for use in the background.
in_scope() {
    echo 0 >"$GROUP/cgroup.procs"
    exec chroot "$SYSTEM" "$@" </dev/null >/dev/null 2>&1
}

# ---- packages ---------------------------------------------------------------------------------------

make_packages() {
    find_package "$BUILD/package"
    cp "$PACKAGE" "$SYSTEM/tmp/new.deb"
    # An earlier one, with other settings.
    dpkg-deb -R "$PACKAGE" "$LAYER/old"
    sed -i 's/^Version: .*/Version: 0.0.1~earlier/' "$LAYER/old/DEBIAN/control"
    echo '{"log": {"level": "notice"}}' >"$LAYER/old/etc/corvalent/agent.json"
    dpkg-deb --root-owner-group -Znone -b "$LAYER/old" "$SYSTEM/tmp/old.deb" >/dev/null
}

# dpkg_quietly ARGUMENT…: shows what it said only when it fails.
dpkg_quietly() { system dpkg "$@" >"$LAYER/dpkg.log" 2>&1 </dev/null || fail "dpkg $*: $(cat "$LAYER/dpkg.log")"; }

state_of_package() { system dpkg-query -W -f '${db:Status-Status} ${Version}' corvalent; }

# ---- the service ------------------------------------------------------------------------------------

# Without --root, as an operator would.
ctl() { system corvalentctl "$@"; }
status() { ctl status --json 2>/dev/null | jq -r "$1"; }
status_is() { [[ $(status "$1") == "$2" ]]; }
pid() { cat "$SYSTEM/tmp/service.pid" 2>/dev/null || echo none; }
is_running() { [[ $(pid) != none ]] && kill -0 "$(pid)"; }
# What systemctl was asked for since the last call; questions change nothing and are left out.
requests() {
    local file=$SYSTEM/tmp/service.requests
    [[ -e $file ]] || return 0
    tr '\n' ' ' <"$file" | sed 's/is-enabled //g; s/is-active //g; s/ $//'
    rm "$file"
}
has_alerts() { (($(ctl alerts --json | wc -l) >= $1)); }

# Character devices are how the layer says that a file of the system below is gone; the manual pages' cache is
# man's.
list_leftovers() { find "$LAYER/upper" -path '*/var/cache/man' -prune -o -name '*corvalent*' ! -type c -print; }

mode_of() { stat -c '%a %U' "$SYSTEM/$1"; }
is_there() { [[ -e $SYSTEM/$1 || -L $SYSTEM/$1 ]]; }

expect_running() {
    is_running || fail "$1: the service does not run: $(cat "$SYSTEM/tmp/service.errors")"
    status_is .version "$(status .version)" || fail "$1: the service does not answer"
}

# The module watches once its event task has subscribed to the three kinds of event.
expect_watching() {
    until_true status_is '.counters["events.subscribed"] >= 3' true || fail "the module does not watch: $(status .)"
}

# What the operator and the agent made out of the installation.
expect_state_kept() {
    expect_running "$1"
    expect "$1: settings" "$SETTINGS" "$(cat "$SYSTEM/etc/corvalent/agent.json")"
    until_true status_is '"\(.mode) \(.desired_detect)"' "3 true" || fail "$1: detection is not back: $(status .)"
    until_true status_is '.lists.local > 0' true || fail "$1: the local list is not loaded: $(status .)"
    expect "$1: policy" life-1 "$(status .policy.hash)"
    expect "$1: trusted programs" "$TRUSTED" "$(ctl trust list --json | jq -r .path | sort)"
    expect "$1: alerts" "$ALERTS" "$(ctl alerts --json | jq -c .id | head -n "$(wc -l <<<"$ALERTS")")"
}

# ---- the life of the package ------------------------------------------------------------------------

make_packages

echo "== a first install enables and starts the service"
dpkg_quietly -i /tmp/old.deb
expect "package" "installed 0.0.1~earlier" "$(state_of_package)"
expect "requests" "preset daemon-reload start" "$(requests)"
expect "enabled" "/lib/systemd/system/corvalent.service" \
    "$(readlink "$SYSTEM/etc/systemd/system/multi-user.target.wants/corvalent.service")"
expect "default root" /usr/lib/corvalent "$(readlink "$SYSTEM/usr/local/corvalent")"
expect_running "install"
for folder in etc/corvalent var/lib/corvalent var/log/corvalent run/corvalent; do
    expect "mode of /$folder" "700 root" "$(mode_of "$folder")"
done
[[ -S $SYSTEM/run/corvalent/agent.sock ]] || fail "no socket in /run/corvalent"
expect "verify of the unit" "" "$(system systemd-analyze verify /lib/systemd/system/corvalent.service 2>&1)"
system man -w 8 corvalentctl corvalentd >/dev/null
system bash -c '. /usr/share/bash-completion/bash_completion; _completion_loader corvalentctl; complete -p corvalentctl' \
    >/dev/null

echo "== it is set up, learns, detects"
SETTINGS='{"scope": {"cgroup": "'${GROUP#"$GROUP_MOUNT"}'"}}'
echo "$SETTINGS" >"$SYSTEM/etc/corvalent/agent.json"
system systemctl restart corvalent.service
cat >"$SYSTEM/tmp/policy.json" <<'JSON'
{"module_name": "whitelist_module", "feature_name": "whitelist_feature", "enabled": "enabled", "feature_hash": "life-1",
 "content": {"learning_days": 1, "action_block": false, "auto_detect": false,
  "full_proc_task": {"task_condition": {"period": 1}},
  "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}}}}
JSON
ctl policy apply /tmp/policy.json >/dev/null
expect "scope" "${GROUP#"$GROUP_MOUNT"}" "$(status .scope)"
expect_watching
in_scope /usr/bin/sleep 300 &
disown
has_learned_sleep() { ctl trust list --json | jq -r .path | grep -qx '.*/sleep'; }
until_true has_learned_sleep || fail "the agent does not learn: $(status .)"
# The learning period counts as passed.
system systemctl stop corvalent.service
sed -i 's/^LearnTime.*/LearnTime=1440/; s/^LearnMod.*/LearnMod=2/' "$SYSTEM/etc/corvalent/modwhitelist.ini"
system systemctl start corvalent.service
until_true status_is .mode 2 || fail "learning is not complete: $(status .)"
expect_watching
until_true status_is '.lists.local > 0' true || fail "the local list is not loaded: $(status .)"
ctl detect start >/dev/null
{ cat "$SYSTEM/usr/bin/sleep" && echo unknown; } >"$SYSTEM/tmp/unknown"
chmod 0755 "$SYSTEM/tmp/unknown"
in_scope /tmp/unknown 300 &
disown
until_true has_alerts 1 || fail "no alert about an unknown program: $(status .)"
TRUSTED=$(ctl trust list --json | jq -r .path | sort)
ALERTS=$(ctl alerts --json | jq -c .id)
expect_state_kept "set up"
requests >/dev/null

echo "== an upgrade replaces the program under the running service and keeps all state"
before=$(pid)
dpkg_quietly -i --force-confold /tmp/new.deb
expect "requests" "daemon-reload restart" "$(requests)"
[[ $(pid) != "$before" ]] || fail "the old program still runs"
expect_state_kept "upgrade"
is_there etc/corvalent/agent.json.dpkg-dist || fail "the package's own settings are not beside those of the operator"

echo "== installing the same again changes nothing"
dpkg_quietly -i /tmp/new.deb
expect_state_kept "the same again"
requests >/dev/null

echo "== a disabled and stopped service stays so in an upgrade"
system systemctl --quiet disable corvalent.service
system systemctl stop corvalent.service
dpkg_quietly -i /tmp/new.deb
! is_running || fail "a disabled service was started"
system systemctl --quiet enable corvalent.service
system systemctl start corvalent.service
expect_state_kept "enabled again"
requests >/dev/null

echo "== a removal stops the service and keeps what it learned and reported"
before=$(pid)
dpkg_quietly --remove corvalent
expect "requests" "stop daemon-reload" "$(requests)"
! kill -0 "$before" 2>/dev/null || fail "the service still runs"
for gone in usr/lib/corvalent usr/local/corvalent usr/sbin/corvalentd usr/bin/corvalentctl run/corvalent \
    lib/systemd/system/corvalent.service; do
    ! is_there "$gone" || fail "/$gone is still there"
done
for kept in etc/corvalent/agent.json etc/corvalent/policy.json etc/corvalent/desired.json etc/corvalent/whitelist.data \
    var/lib/corvalent/reports.db var/log/corvalent/corvalent.log; do
    is_there "$kept" || fail "/$kept is gone"
done

echo "== an install after that goes on where the removal stopped it"
dpkg_quietly -i --force-confold /tmp/new.deb
expect_state_kept "install after a removal"

echo "== a purge leaves nothing"
dpkg_quietly --purge corvalent
expect "what is left" "" "$(list_leftovers)"
! is_there run/corvalent || fail "/run/corvalent is still there"
! state_of_package >/dev/null 2>&1 || fail "dpkg still knows the package: $(state_of_package)"
requests >/dev/null

echo "== without systemd it installs, says what it cannot do, and goes"
rmdir "$SYSTEM/run/systemd/system"
mkdir "$SYSTEM/usr/local/corvalent"
dpkg_quietly -i /tmp/new.deb
grep -q 'use corvalentctl --root /usr/lib/corvalent' "$LAYER/dpkg.log" || fail "no word about the root that was there"
expect "requests" "preset" "$(requests)"
# The maintainer scripts may be run again at any time.
system /var/lib/dpkg/info/corvalent.postinst configure "" 2>/dev/null
expect "mode of /run/corvalent" "700 root" "$(mode_of run/corvalent)"
dpkg_quietly --purge corvalent
expect "starts and stops" "" "$(requests | grep -Eo 'start|stop' || true)"
[[ -d $SYSTEM/usr/local/corvalent ]] || fail "somebody else's /usr/local/corvalent is gone"
rmdir "$SYSTEM/usr/local/corvalent"
expect "what is left" "" "$(list_leftovers)"

echo "== nothing is lost in the life of the package"
