#!/system/bin/sh
# What a normal boot cannot avoid, and nothing else: the kernel command line through cat, the reason
# header, one history line that is on storage when the write returns.
line=$(cat /proc/cmdline)
read -r -N 472 header </dev/block/by-name/rawdump
print "system exception core [NA], reason [PS_HOLD], time [20240101000000-00000000], sysreboot" \
  "[true], bootup_keypoint [NA], category [NORMALBOOT]" |
  dd of=/data/vendor/log/reliability/dumplog/history.log oflag=append,sync conv=notrunc status=none
