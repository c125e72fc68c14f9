#!/usr/bin/env bash
# The main job: on a fresh Debian 12 machine, installs what it needs, builds,
# and tells the whole story of a desktop: a development broker and credential
# service, agenthost with the module in a temporary root, pairing by itself
# once provisioned, a command from the control plane and its answer, a
# session report, a template message that sets the time zone, a local
# program publishing through the IPC bridge, a renewal of its client
# certificate asked for by an operator (obtained over MQTT and HTTPS, proven,
# swapped in and connected with), a broker restart that loses nothing, its
# metrics, and a clean stop of everything.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DNDPX_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target agenthost ndpx_mqtt regctl certctl agentctl ipcctl devcloud

devcloud="$build/tools/devcloud/devcloud"
regctl="$build/tools/regctl/regctl"
certctl="$build/tools/certctl/certctl"
agentctl="$build/tools/agentctl/agentctl"
ipcctl="$build/tools/ipcctl/ipcctl"
work=$(mktemp -d /tmp/ndpx-demo.XXXXXX)
cloud="$work/cloud"
root="$work/desktop"
mkdir -p "$cloud" "$root"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  [[ -n "${KEEP_DEMO:-}" ]] || rm -rf "$work"
}
trap cleanup EXIT

say() { printf '\n== %s\n' "$*"; }
source scripts/waiting.sh
node_manager='HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager'

say "Starting the development control plane: a certificate authority, an MQTT broker (TLS, client certificates required) and the credential service"
"$devcloud" ca init --dir "$cloud" >/dev/null
# --persist: the broker keeps its sessions and queued messages across a restart.
"$devcloud" broker --dir "$cloud" --persist >"$work/broker.out" 2>&1 &
broker=$!
pids+=($broker)
wait_for "$work/broker.out" "port " 30
"$devcloud" credsvc --dir "$cloud" >"$work/credsvc.out" 2>&1 &
pids+=($!)
wait_for "$work/credsvc.out" "thumbprint " 30
broker_port=$(value_of "$work/broker.out" port)
url=$(value_of "$work/credsvc.out" url)
thumbprint=$(value_of "$work/credsvc.out" thumbprint)
echo "broker on 127.0.0.1:$broker_port, credential service at $url"
"$devcloud" renewer --dir "$cloud" --port "$broker_port" --url "$url" >"$work/renewer.out" 2>&1 &
pids+=($!)
wait_for "$work/renewer.out" "renewer ready" 30
echo "the control plane answers certificate renewal requests"

say "Starting agenthost with ndpx_mqtt.so for a new desktop (root $root); it trusts the credential service by its thumbprint"
"$regctl" --root "$root" set "$node_manager" mqtt_SslCertThumbprint "$thumbprint"
# A 7-day renewal window: the fresh 30-day certificate is left alone until asked.
"$regctl" --root "$root" set "$node_manager" mqtt_CertExpiryDays 7
# A session report every 5 s (150 by default), and the local IPC bridge with
# ipcctl on its include list.
"$regctl" --root "$root" set "$node_manager" AsyncSessionSeconds 5 --type dword
"$regctl" --root "$root" set "$node_manager" mqtt_IPCServerEnabled true
"$regctl" --root "$root" set "$node_manager\ipcincludelist" ipcctl 1
"$build/host/agenthost" --root "$root" --plugin "$build/plugin/ndpx_mqtt.so" \
  --log-level 1 --log-file "$work/agent.log" --metrics-interval 2 --metrics-port 0 2>/dev/null &
agent=$!
pids+=($agent)
wait_for "$work/agent.log" "MQTT_STATE_WAITING_CONFIG" 30
echo "the agent runs and waits for its provisioning data"

say "Provisioning the desktop: an LCM spec with a fresh one-time password is dropped into its root"
"$devcloud" provision --dir "$cloud" --root "$root" --url "$url" \
  --vm-id vm7 --edge-id e1 --short-template-id t3 | grep -v '^$'
wait_for "$work/agent.log" "MQTT_STATE_CONNECTED" 60

say "What the agent did, step by step (its state as it moved)"
grep -E "SetState\(\): State|Creating agent key pair|Requesting credentials|Successfully requested credentials|Storing pairing data|Successfully subscribed" \
  "$work/agent.log" | sed 's/^[^[]*\[[^]]*\] L[0-9] [0-9]*: /  /'

say "The certificate the desktop now holds"
"$certctl" --root "$root" list

say "The control plane sends GetHostFacts to desktop e1/vm7 and prints the answer"
"$devcloud" send --dir "$cloud" --port "$broker_port" --desktop e1/vm7 --command GetHostFacts --timeout 20

# The control plane's view of everything the desktop publishes, kept by the
# broker for it across the restart below.
"$devcloud" watch --dir "$cloud" --port "$broker_port" --desktop e1/vm7 --keep-session \
  >"$work/watch.out" 2>&1 &
pids+=($!)
wait_for "$work/watch.out" "watching" 30
shown() {  # shown TEXT: the control plane's line with TEXT, cut to fit
  grep -m1 -F -- "$1" "$work/watch.out" | cut -c1-150 | sed 's/^/  /'
}

say "A session report reaches the control plane (every 5 s here)"
wait_for "$work/watch.out" "agent/sessions/report" 30
shown "agent/sessions/report"

say "A local program on the include list (ipcctl) publishes through the agent's IPC bridge"
"$ipcctl" --root "$root" publish desktop/e1/vm7/apps/notes '{"note":"hello from a desktop program"}' --qos 1
wait_for "$work/watch.out" "hello from a desktop program" 30
shown "hello from a desktop program"

say "Renewing the client certificate: an operator asks the agent to renew and swap it now"
"$regctl" --root "$root" set "$node_manager" mqtt_TriggerCertSwap 1
wait_for "$work/agent.log" "Successfully swapped the current and pending certificates" 60
wait_for "$work/agent.log" "MQTT_STATE_CONNECTED" 30 2
awk '/Triggering refresh/ { from = 1 } from' "$work/agent.log" |
  grep -E "Triggering refresh|Requesting new pending|Received OTP token message\$|Successfully generated new client pending|brokerAccepts|Successfully swapped|certificateSwapped|State: MQTT_STATE_CONNECTED|agent/eventlogger" |
  sed 's/^[^[]*\[[^]]*\] L[0-9] [0-9]*: /  /'
grep "token sent" "$work/renewer.out" | sed 's/^/  /'

say "The certificates the desktop holds now: a new current one, no pending one left"
"$certctl" --root "$root" list

say "The control plane sends GetHostFacts again, over the new connection"
"$devcloud" send --dir "$cloud" --port "$broker_port" --desktop e1/vm7 --command GetHostFacts --timeout 20 |
  grep -E '"(ID|HOSTNAME)"'

say "The control plane sends template messages: a time zone, then a domain join on a machine without realmd"
"$devcloud" client-cert --dir "$cloud" --cn demo-console --out "$work/console" >/dev/null
template() {
  mosquitto_pub -h 127.0.0.1 -p "$broker_port" -q 1 -i demo-console --cafile "$cloud/ca.pem" \
    --cert "$work/console.pem" --key "$work/console.key" \
    -t desktop/e1/vm7/agent/receive/dtemplate -m "$1"
}
template '{"msgType":"SET_TIMEZONE","vmTimeZone":{"timeZone":"India Standard Time"}}'
wait_for "$work/agent.log" "Timezone set to" 30
echo "  $root/etc/localtime -> $(readlink "$root/etc/localtime")"
template '{"domain":"corp.example","username":"joiner","password":"not-in-any-log"}'
wait_for "$work/agent.log" "TemplateHandler::HandleMsg(): Unable to join" 30
grep -E "TemplateHandler::|SystemTimeZone::CallSet" "$work/agent.log" | sed 's/^[^[]*\[[^]]*\] L[0-9] [0-9]*: /  /'
if grep -q "not-in-any-log" "$work/agent.log"; then
  echo "demo: the join password reached the log" >&2
  exit 1
fi

say "The broker restarts; what the desktop publishes meanwhile is kept and delivered"
kill -TERM "$broker"
wait "$broker" || true
wait_for "$work/agent.log" "MQTT_STATE_NOT_CONNECTED" 30
"$ipcctl" --root "$root" publish desktop/e1/vm7/apps/notes '{"note":"written while the broker was away"}' --qos 1
echo "  broker stopped; the agent is disconnected and a program published meanwhile"
"$devcloud" broker --dir "$cloud" --persist --port "$broker_port" >"$work/broker2.out" 2>&1 &
pids+=($!)
wait_for "$work/broker2.out" "port " 30
wait_for "$work/agent.log" "MQTT_STATE_CONNECTED" 60 3
wait_for "$work/watch.out" "written while the broker was away" 60
echo "  broker back on port $broker_port; the agent reconnected by itself"
shown "written while the broker was away"
"$devcloud" send --dir "$cloud" --port "$broker_port" --desktop e1/vm7 --command GetHostFacts --timeout 20 |
  grep -E '"HOSTNAME"' | sed 's/^[[:space:]]*/  answered after the restart: /'

say "The agent's own account (agentctl status, from its metrics of the last 2 s)"
wait_for "$root/run/Brasswick/metrics.json" "MQTT_STATE_CONNECTED" 10
"$agentctl" --root "$root" status | sed 's/^/  /'

metrics_port=$(grep -om1 'metrics at http://127.0.0.1:[0-9]*' "$work/agent.log" | sed 's/.*://')
say "What Prometheus scrapes at http://127.0.0.1:$metrics_port/metrics (without the buckets and the zero-valued labels)"
exec 3<>"/dev/tcp/127.0.0.1/$metrics_port"
printf 'GET /metrics HTTP/1.0\r\n\r\n' >&3
sed '1,/^\r$/d' <&3 | grep -Ev '^#|_bucket|\} 0$' | sed 's/^/  /'
exec 3<&-

say "Stopping the agent (SIGTERM)"
kill -TERM "$agent"
status=0
wait "$agent" || status=$?
grep -E "MQTT Stop successful|agenthost: stopped" "$work/agent.log" | sed 's/^[^[]*\[[^]]*\] L[0-9] [0-9]*: /  /'
echo "agenthost exit status: $status"

say "Done: the desktop paired with the credential service, connected to the broker over mutual TLS, answered commands, reported its sessions, took its time zone, reported a domain join it could not make, carried a local program's messages, renewed its certificate live, rode out a broker restart without losing a message, and stopped cleanly."
