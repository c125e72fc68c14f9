#!/usr/bin/env bash
# Checks the systemd unit as systemd would read it: `systemd-analyze verify`
# (with ExecStart pointed at a built agenthost, since the installed path may
# not exist here) and the offline security review, which must stay at or
# below the exposure the docs give (in tenths: 30 is 3.0).
# Usage: scripts/check-unit.sh AGENTHOST [MAX_EXPOSURE]
set -euo pipefail
agenthost=$1
max=${2:-30}
unit=$(dirname "$0")/../host/agenthost.service
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed -e "s|^ExecStart=/usr/lib/ndpx/agenthost |ExecStart=$agenthost |" "$unit" >"$work/agenthost.service"
# verify prints nothing when it finds nothing; anything printed is a finding.
findings=$(systemd-analyze verify "$work/agenthost.service" 2>&1 || true)
if [[ -n "$findings" ]]; then
    echo "systemd-analyze verify: $findings" >&2
    exit 1
fi
systemd-analyze security --offline=true --threshold="$max" "$work/agenthost.service" | tail -n 1
