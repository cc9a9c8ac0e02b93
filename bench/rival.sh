#!/system/bin/sh
# What a boot cannot avoid: the kernel command line through cat, the reason header, one history line that is on storage
# when the write returns. With a packer also what an abnormal boot's daemon saves, with its flushes:
#   rival.sh [PACKER ARGUMENT...]      the minidump's compressor, from standard input to output
# Places come in the environment, each as "OFFSET SIZE", with a name in front in LOGS.
set -e

region() { # FILE OFFSET SIZE: copies a range of the partition, each chunk flushed
  dd if="$RAWDUMP" of="$1" bs="$CHUNK" iflag=skip_bytes,count_bytes oflag=sync skip="$2" count="$3" status=none
}
clear() { # OFFSET SIZE: zeroes a record of the partition
  dd if=/dev/zero of="$RAWDUMP" bs="$2" count=1 oflag=seek_bytes,sync seek="$1" conv=notrunc status=none
}
text() { # NAME OFFSET SIZE: the printable text of a log region, flushed before its raw copy goes
  region "$1_tmp" "$2" "$3"
  strings "$1_tmp" >"$1"
  fsync "$1"
  rm "$1_tmp"
}
collect() {
  mkdir "$DUMPLOG/$TIME"
  cd "$DUMPLOG/$TIME"
  print -r -- "$LOGS" | while read -r name offset size; do
    text "$name" "$offset" "$size"
  done
  # shellcheck disable=SC2086
  clear $NODE
  # shellcheck disable=SC2086
  region tmp.bin $MINIDUMP
  "$@" <tmp.bin >rawdump.bin
  rm tmp.bin
  fsync rawdump.bin "$DUMPLOG"
  # shellcheck disable=SC2086
  clear $MINIDUMP_HEADER
  : >DONE
}

line=$(cat "$CMDLINE")
read -r -N "${NODE#* }" header <"$RAWDUMP"
[ $# = 0 ] || collect "$@"
print -r -- "$LINE" | dd of="$HISTORY" oflag=append,sync conv=notrunc status=none
