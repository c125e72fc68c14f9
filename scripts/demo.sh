#!/usr/bin/env bash
# The main job: sets up a fresh Debian 12 machine, builds the agent, and runs
# agenthost with the MQTT module in a temporary root, showing what it does.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DNDPX_BUILD_TESTS=OFF -DNDPX_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target agenthost ndpx_mqtt regctl

root=$(mktemp -d /tmp/ndpx-demo.XXXXXX)
log="$root/agenthost.log"
host_pid=""
cleanup() {
  if [[ -n "$host_pid" ]] && kill -0 "$host_pid" 2>/dev/null; then kill -TERM "$host_pid"; wait "$host_pid" || true; fi
  rm -rf "$root"
}
trap cleanup EXIT

say() { printf '\n== %s\n' "$*"; }
wait_for() {  # wait_for TEXT SECONDS
  local deadline=$((SECONDS + $2))
  until grep -qF -- "$1" "$log"; do
    if ((SECONDS >= deadline)); then echo "demo: gave up waiting for: $1" >&2; tail -n 30 "$log" >&2; exit 1; fi
    sleep 0.2
  done
}

say "Starting agenthost with ndpx_mqtt.so in the temporary root $root"
"$build/host/agenthost" --root "$root" --plugin "$build/plugin/ndpx_mqtt.so" \
  --log-level 1 --metrics-interval 1 2>"$log" &
host_pid=$!
wait_for "MqttManager::Start(): MQTT Start successful." 20
grep -E "pluginServiceInstall|MQTTInstall|MqttManager::(Start|SetState)|setup MQTT queue" "$log" | sed 's/^[^[]*//'

say "The manager's state, as the host's metrics file shows it"
wait_for "DoSetMetricCallback" 10
sleep 0.2
cat "$root/run/Brasswick/metrics.json"

say "Changing a setting while the agent runs (regctl set AsyncSessionSeconds 120)"
"$build/tools/regctl/regctl" --root "$root" set \
  'HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager' AsyncSessionSeconds 120 --type dword
wait_for "mqttConfig::changed(): AsyncSessionSeconds changed to 120" 10
grep -F "mqttConfig::changed()" "$log" | sed 's/^[^[]*//'

say "Stopping agenthost with SIGTERM"
kill -TERM "$host_pid"
status=0
wait "$host_pid" || status=$?
host_pid=""
grep -E "MQTT Stop successful|all threads gone|agenthost: stopped" "$log" | sed 's/^[^[]*//'
echo "agenthost exit status: $status"

say "Done: the module installed, started its manager, followed a live setting change and stopped cleanly."
