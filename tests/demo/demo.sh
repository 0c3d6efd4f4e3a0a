#!/usr/bin/env bash
# demo.sh BUILD_FOLDER: backs a bucket of a real S3 server up and restores it into another one, then compares the two
# with a client that is not ours. Everything happens in a temporary folder; the server is ended again.
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
root=$(readlink -f "$here/../..")
agent=$(readlink -f "$1")/bin/obs-agent
objects=${DEMO_OBJECTS:-2000}

work=$(mktemp -d "${TMPDIR:-/tmp}/obs-agent-demo.XXXXXX")
cleanup() {
  local rc=$?
  "$root/testing/real_server/rgw-down.sh" "$work/server" >/dev/null 2>&1 || true
  [ -n "${DEMO_KEEP:-}" ] && echo "kept: $work" || rm -rf "$work"
  exit $rc
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step_number=0
step() { step_number=$((step_number + 1)); printf '[%d] %s\n' "$step_number" "$*"; }
indent() { sed 's/^/      /'; }

step "starting a real S3 server (Ceph's radosgw, in memory, with TLS)"
if ! RGW_TLS_PORT=0 RGW_TIMEOUT=180 "$root/testing/real_server/rgw-up.sh" "$work/server" 0 >"$work/server.log" 2>&1; then
  cat "$work/server.log" >&2
  exit 1
fi
# shellcheck source=/dev/null
source "$work/server/env"
printf '%s' "$secret_key" >"$work/secret"
tools=(--endpoint "$endpoint" --access-key "$access_key" --secret-key "$secret_key")
echo "      $endpoint and $tls_endpoint"

step "filling bucket 'demo' with $objects objects, odd keys among them"
/usr/bin/python3 "$root/testing/bucket_tools/fill_bucket.py" "${tools[@]}" demo --objects "$objects" | indent

run() { "$agent" --state "$work/state" "$@"; }

step "adding the account (over TLS) and a pool"
run account add demo --endpoint "$tls_endpoint" --ca-file "$ca" --access-key "$access_key" \
  --secret-key-file "$work/secret" | indent
run account test demo | indent
run pool add disk "file://$work/pool" | indent

step "backing up /demo/ over 4 channels"
rc=0
run backup demo /demo/ --pool disk --channels 4 --json >"$work/backup.json" || rc=$?
tail -n 1 "$work/backup.json" | python3 "$here/show_outcome.py" | indent
# The bucket holds a folder object with data on purpose, so the honest outcome is "completed with errors".
[ "$rc" = 0 ] || [ "$rc" = 3 ] || { echo "the backup ended with exit code $rc" >&2; exit 1; }
set_id=$(tail -n 1 "$work/backup.json" | python3 -c 'import json,sys; print(json.load(sys.stdin)["set"])')

step "the set in the pool"
run sets | indent
run ls "$set_id" /demo/ | head -n 8 | indent

step "verifying every stored byte"
run verify "$set_id" | indent

step "restoring into bucket 'demo-restored'"
run restore "$set_id" --map demo=demo-restored --create-bucket --existing overwrite --json >"$work/restore.json"
tail -n 1 "$work/restore.json" | python3 "$here/show_outcome.py" | indent

step "comparing both buckets key by key and byte by byte with boto3"
/usr/bin/python3 "$root/testing/bucket_tools/compare_buckets.py" "${tools[@]}" --ignore-folder-objects demo demo-restored | indent

step "what the rules left out"
python3 "$here/show_outcome.py" --left-out <"$work/backup.json" | indent

echo "demo: passed"
