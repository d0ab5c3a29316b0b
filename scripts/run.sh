#!/usr/bin/env bash
# The agent's main job, seen on this machine:
#
#   scripts/run.sh          learns this machine's programs, starts detection, and runs programs that
#                           should and should not pass, first wherever they run, then where they read a
#                           watched folder, inside a root directory and a control group of its own;
#                           prints a table and exits 0 only if every row came out right.
#   scripts/run.sh --host   runs the agent on the whole host in learning mode, never blocking, with a
#                           live status line, until Ctrl-C. It keeps nothing.
. "$(dirname "$0")/lib/common.sh"

BUILD=${BUILD_DIR:-build}
DEADLINE_S=20
# What a program is given to live when nothing kills it.
PATIENCE_MS=1500

# until_true COMMAND…: waits for the command to succeed; fails at the deadline.
until_true() {
    local end=$((SECONDS + DEADLINE_S))
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.05
    done
}

# ---- preparing and cleaning up ----------------------------------------------------------------------

build_all() {
    scripts/install-deps.sh
    scripts/build.sh "$BUILD"
}

make_root() {
    WORK=$(mktemp -d /tmp/corvalent-run-XXXXXX)
    ROOT=$WORK/root
    PROGRAMS=$WORK/programs
    mkdir -p "$PROGRAMS"
    cmake --install "$BUILD" --prefix "$ROOT" >/dev/null
    mkdir -p "$ROOT/conf"
}

make_scope() {
    local mount
    mount=$(awk '/ - cgroup2 /{print $5; exit}' /proc/self/mountinfo)
    [[ -n $mount ]] || fail "no control group file system (v2) is mounted"
    GROUP_NAME=/corvalent-run-$$
    GROUP=$mount$GROUP_NAME
    mkdir "$GROUP"
    printf '{"scope": {"cgroup": "%s"}}\n' "$GROUP_NAME" >"$ROOT/conf/agent.json"
}

# Only what this script started: the agent, the HTTP server, and the processes of its own group.
clean_up() {
    [[ -z ${LEARN_FD:-} ]] || exec {LEARN_FD}>&-
    stop_agent || true
    [[ -z ${HTTP_PID:-} ]] || { exec {HTTP_FD}>&- && wait "$HTTP_PID"; } 2>/dev/null || true
    if [[ -n ${GROUP:-} && -d $GROUP ]]; then
        kill_scope
        until_true rmdir "$GROUP" 2>/dev/null || say "run.sh: cannot remove $GROUP"
    fi
    [[ -z ${WORK:-} ]] || rm -rf "$WORK"
}

# Ends every process of this script's own control group.
kill_scope() { echo 1 >"$GROUP/cgroup.kill"; }

ctl() { "$ROOT/bin/corvalentctl" --root "$ROOT" "$@"; }
status() { ctl status --json | jq -r "$1"; }
status_is() { [[ $(status "$1") == "$2" ]]; }

# The module watches once its event task has subscribed to the three kinds of event.
subscriptions() { status '.counters["events.subscribed"] // 0'; }
watches_since() { (($(subscriptions) >= $1 + 3)); }

# apply_policy BLOCK [FOLDER]: delivers the policy and waits until its tasks watch.
apply_policy() {
    local before
    before=$(subscriptions)
    policy "$@" >"$WORK/policy.json"
    ctl policy apply "$WORK/policy.json" >/dev/null
    until_true watches_since "$before" || fail "the agent does not watch after a policy"
}

start_agent() {
    "$ROOT/bin/corvalentd" --root "$ROOT" 2>"$WORK/agent.err" &
    AGENT_PID=$!
    until_true agent_is_ready || fail "the agent did not become ready: $(cat "$WORK/agent.err")"
}

agent_is_ready() {
    kill -0 "$AGENT_PID" 2>/dev/null || fail "the agent ended: $(cat "$WORK/agent.err")"
    ctl status >/dev/null 2>&1
}

stop_agent() {
    [[ -n ${AGENT_PID:-} ]] || return 0
    kill -TERM "$AGENT_PID" 2>/dev/null || true
    wait "$AGENT_PID" || true
    AGENT_PID=
}

# policy BLOCK [FOLDER]: the feature policy as the server would send it; with a folder, that for
# directory mode.
policy() {
    local mode
    if (($# > 1)); then
        mode='"dir_mod": true, "dirs": ["'$2'"], "exts": [], "specified_file_audit_task": {"task_condition": {}}'
    else
        mode='"dir_mod": false, "auto_detect": false, "scan_period_seconds": 3600,
    "full_proc_task": {"task_condition": {"period": 1}}'
    fi
    cat <<JSON
{"module_name": "whitelist_module", "feature_name": "whitelist_feature", "enabled": "enabled",
  "feature_hash": "run-block-$*",
  "content": {"learning_days": 7, "action_block": $1, $mode,
    "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}}}}
JSON
}

# ---- learning ---------------------------------------------------------------------------------------

# Programs of this machine that do nothing but wait for their standard input.
READERS="cat tac sort uniq wc tr cut head tail nl od md5sum sha1sum sha224sum sha256sum sha384sum sha512sum
    b2sum base32 base64 basenc cksum sum fold fmt expand unexpand paste rev tee sed awk mawk gawk grep
    gzip bzip2 xz dd comm join pr ptx shuf split tsort numfmt xargs hexdump column col colrm more iconv
    perl bash dash nohup env nice stdbuf timeout setsid ionice chrt taskset flock cmp diff
    csplit factor zcat strings cpp c++filt openssl sqlite3 jq m4 as xxd bc dc"

# The arguments with which a reader waits for its standard input.
reader_arguments() {
    case $1 in
    tr) echo "a b" ;;
    cut) echo "-c1" ;;
    sed | awk | mawk | gawk | grep) echo "x" ;;
    comm | join) echo "- -" ;;
    csplit) echo "- 1" ;;
    split) echo "-" ;;
    cmp | diff) echo "- /etc/passwd" ;;
    xz | bzip2 | gzip) echo "-c" ;;
    nohup | env | nice | stdbuf | timeout | setsid | ionice | chrt | taskset | flock) wrapper_arguments "$1" ;;
    openssl) echo "dgst -sha256" ;;
    colrm) echo "1" ;;
    jq) echo "." ;;
    *) ;;
    esac
}

wrapper_arguments() {
    case $1 in
    stdbuf) echo "-o0 cat" ;;
    timeout) echo "30 cat" ;;
    *) ;;
    esac
}

# Starts each program inside the scope; all wait for the one pipe that stays open until all were
# learned.
start_readers() {
    local program path count=0
    mkfifo "$WORK/stdin"
    exec {LEARN_FD}<>"$WORK/stdin"
    # Some leave files where they run.
    mkdir "$WORK/scratch"
    pushd "$WORK/scratch" >/dev/null
    for program in $READERS; do
        path=$(type -P "$program") || continue
        read -ra arguments <<<"$(reader_arguments "$program")"
        "$START" "$GROUP" 20000 "$path" "${arguments[@]}" <"$WORK/stdin" >/dev/null 2>&1 &
        READER_PIDS+=($!)
        count=$((count + 1))
    done
    for path in "$PROGRAMS/tool" /bin/sleep; do
        "$START" "$GROUP" 20000 "$path" 15 >/dev/null 2>&1 &
        READER_PIDS+=($!)
    done
    # The starter itself: its copies are in the scope for the moment before they become the program.
    "$START" "$GROUP" 20000 "$START" "$GROUP" 20000 /bin/sleep 15 >/dev/null 2>&1 &
    READER_PIDS+=($!)
    popd >/dev/null
    say "learning: $count of this machine's programs run in the scope $GROUP_NAME"
}

enough_learned() {
    local learned
    learned=$(ctl trust list --json | jq -r .path)
    (($(wc -l <<<"$learned") >= 62)) && grep -qxF "$PROGRAMS/tool" <<<"$learned" && grep -qxF "$START" <<<"$learned" &&
        grep -Eq '/(ba|da)?sh$' <<<"$learned" && grep -q '/sleep$' <<<"$learned"
}

end_readers() {
    kill_scope
    exec {LEARN_FD}>&-
    LEARN_FD=
    wait "${READER_PIDS[@]}" || true
}

# ---- the programs of the table ----------------------------------------------------------------------

# variant NAME [ORIGINAL]: a program of its own, like sleep or the original but of another content.
variant() {
    cp "${2:-/bin/sleep}" "$PROGRAMS/$1"
    printf '%s' "$1" >>"$PROGRAMS/$1"
}

digest() { sha256sum "$1" | cut -d' ' -f1; }

make_programs() {
    variant unknown
    variant unknown-too
    variant unknown-elsewhere
    variant unknown-reader /usr/bin/tail
    variant by-server
    variant by-preset
    variant tool
    printf '#!/bin/bash\nread -r line <"$1"\n' >"$PROGRAMS/script.sh"
}

replace_tool() {
    variant other
    mv "$PROGRAMS/other" "$PROGRAMS/tool"
}

send_server_list() {
    jq -n --arg path "$PROGRAMS/by-server" --arg hash "$(digest "$PROGRAMS/by-server")" \
        '{process_info: [{name: "by-server", path: $path, hash: $hash, size: 1, type: 1}]}' >"$WORK/server.json"
    ctl command whitelist_10001 "$WORK/server.json" >/dev/null
}

serve_preset() {
    mkdir "$WORK/www"
    jq -n --arg hash "$(digest "$PROGRAMS/by-preset")" \
        '{process_info: [{filename: "by-preset", sha256: $hash, os: "debian", version: "12"}]}' >"$WORK/www/os.json"
    mkfifo "$WORK/http.in" "$WORK/http.out"
    "$SERVE" "$WORK/www" <"$WORK/http.in" >"$WORK/http.out" &
    HTTP_PID=$!
    exec {HTTP_FD}>"$WORK/http.in"
    read -r HTTP_PORT <"$WORK/http.out"
}

send_preset() {
    serve_preset
    jq -n --arg url "http://127.0.0.1:$HTTP_PORT/os.json" --arg hash "$(digest "$WORK/www/os.json")" \
        '{url: $url, hash: $hash}' >"$WORK/preset.json"
    ctl command whitelist_10002 "$WORK/preset.json" >/dev/null
}

# ---- the table --------------------------------------------------------------------------------------

alert_of() { ctl alerts --json | jq -r --argjson pid "$1" 'select(.data.process_info.process_pid == $pid) | .id'; }
has_alert() { [[ -n $(alert_of "$1") ]]; }
verdict_of() { curl -sS --unix-socket "$ROOT/run/agent.sock" -G --data-urlencode "path=$1" http://agent/verdict; }

row() { printf '%-2s %-34s %-10s %-8s %-7s %9s  %s\n' "$@"; }

# check NUMBER WHAT IMAGE TRUST LIST FATE ALERTS COMMAND…: runs the command in the scope, prints the row,
# and remembers whether it came out as TRUST (yes, no), LIST, FATE (killed, alive) and the number of
# ALERTS say.
check() {
    local number=$1 what=$2 image=$3 trust=$4 list=$5 fate=$6 alerts_wanted=$7
    shift 7
    local verdict pid outcome micros trusted found alert=-
    verdict=$(verdict_of "$image")
    trusted=$(jq -r 'if .trusted then "yes" else "no" end' <<<"$verdict")
    found=$(jq -r .list <<<"$verdict")
    read -r pid outcome micros < <("$START" "$GROUP" "$PATIENCE_MS" "$@" </dev/null)
    if ((alerts_wanted)); then
        until_true has_alert "$pid" || true
    fi
    alert=$(alert_of "$pid")
    [[ $outcome == killed ]] || micros=-
    row "$number" "$what" "$([[ $trusted == yes ]] && echo trusted || echo UNTRUSTED)" "$found" \
        "$([[ $outcome == killed ]] && echo yes || echo no)" "$micros" "${alert:--}"
    if [[ $trusted != "$trust" || $found != "$list" || $outcome != "$fate" ]] ||
        (($(wc -w <<<"$alert") != alerts_wanted)); then
        WRONG+=("row $number: wanted trusted=$trust list=$list $fate alerts=$alerts_wanted, got trusted=$trusted list=$found $outcome alerts=$(wc -w <<<"$alert")")
    fi
}

run_rows() {
    local p=$PROGRAMS sleep bash
    # As the kernel names the images.
    sleep=$(realpath "$(type -P sleep)")
    bash=$(realpath "$(type -P bash)")
    echo
    row "#" "what ran" "verdict" "list" "killed" "µs to kill" "alert"
    check 1 "a learned program" "$sleep" yes local alive 0 "$sleep" 30
    check 2 "an unknown binary" "$p/unknown" no none killed 1 "$p/unknown" 30
    check 3 "a learned path, other content" "$p/tool" no none killed 1 "$p/tool" 30
    check 4 "vouched for by the server only" "$p/by-server" yes server alive 0 "$p/by-server" 30
    check 5 "vouched for by a preset only" "$p/by-preset" yes os alive 0 "$p/by-preset" 30
    check 6 "a script, trusted interpreter" "$bash" yes local alive 0 "$bash" "$p/script.sh" "$WORK/stdin"
    apply_policy false
    until_true status_is .mode 3 || fail "detection did not come back after the second policy"
    check 7 "an unknown binary, blocking off" "$p/unknown-too" no none alive 1 "$p/unknown-too" 30
    run_directory_rows
    echo
}

# Directory mode: what counts is who touches the files of a folder.
run_directory_rows() {
    local p=$PROGRAMS watched=$WORK/watched tail
    tail=$(realpath "$(type -P tail)")
    mkdir "$watched"
    echo "content" >"$watched/file"
    apply_policy true "$watched"
    until_true status_is .files.marks 1 || fail "the folder is not watched"
    until_true status_is .mode 3 || fail "detection did not come back in directory mode"
    check 8 "watched folder: a learned reader" "$tail" yes local alive 0 "$tail" -f "$watched/file"
    check 9 "watched folder: an unknown reader" "$p/unknown-reader" no none killed 1 "$p/unknown-reader" -f "$watched/file"
    check 10 "an unknown binary elsewhere" "$p/unknown-elsewhere" no none alive 0 "$p/unknown-elsewhere" 30
}

main_job() {
    local started=$SECONDS
    build_all
    say "built in $((SECONDS - started)) s"
    START=$(realpath "$BUILD/tests/start_in_scope")
    SERVE=$(realpath "$BUILD/tests/serve_directory")
    READER_PIDS=()
    WRONG=()
    started=$SECONDS
    trap clean_up EXIT
    make_root
    make_scope
    make_programs
    start_agent
    apply_policy true
    start_readers
    until_true enough_learned || fail "too little was learned: $(status .lists.local) programs"
    end_readers
    say "learned: $(status .lists.local) programs"

    say "the learning period counts as passed: LearnTime in conf/modwhitelist.ini, then a restart"
    stop_agent
    sed -i 's/^LearnTime=.*/LearnTime=10080/' "$ROOT/conf/modwhitelist.ini"
    replace_tool
    start_agent
    until_true status_is .mode 2 || fail "learning did not end"
    ctl detect start >/dev/null
    status_is .mode 3 || fail "detection did not start"
    until_true watches_since 0 || fail "the agent does not watch after the restart"
    say "detecting, on the server's command"
    send_server_list
    send_preset
    run_rows
    stop_agent
    if ((${#WRONG[@]})); then
        printf '%s\n' "${WRONG[@]}" >&2
        fail "${#WRONG[@]} of 10 rows are not as they should be"
    fi
    say "all 10 rows as they should be, in $((SECONDS - started)) s"
}

# ---- the whole host ---------------------------------------------------------------------------------

status_line() {
    ctl status --json | jq -r '"\(.mode_name): \(.lists.local) programs learned; events: " +
        (.events | "\(.exec) exec, \(.fork) fork, \(.exit) exit, \(.lost) lost")'
}

whole_host() {
    build_all
    trap clean_up EXIT
    trap 'exit 0' INT TERM
    make_root
    start_agent
    apply_policy false
    say "learning on this host, nothing is blocked; Ctrl-C ends it"
    while kill -0 "$AGENT_PID" 2>/dev/null; do
        if [[ -t 1 ]]; then printf '\r\033[K%s' "$(status_line)"; else status_line; fi
        sleep 1
    done
    fail "the agent ended: $(cat "$WORK/agent.err")"
}

case ${1:-} in
"") main_job ;;
--host) whole_host ;;
*)
    echo "usage: scripts/run.sh [--host]" >&2
    exit 2
    ;;
esac
