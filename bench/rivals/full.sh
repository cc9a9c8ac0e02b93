#!/system/bin/sh
# What a boot with a full dump cannot avoid: a normal boot's work, the copy, its flushes and the
# header that is cleared behind it:
#   full.sh OFFSET SIZE      of the dump in userdata, in bytes
set -e
part=/dev/block/by-name/userdata
root=/data/vendor/log/reliability
line=$(cat /proc/cmdline)
read -r -N 472 header </dev/block/by-name/rawdump
print "system exception core [NA], reason [PS_HOLD], time [20240101000000-00000000], sysreboot" \
  "[true], bootup_keypoint [NA], category [NORMALBOOT]" |
  dd of=$root/dumplog/history.log oflag=append,sync conv=notrunc status=none
dd if=$part of=$root/fulldumplog/fulldump.bin bs=512K iflag=skip_bytes,count_bytes oflag=sync \
  skip="$1" count="$2" status=none
fsync $root/fulldumplog/fulldump.bin $root/fulldumplog
dd if=/dev/zero of=$part bs=56 count=1 oflag=seek_bytes,sync seek="$1" conv=notrunc status=none
: >$root/fulldumplog/DONE
