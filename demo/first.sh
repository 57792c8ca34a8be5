# The first boot: attach, fill, back up, work, back up again, restore, compare; then the power fails.
. demo/lib.sh

load
for disk in part spare; do
  echo 'start=2048, type=linux' | sfdisk --quiet /dev/guest/$disk
done
part=$(readlink -f /dev/guest/part)1
spare=$(readlink -f /dev/guest/spare)1
mkfs.ext4 -q -F /dev/guest/store
mount /dev/guest/store "$store"
mkdir "$store/bitmaps"
fact partition "$(blockdev --getsize64 "$part")"

say "A plain partition with ext4, attached: the node is used in its place."
mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 "$part"
run $snbf attach "$part" --name data --extent 64K --bitmaps "$store/bitmaps" --start
run mount /dev/snbf/snbf0 "$work"
tar -xf /dev/guest/tree -C "$work"
sqlite3 "$work/shop.db" 'CREATE TABLE orders(id INTEGER PRIMARY KEY, item TEXT, paid INTEGER);
  WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000)
  INSERT INTO orders SELECT i, hex(randomblob(24)), 0 FROM n;'
sync
fact used "$(df -B1 --output=used "$work" | tail -1 | tr -d ' ')"

say "The first backup is full. The file system is frozen while it is copied."
seconds full_seconds $snbf backup data "$backups" --freeze
fact full "$(json points -1 data_bytes < "$backups/manifest.json")"

say "A day's work: edits, new files, deletions, appends, a database updated in place."
find "$work" -name '*.txt' -size +1k | sort | sed -n 1,150p | while read -r file; do
  sed -i '1s/^/edited: /' "$file"
done
find "$work" -name '*.gz' | sort | sed -n 1,200p | xargs rm
cp -r /usr/share/perl "$work/new"
for day in 1 2 3; do dmesg >> "$work/journal.log"; done
sqlite3 "$work/shop.db" 'UPDATE orders SET paid = 1 WHERE id % 97 = 0;'
sync
run umount "$work"

run $snbf changes data
$snbf changes data > /run/guest/changes.txt
$snbf changes data --as svg > /run/guest/changes.svg
fact extents "$($snbf changes data --json | json extent_count)"
fact changed "$($snbf changes data --json | json changed_extents)"

say "The second backup copies what changed."
seconds incr_seconds $snbf backup data "$backups"
fact incr "$(json points -1 data_bytes < "$backups/manifest.json")"

say "The chain, restored onto another disk, and compared byte for byte with the partition."
seconds restore_seconds $snbf restore "$backups" "$spare" --yes
run cmp /dev/snbf/snbf0 "$spare"
run e2fsck -fn "$spare"

say "Work goes on. Then the power fails."
run mount /dev/snbf/snbf0 "$work"
cp -r /usr/share/i18n "$work/more"
sync
echo crash >&3
sleep 60
