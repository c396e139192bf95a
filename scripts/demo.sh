#!/usr/bin/env bash
# One command: installs what is missing, builds in Release, starts a local
# collector over HTTPS on a free loopback port, runs the example shop against
# it and prints what arrived. Then the live debug view stays up until Ctrl-C
# (unless --no-wait is given or standard input is not a terminal).
set -euo pipefail
cd "$(dirname "$0")/.."

wait_for_user=1
for arg in "$@"; do
  case "$arg" in
    --no-wait) wait_for_user=0 ;;
    *) echo "usage: bash scripts/demo.sh [--no-wait]" >&2; exit 2 ;;
  esac
done
[ -t 0 ] || wait_for_user=0

bash scripts/bootstrap demo
build=${TAVRIN_DEMO_BUILD:-build/demo}
mkdir -p "$build"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Paths relative to this checkout, so a fresh clone reuses what another
  # clone compiled (the suite runs this script in one).
  export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
fi
echo "=== building (Release) in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_TOOLS=ON \
  -DTAVRIN_BUILD_EXAMPLES=ON "${launcher[@]}" >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "$(nproc)" --target tavrin-collector tavrin-shop-example >"$build.build.log" 2>&1 \
  || { tail -n 40 "$build.build.log"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/tavrin-demo.XXXXXX")
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
  -addext "subjectAltName=IP:127.0.0.1" -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null

token="demo-$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')"
"$build/tools/collector/tavrin-collector" --port 0 --data-dir "$work/collector" --token "$token" \
  --tls-cert "$work/cert.pem" --tls-key "$work/key.pem" >"$work/collector.out" 2>"$work/collector.err" &
collector_pid=$!
for _ in $(seq 100); do
  grep -q '^listening on ' "$work/collector.out" 2>/dev/null && break
  sleep 0.05
done
url=$(sed -n 's/^listening on //p' "$work/collector.out" | head -n 1)
[ -n "$url" ] || { echo "the collector did not start:"; cat "$work/collector.err"; exit 1; }
echo "=== collector at $url"

echo "=== running the example shop"
"$build/examples/shop/tavrin-shop-example" --domain "${url#https://}" --ca-file "$work/cert.pem" \
  --token "$token" --debug-code demo-debug --data-dir "$work/sdk" || echo "(the example reported failures)"

echo "=== what arrived"
curl -s --cacert "$work/cert.pem" "$url/api/requests" >"$work/requests.json"
python3 - "$work/requests.json" <<'PY'
import collections, json, sys
requests = json.load(open(sys.argv[1]))
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
missing = [k for k in ("data", "consent", "monitor") if kinds.get(k, 0) == 0]
if missing:
    print("missing kinds:", ", ".join(missing))
    sys.exit(1)
PY

if [ "$wait_for_user" -eq 1 ]; then
  echo
  echo "Live debug view: $url/ui/  (the certificate is self-signed; Ctrl-C stops the collector)"
  wait "$collector_pid"
fi
