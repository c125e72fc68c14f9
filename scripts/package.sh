#!/usr/bin/env bash
# Builds the Debian packages (ndpx-agent, ndpx-devcloud) with CPack in
# build-pkg/ and checks them with lintian (errors fail).
#
# With --install-test it then installs them on this machine as an operator
# would (dpkg -i, so the maintainer scripts run; systemd only where it is the
# init system), runs the installed agent against the installed development
# control plane in a temporary root (pair, answer a command, stop), purges
# both packages and checks that nothing is left behind. It changes the
# machine while it runs: meant for CI and throwaway machines, as root.
set -euo pipefail
cd "$(dirname "$0")/.."

install_test=0
[[ "${1:-}" == "--install-test" ]] && install_test=1

bash scripts/install-deps.sh
# BUILD_DIR: an existing build to package (CI packages the tested build);
# by default a build of its own without tests or benchmarks.
build=${BUILD_DIR:-build-pkg}
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -G Ninja -DNDPX_BUILD_TESTS=OFF -DNDPX_BUILD_BENCH=OFF \
    ${CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$build" -j2
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
agent_deb=$(ls "$build"/ndpx-agent_*.deb)
devcloud_deb=$(ls "$build"/ndpx-devcloud_*.deb)
echo "package: built $(basename "$agent_deb") and $(basename "$devcloud_deb")"
lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs "$agent_deb" "$devcloud_deb"
echo "package: lintian reports no errors"
((install_test)) || exit 0

# The purge removes the agent's state: never on a machine that has some.
if dpkg-query -W ndpx-agent >/dev/null 2>&1 || [[ -e /var/lib/Brasswick ]]; then
  echo "package: this machine already has an agent or its state (/var/lib/Brasswick);" \
    "the install test would purge it, so it does not run here" >&2
  exit 1
fi

# What the machine holds outside dpkg's own records, before and after.
snapshot() {
  find /etc /lib/systemd /usr/bin /usr/lib /usr/share/doc /usr/share/man /var/lib /var/log \
    -xdev 2>/dev/null |
    grep -v -E '^/var/lib/(dpkg|apt|ucf)(/|$)|^/var/log/(dpkg\.log|apt|alternatives\.log)|^/var/lib/systemd/deb-systemd-helper-(enabled|masked)$' |
    sort
}
before=$(mktemp)
snapshot >"$before"

work=$(mktemp -d /tmp/ndpx-package-test.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  dpkg --purge ndpx-devcloud ndpx-agent >/dev/null 2>&1 || true
  rm -rf "$work" "$before"
}
trap cleanup EXIT

dpkg -i "$agent_deb" "$devcloud_deb"
test -d /var/lib/Brasswick && test "$(stat -c %a /var/lib/Brasswick)" = 700
test -f /lib/systemd/system/agenthost.service
test -L /etc/systemd/system/multi-user.target.wants/agenthost.service
echo "package: installed; state folders made, unit enabled"

source scripts/waiting.sh
cloud="$work/cloud"
root="$work/desktop"
mkdir -p "$cloud" "$root"
devcloud ca init --dir "$cloud" >/dev/null
devcloud broker --dir "$cloud" >"$work/broker.out" 2>&1 &
pids+=($!)
wait_for "$work/broker.out" "port " 30
devcloud credsvc --dir "$cloud" >"$work/credsvc.out" 2>&1 &
pids+=($!)
wait_for "$work/credsvc.out" "thumbprint " 30
port=$(value_of "$work/broker.out" port)
node_manager='HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager'
regctl --root "$root" set "$node_manager" mqtt_SslCertThumbprint "$(value_of "$work/credsvc.out" thumbprint)"
/usr/lib/ndpx/agenthost --root "$root" --plugin /usr/lib/ndpx/ndpx_mqtt.so --log-target stderr --log-level 1 \
  --log-file "$work/agent.log" 2>/dev/null &
agent=$!
pids+=($agent)
wait_for "$work/agent.log" "MQTT_STATE_WAITING_CONFIG" 30
devcloud provision --dir "$cloud" --root "$root" --url "$(value_of "$work/credsvc.out" url)" \
  --vm-id vm1 --edge-id e1 --short-template-id t1 >/dev/null
wait_for "$work/agent.log" "MQTT_STATE_CONNECTED" 60
devcloud send --dir "$cloud" --port "$port" --desktop e1/vm1 --command GetHostFacts --timeout 20 \
  >"$work/answer.out"
grep -q '"HOSTNAME"' "$work/answer.out"
kill -TERM "$agent"
wait "$agent"
echo "package: the installed agent paired, answered a command and stopped"
for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
pids=()

dpkg --purge ndpx-devcloud ndpx-agent >/dev/null
left=$(diff "$before" <(snapshot) || true)
if [[ -n "$left" ]]; then
  echo "package: the purge left this behind:" >&2
  echo "$left" >&2
  exit 1
fi
echo "package: purged; nothing left behind"
