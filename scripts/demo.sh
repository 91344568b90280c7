#!/usr/bin/env bash
# The spy at work: a real PKCS#11 session with OpenSC's pkcs11-tool against a
# SoftHSM2 token in a fresh temporary directory, every call traced by the spy.
# Usage: scripts/demo.sh [build directory]   (make demo builds first)
set -euo pipefail

build_dir=${1:-build}
softhsm=/usr/lib/softhsm/libsofthsm2.so
spy=$(realpath "$build_dir/lib/libzelphspy.so" 2>/dev/null || true)
names=$(realpath "$build_dir/bin/zelph-names" 2>/dev/null || true)
logtool=$(realpath "$build_dir/bin/zelph-log" 2>/dev/null || true)

for needed in "$spy" "$names" "$logtool" "$softhsm"; do
  if [ -z "$needed" ] || [ ! -e "$needed" ]; then
    echo "demo: ${needed:-the spy, zelph-names or zelph-log} is missing; run make demo" >&2
    exit 1
  fi
done
if ! command -v pkcs11-tool >/dev/null 2>&1; then
  echo "demo: pkcs11-tool is missing; run make deps" >&2
  exit 1
fi

work=$(mktemp -d /tmp/zelph-demo.XXXXXX)
mkdir -p "$work/tokens" "$work/logs"
cat >"$work/softhsm2.conf" <<EOF
directories.tokendir = $work/tokens
objectstore.backend = file
log.level = ERROR
EOF
# Tracing on, into the logs folder; the spy forwards to SoftHSM2.
cat >"$work/zelph.conf" <<EOF
Quillon {
	EnableTrace = 1
	Trace = $work/logs
}
Spy {
	Module = $softhsm
}
EOF
export SOFTHSM2_CONF="$work/softhsm2.conf"
export ZELPH_CONFFILE="$work/zelph.conf"
unset ZELPH_SPY_MODULE

so_pin=27182818
user_pin=31415926
label=zelph-demo
tool=(pkcs11-tool --module "$spy")
sign_log=

# Runs one pkcs11-tool step through the spy and remembers the log it wrote.
step() {
  local title=$1
  shift
  echo
  echo "== $title"
  echo "\$ pkcs11-tool --module $spy $*"
  local before
  before=$(ls "$work/logs")
  "${tool[@]}" "$@"
  last_log=$(comm -13 <(echo "$before") <(ls "$work/logs") | head -n 1)
}

echo "zelph demo: a PKCS#11 session through the spy"
echo "Token store, configuration and logs: $work"

step "Initialise the token" --init-token --label "$label" --so-pin "$so_pin"
step "Set the user PIN" --token-label "$label" --login --login-type so --so-pin "$so_pin" \
  --init-pin --pin "$user_pin"
step "Log in and generate an RSA key pair" --token-label "$label" --login --pin "$user_pin" \
  --keypairgen --key-type rsa:2048 --id 01 --label demo-key
echo "Signed by the zelph demo." >"$work/message.txt"
step "Sign a message" --token-label "$label" --login --pin "$user_pin" --sign \
  --mechanism SHA256-RSA-PKCS --id 01 --input-file "$work/message.txt" \
  --output-file "$work/message.sig"
sign_log=$last_log
echo "Signature: $(stat -c %s "$work/message.sig") bytes in $work/message.sig"
step "List the objects" --token-label "$label" --login --pin "$user_pin" --list-objects

echo
echo "== The logs"
echo "One log per process, in $work/logs:"
ls -1 "$work/logs" | sed 's/^/  /'
echo
echo "First lines of the signing step's log, $work/logs/$sign_log:"
head -n 40 "$work/logs/$sign_log"
echo "[...]"
echo
echo "The calls that log records, with their counts:"
grep -o "Entering C_[A-Za-z]*" "$work/logs/$sign_log" | sed 's/Entering //' | sort | uniq -c |
  sort -rn | sed 's/^/  /'
echo
if grep -q -e "$so_pin" -e "$user_pin" "$work"/logs/*; then
  echo "demo: a PIN reached a log" >&2
  exit 1
fi
echo "Neither PIN appears in any log; PINs and key material are written as lengths only."
echo
echo "== Naming a code found in a log"
echo "\$ zelph-names rv 0xA0"
"$names" rv 0xA0
echo
echo "== What the logs say, read back by zelph-log"
echo "\$ zelph-log summary $work/logs"
"$logtool" summary "$work/logs"
echo
echo "\$ zelph-log report $work/logs -o $work/report.html"
"$logtool" report "$work/logs" -o "$work/report.html"
echo "The report (timeline, tables, histograms; open it in a browser): $work/report.html"
echo
echo "Done. Everything of this demo is in $work (remove it when you are done)."
