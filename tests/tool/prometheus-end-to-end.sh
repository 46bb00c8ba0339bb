#!/bin/sh
# A real Prometheus server scrapes `kestrel serve` on a simulated workstation every
# second, on loopback, with its storage in a temporary folder that goes with
# everything else when the test ends, however it ends. The test asks Prometheus
# for the GPUs' temperatures and a card's power draw, changes both in the
# scenario, and waits for Prometheus to show the new values. Then NVIDIA's management library hangs and
# the Radeon warms up: the scrapes go on (the target stays up), the NVML source
# is down, and the Radeon's new temperature comes through.
# Usage: prometheus-end-to-end.sh KESTREL SCENARIO
set -u
kestrel=$1
work=$(mktemp -d)
pids=""
cleanup() {
    for pid in $pids; do kill "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

# Ports of our own, away from the usual ones.
kestrel_port=$((20000 + $$ % 10000))
prometheus_port=$((kestrel_port + 10000))
cp "$2" "$work/machine.json"

"$kestrel" serve --simulate "$work/machine.json" --listen "127.0.0.1:$kestrel_port" --interval 1 2>"$work/kestrel.log" &
pids="$pids $!"
cat >"$work/prometheus.yml" <<CONFIG
global: { scrape_interval: 1s, evaluation_interval: 1s }
scrape_configs:
  - job_name: kestrel
    static_configs: [ { targets: ['127.0.0.1:$kestrel_port'] } ]
CONFIG
prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/data" \
    --web.listen-address="127.0.0.1:$prometheus_port" >"$work/prometheus.log" 2>&1 &
pids="$pids $!"

# Waits up to 40 s until the series of 'query' Prometheus holds show 'expected'
# (a fixed string), and at least 'series' of them.
wait_for_query() {
    query=$1 expected=$2 series=$3 tries=0
    while [ $tries -lt 80 ]; do
        promtool query instant "http://127.0.0.1:$prometheus_port" "$query" >"$work/answer" 2>/dev/null
        if grep -qF "$expected" "$work/answer" && [ "$(grep -c '=>' "$work/answer")" -ge "$series" ]; then
            return 0
        fi
        tries=$((tries + 1))
        sleep 0.5
    done
    echo "Prometheus never showed: $expected" >&2
    cat "$work/answer" "$work/kestrel.log" >&2
    tail -5 "$work/prometheus.log" >&2
    return 1
}
wait_for() { wait_for_query kestrel_gpu_temperature_celsius "$@"; }

wait_for 'pci="0000:65:00.0", uuid="GPU-6d5e3c2a-8f41-4b7e-a1c9-2f6b0d9e4a11"} => 47' 3 || exit 1
grep -qF 'pci="0000:66:00.0"' "$work/answer" && grep -qF 'pci="0000:0a:00.0"' "$work/answer" || {
    echo "not every GPU is there" >&2
    cat "$work/answer" >&2
    exit 1
}
wait_for_query 'kestrel_gpu_power_watts{pci="0000:65:00.0"}' '=> 215.3' 1 || exit 1
sed -e 's/"temperature": 47,/"temperature": 61,/' -e 's/"power": 215300,/"power": 287500,/' "$work/machine.json" \
    >"$work/changed.json"
mv "$work/changed.json" "$work/machine.json"
wait_for 'pci="0000:65:00.0", uuid="GPU-6d5e3c2a-8f41-4b7e-a1c9-2f6b0d9e4a11"} => 61' 3 || exit 1
wait_for_query 'kestrel_gpu_power_watts{pci="0000:65:00.0"}' '=> 287.5' 1 || exit 1

sed -e '1s/^{/{"faults": {"nvmlDeviceGetTemperature": {"hang": true}},/' \
    -e 's/"temperature": 52000/"temperature": 71000/' -e 's/"temp1_input": 52000/"temp1_input": 71000/' \
    "$work/machine.json" >"$work/changed.json"
mv "$work/changed.json" "$work/machine.json"
wait_for_query 'kestrel_source_up{source="nvml"}' '=> 0' 1 || exit 1
wait_for_query 'kestrel_gpu_temperature_celsius{pci="0000:0a:00.0"}' '=> 71' 1 || exit 1
# Every scrape since was answered: the target never went down.
wait_for_query 'min_over_time(up{job="kestrel"}[1h])' '=> 1' 1 || exit 1
echo "Prometheus saw every GPU's temperature, the changed temperature and power, and the Radeon's while NVML hung"
