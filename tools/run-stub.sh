# The product "$name" in one file: this script, and the folder from line $lines + 3 on.
# It unpacks to a private folder, runs the product there, brings back its log, and cleans up.
# shellcheck shell=sh disable=SC2154,SC2317,SC2015 # three names stand above; traps call functions
unset CDPATH
start=$PWD work='' inside='' signal=''
# All that end a shell, but those that tell of a fault of its own.
signals='HUP INT QUIT TRAP ABRT USR1 USR2 PIPE ALRM TERM XCPU XFSZ VTALRM PROF PWR SYS'
case $0 in /*) file=$0 ;; *) file=$PWD/$0 ;; esac

usage() {
  cat <<END
Usage: $0 [--] [ARGUMENT]...
  -- ARGUMENT...   run the product with these arguments; without any, it asks
  --check          only verify this file
  --unpack DIR     only unpack, to the new directory DIR
  --help           this text
The log comes to the working directory. TMPDIR names the directory to unpack in (/tmp).
END
}

fail() {
  printf '%s\n' "$0: $1" >&2
  exit 2
}

exists() { [ -e "$1" ] || [ -L "$1" ]; }

# number_old: what has the log's name gets the first number that is free. Never a directory.
number_old() {
  old=$(mktemp -u "$log.XXXXXX") number=1
  [ ! -d "$log" ] && mv -f "$log" "$old" 2>/dev/null || return
  # Another run may take the number in between; where links cannot be made, nothing takes it.
  while exists "$log.$number" || ! ln -T "$old" "$log.$number" 2>/dev/null; do
    exists "$log.$number" || return 0
    number=$((number + 1))
  done
  rm -f "$old"
}

# Links and files of others may have been planted under the log's name where this was started. So it
# is created under a name that nobody knows, exclusively, and named by calls that follow no link. A
# log that finds no place stays beside the folder.
bring_log() {
  cd product || return
  set --
  for part in 4 3 2 1 0 ''; do
    [ ! -f "$name.log$part" ] || set -- "$@" "$name.log$part"
  done
  [ $# -gt 0 ] || return 0
  log=${start%/}/$name.log
  new=$(mktemp -u "$log.XXXXXX")
  if [ ! -d "$start" ] || ! ( umask 077 && set -C && cat "$@" >"$new" ) 2>/dev/null; then
    [ ! -d "$start" ] || rm -f "$new"
    mv "$@" ..
    printf '%s\n' "$name: the log could not be put into $start" >&2
    return
  fi
  # Another run may put its own there in between.
  for _ in 1 2 3 4 5 6 7 8 9 10; do
    ! ln -T "$new" "$log" 2>/dev/null || { rm -f "$new"; return; }
    number_old || [ ! -d "$log" ] || break
  done
  printf '%s\n' "$name: the log is $new" >&2
}

# Only what was unpacked is removed: a product may have been installed beside it. What has the
# folder's name by now may be another one, so this is done from within, where this shell still is.
clean_up() {
  chmod u+rwx .
  [ ! -d product ] || ( bring_log )
  rm -rf product 2>/dev/null || {
    chmod -R u+rwx product
    rm -rf product
  }
  # Not what this shell remembers: the folder may have been renamed, or be gone.
  place=$(env pwd -P 2>/dev/null) && cd -P .. || return
  rmdir "./${place##*/}" 2>/dev/null ||
    printf '%s\n' "$name: kept in $place:" "$(ls -A "./${place##*/}")" >&2
}

leave() {
  status=$?
  trap - EXIT
  # shellcheck disable=SC2086 # words
  trap '' $signals
  if [ -n "$inside" ]; then
    clean_up
  elif [ -n "$work" ]; then
    rmdir "$work"
  fi
  if [ -n "$signal" ]; then
    # shellcheck disable=SC3045 # no core file of this shell where its limit can be set
    ulimit -c 0 2>/dev/null
    trap - "$signal"
    kill -s "$signal" $$
    [ "$signal" != QUIT ] || status=131 # not every shell can be ended by this one
  fi
  exit "$status"
}

# The product gets TERM whatever came: in the background it was started with INT ignored.
caught() {
  signal=$1
  [ -n "$!" ] || exit 2
  kill -s TERM $! 2>/dev/null
}

unpack() {
  tail -n +$((lines + 3)) <"$file" | tar -xOf - ./product.tar.gz | gzip -dc | tar -xpof - -C "$1"
}

# safe DIRECTORY: nobody else can put another one in its place; if not, $unsafe says where. Who owns
# the root directory counts as root does: in a name space of users that may be another number.
safe() {
  [ -z "$1" ] || safe "${1%/*}" || return
  unsafe=${1:-/}
  # shellcheck disable=SC2046 # two words
  set -- $(stat -c '%u 0%a' -- "$unsafe")
  case $1 in 0 | "$(id -u)" | "$(stat -c %u /)") ;; *) return 1 ;; esac
  [ $(($2 & 022)) = 0 ] || [ $(($2 & 01000)) != 0 ]
}

# run ARGUMENT...: the product as a child that can be signalled, on the same standard input.
run() {
  if ( : 3<&0 ) 2>/dev/null; then exec 3<&0; else exec 3</dev/null; fi
  ( cd product && exec "./$name" "$@" ) <&3 3<&- &
  while :; do
    wait $! && status=0 || status=$?
    kill -0 $! 2>/dev/null || exit "$status"
  done
}

main() {
  [ "$(head -n 2 <"$file" | sed 's/[0-9a-f]\{64\}//' | sha256sum)" = "$begin" ] ||
    fail "this file is damaged; nothing was done"
  case ${1-} in
  -h | -help | --help) usage; exit ;;
  --check) echo "$0: OK"; exit ;;
  --unpack)
    [ $# = 2 ] || fail "--unpack takes one directory"
    case $2 in /*) ;; *) set -- "$1" "./$2" ;; esac
    mkdir "$2" && unpack "$2" || fail "cannot unpack to '$2'"
    exit
    ;;
  --) shift ;;
  *) [ $# = 0 ] || { usage >&2; exit 2; } ;;
  esac

  # Files that the arguments name are the caller's, but the product runs elsewhere.
  count=$# option=''
  while [ "$count" -gt 0 ]; do
    word=$1
    shift
    case $option:$word in
    -answers:[!/-]* | -record:[!/-]*) word=$start/$word ;;
    esac
    option=$word count=$((count - 1))
    set -- "$@" "$word"
  done

  directory=$(cd -P -- "${TMPDIR:-/tmp}" && pwd -P) || fail "TMPDIR must name a directory"
  safe "${directory%/}" ||
    fail "$unsafe is another user's, or others can write to it; set TMPDIR to another directory"
  trap leave EXIT
  for signal in $signals; do
    # shellcheck disable=SC2064 # each with its own name
    trap "caught $signal" "$signal"
  done
  signal=''
  # Not to be interrupted between the creation and the name of it.
  # shellcheck disable=SC2086 # words
  work=$(trap '' $signals; exec mktemp -d "${directory%/}/$name.XXXXXX") ||
    fail "cannot unpack in $directory; set TMPDIR to another directory"
  cd -P "$work" && [ "$(pwd -P)" = "$work" ] || fail "$work was replaced"
  inside=1
  # Not called after the product: many are installed beside their folder, under their name.
  mkdir product && unpack product && chmod u+rwx product ||
    fail "cannot unpack in $directory; set TMPDIR to another directory"
  [ -x "product/$name" ] ||
    fail "no program can be run in $directory; set TMPDIR to a directory that allows it"
  run "$@"
}

main "$@"; exit
