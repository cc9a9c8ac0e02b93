#!/system/bin/sh
# Saves what an abnormal boot's daemon saves, in its order and with its flushes:
#   abnormal.sh PACKER [ARGUMENT...]      the minidump's compressor, from standard input to output
set -e
part=/dev/block/by-name/rawdump
root=/data/vendor/log/reliability/dumplog
folder=$root/20300101000000-00000000

region() { # FILE OFFSET SIZE: copies a range of the partition, each 512 KiB flushed
  dd if=$part of="$1" bs=512K iflag=skip_bytes,count_bytes oflag=sync skip="$2" count="$3" status=none
}
clear() { # OFFSET SIZE: zeroes a record of the partition
  dd if=/dev/zero of=$part bs="$2" count=1 oflag=seek_bytes,sync seek="$1" conv=notrunc status=none
}
text() { # NAME OFFSET SIZE: the printable text of a log region, flushed before its raw copy goes
  region "$folder/$1_tmp" "$2" "$3"
  strings "$folder/$1_tmp" >"$folder/$1"
  fsync "$folder/$1"
  rm "$folder/$1_tmp"
}

mkdir "$folder"
text xbl_abl 524288 262144
text last_xbl_abl 786432 262144
clear 0 472
text last_kmsg 2097152 1572864
text tz_log 3145728 1048576
region "$folder/tmp.bin" 4194304 29360128
"$@" <"$folder/tmp.bin" >"$folder/rawdump.bin"
rm "$folder/tmp.bin"
fsync "$folder/rawdump.bin" $root
clear 4194304 56
: >"$folder/DONE"
line=$(cat /proc/cmdline)
print "system exception core [NA], reason [panic], time [20300101000000-00000000], sysreboot" \
  "[true], bootup_keypoint [NA], category [AP_S_PANIC]" |
  dd of=$root/history.log oflag=append,sync conv=notrunc status=none
