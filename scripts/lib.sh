# shellcheck shell=bash disable=SC2154
# What the scripts share. Each sources it before anything else; the arguments that it takes, besides
# --help, stand in its array `accepts`. From here on the current folder is the project's root.
program=scripts/${0##*/}

die() { # STATUS MESSAGE
  printf '%s: %s\n' "$program" "$2" >&2
  exit "$1"
}

# The help is the comment at the top of the script.
help() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }

check_arguments() {
  local argument
  for argument in "$@"; do
    case " --help ${accepts[*]} " in
      *" $argument "*) [ "$argument" != --help ] || { help; exit 0; } ;;
      *) die 2 "unknown argument '$argument'; --help says what there is" ;;
    esac
  done
}

step() { printf '\n== %s\n' "$1"; }

# An older log must never be taken for this run's.
start_log() { # LOG
  { mkdir -p "$(dirname "$1")" && : >"$1"; } 2>/dev/null || die 1 "cannot write $1"
}

# Runs a command whose output matters only when it fails.
logged() { # LOG COMMAND...
  local log=$1
  shift
  start_log "$log"
  "$@" >"$log" 2>&1 || {
    tail -n 60 "$log"
    die 1 "$1 failed; all of its output is in $log"
  }
}

check_arguments "$@"
cd "$(dirname "$0")/.."
