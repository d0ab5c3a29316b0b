#!/bin/sh
# Stands in for systemctl where no systemd runs: starts and stops the one service by the command of its unit,
# leaves questions of links to the real one (systemctl.real), and writes each request down.
set -e

STATE=/tmp/service
UNIT=/lib/systemd/system/corvalent.service

verb=
for word; do
    case "$word" in
        -* | corvalent.service) ;;
        *) verb=$word ;;
    esac
done
echo "$verb" >>$STATE.requests

is_active() { [ -e $STATE.pid ] && kill -0 "$(cat $STATE.pid)" 2>/dev/null; }

# Until it takes requests, as Type=notify has it.
start() {
    ! is_active || return 0
    # shellcheck disable=SC2046 # the words of a command line
    setsid $(sed -n 's/^ExecStart=//p' $UNIT) </dev/null >/dev/null 2>>$STATE.errors &
    echo $! >$STATE.pid
    while ! corvalentctl status >/dev/null 2>&1; do
        is_active || exit 1
        sleep 0.05
    done
}

stop() {
    is_active || return 0
    kill -TERM "$(cat $STATE.pid)"
    while is_active; do sleep 0.05; done
    rm -f $STATE.pid
}

case "$verb" in
    daemon-reload) ;;
    preset | enable | disable | is-enabled) SYSTEMD_OFFLINE=1 exec systemctl.real "$@" ;;
    is-active) is_active ;;
    start) start ;;
    stop) stop ;;
    restart)
        stop
        start
        ;;
    *)
        echo "systemctl.sh: nobody should ask for [$*]" >&2
        exit 1
        ;;
esac
