# What both boots of the demo share.
set -euo pipefail

snbf=build/snbf
work=/mnt/data
store=/mnt/store
backups=$store/backups

say() { printf '\n%s\n' "$*"; }
run() {
  printf '  $ %s\n' "$*"
  "$@"
}
fact() { echo "fact $*" >&3; }
# seconds NAME COMMAND...: runs it and reports how long it took.
seconds() {
  local name=$1 began=$EPOCHREALTIME
  shift
  run "$@"
  fact "$name" "$(awk -v a="$began" -v b="$EPOCHREALTIME" 'BEGIN { print b - a }')"
}
json() { python3 -c 'import json, sys; value = json.load(sys.stdin)
for key in sys.argv[1:]: value = value[int(key) if key.lstrip("-").isdigit() else key]
print(value)' "$@"; }

load() {
  insmod build/snbf.ko
  mkdir -p "$work" "$store"
}
