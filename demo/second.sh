# The second boot, after the power cut.
. demo/lib.sh

load
part=$(readlink -f /dev/guest/part)1
mount /dev/guest/store "$store"
run $snbf attach "$part" --name data --extent 64K --bitmaps "$store/bitmaps" --start
run mount /dev/snbf/snbf0 "$work"
run umount "$work"
say "The map lacks what was written before the cut, and says so: everything counts as changed."
run $snbf backup data "$backups" --cow "$cow" 2>&1 | tee /run/guest/second.txt
[ "$(json points -1 level < "$backups/manifest.json")" = full ]
why=$(sed -n 's/^full backup, because //p' /run/guest/second.txt)
[ -n "$why" ]
fact why "$why"
run $snbf stop data
run $snbf detach data
rmmod snbf
