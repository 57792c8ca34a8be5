# What both boots of the demo share.
set -euo pipefail

snbf=build/snbf
work=/mnt/data
store=/mnt/store
backups=$store/backups
cow=$store/cow
ballast_mib=16

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
# The bytes that the COW files hold.
copied() { du -sB1 "$cow" | cut -f1; }
# measure NAME COMMAND...: how long it took, and how much was copied for snaps meanwhile.
measure() {
  local name=$1 before
  shift
  before=$(copied)
  seconds "${name}_seconds" "$@"
  fact "${name}_copied" $(($(copied) - before))
}
rewrite_ballast() {
  dd if=/dev/zero of="$work/ballast" bs=64k count=$((ballast_mib * 16)) conv=notrunc oflag=direct status=none
}

sold() { sqlite3 -cmd '.timeout 60000' "$1" 'SELECT count(*) FROM sales;'; }
shop_opens() {
  (while [ ! -e /run/closed ]; do
    sqlite3 -cmd '.timeout 60000' "$work/shop.db" 'INSERT INTO sales(item) VALUES (hex(randomblob(24)));'
    sleep 0.2
  done) &
  shop=$!
}
shop_closes() {
  touch /run/closed
  wait "$shop"
}

json() { python3 -c 'import json, sys; value = json.load(sys.stdin)
for key in sys.argv[1:]: value = value[int(key) if key.lstrip("-").isdigit() else key]
print(value)' "$@"; }

load() {
  insmod build/snbf.ko
  mkdir -p "$work" "$store"
}
