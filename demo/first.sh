# The first boot: attach, fill, back up under a running writer, work, back up again, fetch a lost file from a
# snap, restore, compare, hang ten snaps on the node; then the power fails.
. demo/lib.sh

load
for disk in part spare; do
  echo 'start=2048, type=linux' | sfdisk --quiet /dev/guest/$disk
done
part=$(readlink -f /dev/guest/part)1
spare=$(readlink -f /dev/guest/spare)1
mkfs.ext4 -q -F /dev/guest/store
mount /dev/guest/store "$store"
mkdir "$store/bitmaps" "$cow"
fact partition "$(blockdev --getsize64 "$part")"

say "A plain partition with ext4, attached: the node is used in its place."
mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 "$part"
run $snbf attach "$part" --name data --extent 64K --bitmaps "$store/bitmaps" --start
run mount /dev/snbf/snbf0 "$work"
tar -xf /dev/guest/tree -C "$work"
sqlite3 "$work/shop.db" 'CREATE TABLE orders(id INTEGER PRIMARY KEY, item TEXT, paid INTEGER);
  CREATE TABLE sales(id INTEGER PRIMARY KEY, item TEXT);
  WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000)
  INSERT INTO orders SELECT i, hex(randomblob(24)), 0 FROM n;'
dd if=/dev/urandom of="$work/ballast" bs=1M count=$ballast_mib status=none
sync
fact used "$(df -B1 --output=used "$work" | tail -1 | tr -d ' ')"

say "A shop that never closes writes into its database from now on."
shop_opens

say "The first backup is full, and of one moment: it is taken from a snap."
seconds full_seconds $snbf backup data "$backups" --cow "$cow"
fact full "$(json points -1 data_bytes < "$backups/manifest.json")"

say "A day's work: edits, new files, deletions, appends, a database updated in place."
find "$work" -name '*.txt' -size +1k | sort | sed -n 1,150p | while read -r file; do
  sed -i '1s/^/edited: /' "$file"
done
find "$work" -name '*.gz' | sort | sed -n 1,200p | xargs rm
cp -r /usr/share/perl "$work/new"
for day in 1 2 3; do dmesg >> "$work/journal.log"; done
sqlite3 -cmd '.timeout 60000' "$work/shop.db" 'UPDATE orders SET paid = 1 WHERE id % 97 = 0;'
sync

run $snbf changes data
$snbf changes data > /run/guest/changes.txt
$snbf changes data --as svg > /run/guest/changes.svg
fact extents "$($snbf changes data --json | json extent_count)"
fact changed "$($snbf changes data --json | json changed_extents)"

say "The second backup copies what changed, while the shop goes on selling."
sold_before=$(sold "$work/shop.db")
seconds incr_seconds $snbf backup data "$backups" --cow "$cow"
fact incr "$(json points -1 data_bytes < "$backups/manifest.json")"
fact sold_meanwhile $(($(sold "$work/shop.db") - sold_before))

say "A file is lost. A snap still has it."
run $snbf snap create data --cow "$cow" --name yesterday
lost=$(find "$work" -mindepth 2 -type f -size +64k | sort | sed -n 1p)
sum=$(sha256sum < "$lost")
run rm "$lost"
sync
mkdir -p /mnt/yesterday
run $snbf mount yesterday /mnt/yesterday
run cp "/mnt/yesterday${lost#"$work"}" "$lost"
[ "$(sha256sum < "$lost")" = "$sum" ]
run $snbf umount yesterday
run $snbf snap delete yesterday
fact lost "${lost#"$work"/}"
fact lost_bytes "$(stat -c %s "$lost")"

say "The second backup, restored onto another disk: a whole file system and a whole database, of one moment."
run $snbf restore "$backups" "$spare" --yes
run e2fsck -fn "$spare"
mkdir -p /mnt/spare
mount -o ro "$spare" /mnt/spare
cp /mnt/spare/shop.db* /run/
umount /mnt/spare
[ "$(run sqlite3 /run/shop.db 'PRAGMA integrity_check;' | tail -1)" = ok ]

say "The shop closes. A third backup, compared byte for byte with the partition, and restored."
shop_closes
run umount "$work"
run $snbf backup data "$backups" --cow "$cow"
$snbf verify "$backups" --against /dev/snbf/snbf0 --json > /run/against.json
fact compared "$(json compared_bytes < /run/against.json)"
fact left_out "$(json skipped_bytes < /run/against.json)"
seconds restore_seconds $snbf restore "$backups" "$spare" --yes
run e2fsck -fn "$spare"

say "Ten snaps cost what one costs: what is overwritten is copied once."
run mount /dev/snbf/snbf0 "$work"
run $snbf snap create data --cow "$cow" --name snap1
measure one rewrite_ballast
for number in 2 3 4 5 6 7 8 9 10; do run $snbf snap create data --cow "$cow" --name snap$number; done
measure ten rewrite_ballast
run $snbf snap list data
run $snbf snap delete --all data --yes

say "Work goes on. Then the power fails."
cp -r /usr/share/i18n "$work/more"
sync
echo crash >&3
sleep 60
