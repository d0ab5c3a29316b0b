#!/bin/sh
# must_fail.sh TEXT COMMAND…: succeeds when the command fails and says TEXT.
text=$1
shift
if said=$("$@" 2>&1); then
    echo "it did not fail: $*"
    exit 1
fi
printf '%s\n' "$said"
printf '%s' "$said" | grep -qF "$text"
