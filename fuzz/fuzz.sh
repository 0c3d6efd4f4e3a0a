#!/usr/bin/env bash
# Builds and runs the fuzz targets:
#   fuzz.sh build                     into build/fuzz
#   fuzz.sh run TARGET SECONDS        from the corpus in the tree; what is found lies in build/fuzz/findings
#   fuzz.sh long TARGET SECONDS       the same, and what reaches something new is kept in build/fuzz/kept for the next time
#   fuzz.sh planted                   whether the driver finds the mistakes that are planted in a target
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
built=build/fuzz/bin
findings=build/fuzz/findings

planted() {
  local kind status
  folder=$(mktemp -d)
  trap 'rm -rf "$folder"' EXIT
  for kind in r:crash l:leak h:hang t:crash u:crash w:wrong; do
    mkdir "$folder/corpus"
    printf '%s12345678' "${kind%:*}" > "$folder/corpus/seed"
    status=0
    "$built/fuzz_planted" --seconds 120 --seed 1 --limit 2 --findings "$folder/found" "$folder/corpus" > "$folder/log" 2>&1 || status=$?
    if [ "$status" -eq 0 ] || ! ls "$folder/found/fuzz_planted-${kind#*:}-"* > /dev/null; then
      tail -30 "$folder/log" >&2
      echo "fuzz: the planted mistake '$kind' was not found (exit code $status)" >&2
      exit 1
    fi
    # What was found shows the mistake again by itself.
    if "$built/fuzz_planted" --limit 2 --findings "$folder/again" "$folder/found/"* > "$folder/log" 2>&1; then
      echo "fuzz: the input for the planted mistake '$kind' does not show it" >&2
      exit 1
    fi
    echo "fuzz: planted mistake '$kind' found"
    rm -rf "$folder/corpus" "$folder/found" "$folder/again"
  done
}

case ${1:-} in
  build)
    cmake --preset fuzz
    cmake --build --preset fuzz -j "$(nproc)"
    ;;
  run) exec "$built/fuzz_$2" --seconds "$3" --findings "$findings" "fuzz/corpus/$2" ;;
  long) exec "$built/fuzz_$2" --seconds "$3" --findings "$findings" --keep "build/fuzz/kept/$2" "fuzz/corpus/$2" ;;
  planted) planted ;;
  *) sed -n '2,6p' "$0" >&2; exit 2 ;;
esac
