#!/usr/bin/env bash
# Starts a collector over HTTPS on a free loopback port, runs the example shop
# against it (RUNS times with one data directory: relaunches of one install)
# and prints what arrived. Exits non-zero when a kind of request is missing,
# or, over several runs, when the stored user or consent id was not kept.
#
#   bash scripts/shop_session.sh COLLECTOR SHOP [--runs N] [--wait]
#
# TAVRIN_EMULATOR, when set, is put before both programs (a cross build run
# under qemu-aarch64-static -L /). TAVRIN_SHOP_EMULATOR is put before the shop
# alone: a Windows shop runs under wine64 against the Linux collector, with
# its paths given as wine's drive paths and the collector named "localhost"
# (wine's TLS does not accept a certificate for an IP address).
set -euo pipefail

collector=$1 shop=$2
shift 2
runs=1 wait_for_user=0
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs=$2; shift ;;
    --wait) wait_for_user=1 ;;
    *) echo "usage: bash scripts/shop_session.sh COLLECTOR SHOP [--runs N] [--wait]" >&2; exit 2 ;;
  esac
  shift
done
# shellcheck disable=SC2206 # a command and its arguments
emulator=(${TAVRIN_EMULATOR:-})
# shellcheck disable=SC2206 # a command and its arguments
shop_emulator=(${TAVRIN_SHOP_EMULATOR:-${TAVRIN_EMULATOR:-}})
shop_path() {
  case "${shop_emulator[0]:-}" in
    *wine*) winepath -w "$1" 2>/dev/null ;;
    *) echo "$1" ;;
  esac
}

work=$(mktemp -d "${TMPDIR:-/tmp}/tavrin-shop.XXXXXX")
collector_pid=""
cleanup() {
  [ -n "$collector_pid" ] && kill "$collector_pid" 2>/dev/null && wait "$collector_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The SDK always reports debug tags over HTTPS, so the collector gets a
# certificate of its own for 127.0.0.1 and the example trusts exactly it.
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=127.0.0.1" \
  -addext "subjectAltName=IP:127.0.0.1,DNS:localhost" -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null

# The token travels in the environment, which other users cannot read (a
# command line they can).
token="demo-$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')"
TAVRIN_COLLECTOR_TOKEN="$token" "${emulator[@]}" "$collector" --port 0 --data-dir "$work/collector" \
  --tls-cert "$work/cert.pem" --tls-key "$work/key.pem" >"$work/collector.out" 2>"$work/collector.err" &
collector_pid=$!
for _ in $(seq 400); do
  grep -q '^listening on ' "$work/collector.out" 2>/dev/null && break
  sleep 0.05
done
url=$(sed -n 's/^listening on //p' "$work/collector.out" | head -n 1)
[ -n "$url" ] || { echo "the collector did not start:"; cat "$work/collector.err"; exit 1; }
echo "=== collector at $url"

for run in $(seq "$runs"); do
  echo "=== running the example shop (launch $run of $runs)${shop_emulator[*]:+ under ${shop_emulator[*]}}"
  domain=${url#https://}
  case "${shop_emulator[0]:-}" in *wine*) domain="localhost:${domain##*:}" ;; esac
  TAVRIN_TOKEN="$token" "${shop_emulator[@]}" "$shop" --domain "$domain" --ca-file "$(shop_path "$work/cert.pem")" \
    --debug-code demo-debug --data-dir "$(shop_path "$work/sdk")" || echo "(the example reported failures)"
done

echo "=== what arrived"
curl -s --cacert "$work/cert.pem" -K - "$url/api/requests" >"$work/requests.json" <<<"header = \"Authorization: Bearer $token\""
python3 - "$work/requests.json" "$runs" <<'PY'
import collections, json, sys
requests = json.load(open(sys.argv[1]))
runs = int(sys.argv[2])
if isinstance(requests, dict):
    requests = requests.get("requests", [])
requests = sorted(requests, key=lambda r: r["id"])
kinds = collections.Counter(r["kind"] for r in requests)
print("requests:", len(requests), " ".join(f"{k}={n}" for k, n in sorted(kinds.items())))
first = next((r for r in requests if r["kind"] == "data"), None)
if first:
    print("\nfirst data submission:")
    print(json.dumps(first["body"], indent=2))
print("\ntag timeline:")
for r in requests:
    if r["kind"] == "monitor" and isinstance(r.get("body"), dict):
        for tag in r["body"].get("tags", []):
            print(f'  {r["body"].get("debugid", "?")}  {tag.get("id", "?")}  {tag.get("name", "")[:100]}')
problems = [(r["id"], p) for r in requests for p in r.get("problems", [])]
print("\nproblems found:", len(problems))
for rid, p in problems:
    print(f"  #{rid}: {p}")
failed = False
missing = [k for k in ("data", "consent", "monitor") if kinds.get(k, 0) == 0]
if missing:
    print("missing kinds:", ", ".join(missing))
    failed = True
if runs > 1:
    # Relaunches keep the user and the consent id: one of each is ever "new".
    for kinds_with_id, name in ((("data", "consent"), "user"), (("consent",), "consent")):
        ids = [r["body"]["data"]["identifier"][name] for r in requests
               if r["kind"] in kinds_with_id and isinstance(r.get("body"), dict)]
        distinct = {i.get("id") for i in ids}
        fresh = sum(1 for i in ids if i.get("action") == "new")
        print(f"{name} id over {runs} launches: {len(distinct)} distinct, {fresh} new, {len(ids) - fresh} update")
        if len(distinct) != 1 or fresh != 1:
            failed = True
sys.exit(1 if failed else 0)
PY

if [ "$wait_for_user" -eq 1 ]; then
  echo
  echo "Live debug view: $url/ui/#token=$token  (the certificate is self-signed; Ctrl-C stops the collector)"
  wait "$collector_pid"
fi
