#!/bin/sh
# Runs the product, on the host and in its folder. A note stands on the host from before the start
# until what was asked for is so; it is locked meanwhile, also when the controller is gone. Each of
# its lines is a run that began and did not end well: when, what, and which version, with tabs
# between.
# Usage: run.sh NOTE WHAT VERSION NOTE_SEEN MARKER MARKER_SEEN WANTED LOG NAME COMMAND...
#   SEEN: what was there when it was decided, as `print_of` tells it; "-": nothing.
#   WANTED: what must then be true of the marker: any, there, gone, or =VERSION.
# Prints the product's status, "-" where it was not started, and a line for all else that is not as
# it should be. The first reasons of the product, and their number, go to standard error. The parts
# of its log are appended to LOG and become one file, the oldest first.
set -u
note=$1 what=$2 version=$3 note_seen=$4 marker=$5 marker_seen=$6 wanted=$7 log=$8
shift 8
name=$1
shift
shown=20
# The work is not left half-done for a terminal that closes.
trap '' HUP

print_of() {
  [ -e "$1" ] || { echo -; return; }
  base64 <"$1" | tr -d '\n' | sha256sum | cut -d ' ' -f 1
}

# forget BYTES: all that was noted behind them; the note goes when nothing is left.
forget() {
  if [ "$1" -gt 0 ]; then truncate -s "$1" "$note"; else rm -f "$note"; fi
}

refuse() {
  printf '%s\n' - "Nothing was begun: $1"
  exit 0
}

# False: the note was removed before it was locked. (dash, bash and busybox have -ef.)
lock_note() {
  exec 9>>"$note"
  flock -n 9 || refuse "another run is at work: $(tail -n 1 "$note")"
  # shellcheck disable=SC3013
  [ "$note" -ef /proc/self/fd/9 ]
}

# An empty note is one that was never written to, and as good as none.
take_note() {
  problem=$( (: >>"$note") 2>&1) || refuse "no note of it can be made: $problem"
  until lock_note; do :; done
  size=$(wc -c <"$note")
  now=-
  [ "$size" -eq 0 ] || now=$(print_of "$note")
  if [ "$now" != "$note_seen" ] || [ "$(print_of "$marker")" != "$marker_seen" ]; then
    forget "$size"
    refuse "another run has changed this host since it was looked at"
  fi
  line=$(printf '%s\t%s\t%s' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$what" "$version")
  problem=$({ printf '%s\n' "$line" >&9; } 2>&1) && return
  forget "$size"
  refuse "no note of it can be made: $problem"
}

# Where the parts cannot be made one, the newest stays what it is.
keep_log() {
  set --
  # The one with a long number was the log until the product was killed while it moved them.
  for part in "$name".log4 "$name".log3 "$name".log2 "$name".log1 "$name".log0 \
    "$name".log.*[0-9] "$name".log; do
    [ ! -f "$part" ] || set -- "$@" "$part"
  done
  [ $# -gt 0 ] || return 0
  problem=$( (umask 077 && cat -- "$@" >>"$log") 2>&1) ||
    printf '%s\n' "The log could not be kept on the host: $problem"
  [ $# -eq 1 ] || { cat -- "$@" >"$name.whole" && mv -- "$name.whole" "$name.log"; } 2>/dev/null
}

# What is not as wanted of the marker.
odd() {
  there=no
  [ ! -e "$marker" ] || there=yes
  case $there:$wanted in
  *:any | yes:there | no:gone) return ;;
  yes:gone) echo "It ended well, but $marker is still there" && return ;;
  no:*) echo "It ended well, but $marker is not there" && return ;;
  esac
  held=$(cat "$marker")
  held=${held#"${held%%[![:space:]]*}"}
  held=${held%"${held##*[![:space:]]}"}
  [ "=$held" = "$wanted" ] || echo "It ended well, but $marker holds '$held', not '${wanted#=}'"
}

# settle STATUS: prints what is not as it should be.
settle() {
  case $1 in
  0) size=0 fault=$(odd) ;;
  2 | 3) fault= ;; # the work did not begin
  *) return ;;
  esac
  [ -z "$fault" ] || { printf '%s\n' "$fault"; return; }
  problem=$(forget "$size" 2>&1) || printf '%s\n' "The note of this run stays: $problem"
}

take_note
reasons=$("$@" 2>&1 >/dev/null </dev/null)
status=$?
faults=$(keep_log; settle "$status")

printf '%s\n' "$status" ${faults:+"$faults"}
[ -n "$reasons" ] || exit 0
count=$(printf '%s\n' "$reasons" | wc -l)
printf '%s\n' "$reasons" | head -n "$shown" >&2
[ "$count" -le "$shown" ] || echo "(the first $shown of $count lines; the log has them all)" >&2
