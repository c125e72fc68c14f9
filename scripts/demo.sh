#!/usr/bin/env bash
# The main job: on a fresh Debian 12 machine, installs what it needs, builds,
# and shows a freshly provisioned desktop pairing and connecting by itself:
# a development broker and credential service, agenthost with the module in
# a temporary root, provisioning, a command from the control plane and its
# answer, a renewal of its client certificate asked for by an operator (a
# new certificate obtained over MQTT and HTTPS, proven, swapped in and
# connected with), then a clean stop of everything.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DNDPX_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target agenthost ndpx_mqtt regctl certctl devcloud

devcloud="$build/tools/devcloud/devcloud"
regctl="$build/tools/regctl/regctl"
certctl="$build/tools/certctl/certctl"
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
  rm -rf "$work"
}
trap cleanup EXIT

say() { printf '\n== %s\n' "$*"; }
wait_for() {  # wait_for FILE TEXT SECONDS [COUNT]: until TEXT shows COUNT times
  local deadline=$((SECONDS + $3))
  until (($(grep -cF -- "$2" "$1" 2>/dev/null) >= ${4:-1})); do
    if ((SECONDS >= deadline)); then
      echo "demo: gave up waiting for '$2' in $1" >&2
      tail -n 40 "$1" >&2
      exit 1
    fi
    sleep 0.1
  done
}
value_of() { grep -m1 "^$2 " "$1" | cut -d' ' -f2-; }
node_manager='HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager'

say "Starting the development control plane: a certificate authority, an MQTT broker (TLS, client certificates required) and the credential service"
"$devcloud" ca init --dir "$cloud" >/dev/null
"$devcloud" broker --dir "$cloud" >"$work/broker.out" 2>&1 &
pids+=($!)
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
"$build/host/agenthost" --root "$root" --plugin "$build/plugin/ndpx_mqtt.so" \
  --log-level 1 --log-file "$work/agent.log" 2>/dev/null &
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

say "Stopping the agent (SIGTERM)"
kill -TERM "$agent"
status=0
wait "$agent" || status=$?
grep -E "MQTT Stop successful|agenthost: stopped" "$work/agent.log" | sed 's/^[^[]*\[[^]]*\] L[0-9] [0-9]*: /  /'
echo "agenthost exit status: $status"

say "Done: the desktop paired with the credential service, connected to the broker over mutual TLS, answered a command, renewed its certificate live, took its time zone and reported a domain join it could not make, and stopped cleanly."
