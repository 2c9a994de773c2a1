#!/usr/bin/env bash
# One product as one file: made by installer-pack, run, damaged, interrupted.
# Usage: tests/pack_test.sh DIRECTORY-OF-THE-PROGRAMS
set -euo pipefail
programs=$(cd "$1" && pwd) examples=$(cd "$(dirname "${BASH_SOURCE[0]}")/../examples" && pwd)
scratch=$(mktemp -d) failures=0
trap 'chmod -R u+rwX "$scratch"; rm -rf "$scratch"' EXIT
mkdir "$scratch"/{tmp,bin,start}
chmod 711 "$scratch"
chmod 1777 "$scratch/tmp"
export TMPDIR=$scratch/tmp PATH=$programs:$PATH
cd "$scratch"

# is TITLE WANTED GOT
is() {
  [[ $2 != "$3" ]] || return 0
  printf 'FAILED %s: wanted "%s", got "%s"\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}
status() { local status=0; "$@" >out 2>&1 || status=$?; echo "$status"; }
# shellcheck disable=SC2012 # our own names
entries() { ls -A "$1" | paste -sd ' '; }
nothing_left() { is "$1: TMPDIR" "" "$(entries tmp)"; }
# ordinary COMMAND...: as a user for whom modes count.
ordinary() {
  if ((EUID)); then "$@"; else setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; fi
}

if ! command -v installer-check >/dev/null; then
  # shellcheck disable=SC2016
  printf '#!/bin/sh\n! grep -q MkDr "$1"/*.cpy\n' >bin/installer-check
  chmod +x bin/installer-check
  PATH=$PATH:$scratch/bin
fi

cp -R "$examples/demo" board
cp "$programs/installer" board/noticeboard
sed -i "s|^dir .*|dir $scratch/target|" board/noticeboard.dat
mkdir board/files/empty
chmod 750 board/files/board/cgi

# first TOOL ARGUMENT...: status and first line.
first() { echo "$(status "$@") $(head -n 1 out)"; }
usage='usage: installer-pack FOLDER [FILE.run]'
is "--help" "0 Makes one self" "$(first installer-pack --help | cut -d - -f 1)"
is "--help: usage" "Usage: ${usage#*: }" "$(tail -n 1 out)"
is "-h" "$(cat out)" "$(installer-pack -h)"
is "wrong option" "2 installer-pack: no option '-x'; $usage" "$(first installer-pack -x board)"
is "nothing" "2 installer-pack: $usage" "$(first installer-pack)"
is "too much" "2 installer-pack: $usage" "$(first installer-pack board a.run b)"
is "behind --" "2 installer-pack: '-x' is no folder" "$(first installer-pack -- -x)"

# The same folder gives the same file, wherever and by whomever.
is "pack" 0 "$(status installer-pack board)"
cp -R --preserve=mode board "./-a copy"
sleep 1 # the time must not count
is "pack again" 0 "$(umask 077; TZ=UTC+5 GZIP=-1 status installer-pack "-a copy" -again.run)"
is "the same to the bit" 0 "$(status cmp noticeboard.run ./-again.run)"
is "leaves only the file" "-a copy -again.run bin board noticeboard.run out start tmp" \
  "$(entries .)"

# refused TEXT COMMAND...: changes a copy of the folder, which is then refused with the text.
refused() {
  local text=$1
  rm -rf copy copy.run
  cp -R board copy
  (cd copy && "${@:2}")
  is "refused: $text" 1 "$(status installer-pack copy copy.run)"
  grep -qF -- "$text" out || is "message" "$text" "$(cat out)"
  [[ ! -e copy.run ]] || is "no file: $text" "" copy.run
}
rename_product() { for file in noticeboard*; do mv "$file" "notice.${file#notice}"; done; }
refused "is the log of a run" touch noticeboard.log
refused "is the log of a run" touch noticeboard.log0
refused "'noticeboard' is missing" rm noticeboard
refused "'noticeboard' is missing" cp noticeboard.q noticeboard
refused "must be called 'noticeboard'" mv noticeboard installer
refused "not executable" chmod -x noticeboard
refused "no NAME.dat" rm noticeboard.dat
refused "more than one product" touch other.dat
refused "no name for a product" rename_product
refused "leads to nothing inside" ln -s /etc/hostname files/link
refused "leads to nothing inside" ln -s ../out files/link
refused "was not packed" sed -i s/MkDir/MkDr/ noticeboard.cpy
is "no folder" 2 "$(status installer-pack nowhere)"
is "inside the folder" 2 "$(cd board && status installer-pack . 2>&1 | tail -n 1)"
rm -f board/out
is "a line end" 2 "$(status installer-pack board $'a\nb.run')"

# What is unpacked is the folder.
is "unpack" 0 "$(status ./noticeboard.run --unpack unpacked)"
modes() { (cd "$1" && find . -printf '%p %m %l\n' | LC_ALL=C sort); }
is "unpacked" "$(modes board)" "$(modes unpacked; diff -r board unpacked)"
is "unpack over it" 2 "$(status ./noticeboard.run --unpack unpacked)"
is "check" "./noticeboard.run: OK" "$(./noticeboard.run --check)"
is "unknown option" 2 "$(status ./noticeboard.run -automate)"

# Unattended; the log and the exit status come through, and no earlier log is lost.
cd start
one=../noticeboard.run
is "install" 0 "$(status $one -- -automate -strict)"
is "success" 1 "$(grep -c '^Success' out)"
is "upgrade" 0 "$(status $one -- -automate)"
is "upgrade ran" 1 "$(grep -c '^\[Upgrade\]' out)"
is "no tag" 1 "$(status $one -- -special)"
is "logs" "noticeboard.log noticeboard.log.1 noticeboard.log.2 out" "$(entries .)"
grep -q '\[Install\]\|Processing' noticeboard.log.1 || is "first log" kept lost
rm noticeboard.*
echo precious >precious
ln -s precious noticeboard.log
is "remove" 0 "$(status $one -- -automate -special remove)"
is "link kept" "precious precious" "$(cat noticeboard.log.1 precious | paste -sd ' ')"
is "removed" no "$([[ -e ../target ]] && echo yes || echo no)"
rm noticeboard.* precious
mkdir ../other
ln -s ../other noticeboard.log
is "link to a directory" 0 "$(status $one -- -version)"
is "told where" 1 "$(grep -c 'the log is .*/noticeboard.log.......$' out)"
is "nothing put there" "" "$(entries ../other)"
rm noticeboard.*
for _ in {1..6}; do $one -- -version >/dev/null & done
wait
is "six at once" "$(echo noticeboard.log{,.{1..5}})" "$(echo noticeboard.log*)"
mkdir gone
is "nowhere to put it" 0 \
  "$(cd gone && rmdir ../gone && "$scratch/noticeboard.run" -- -version >/dev/null 2>&1; echo $?)"
is "kept" "noticeboard.log" "$(ls ../tmp/*)"
rm -r ../tmp/*
is "closed input" 0 "$(status $one <&-)"
cd ..
# A product that does what its argument says: a shell.
cp -R board script
cp "$BASH" script/noticeboard
mkdir script/closed
touch script/closed/file
chmod 555 script/closed script
is "pack a shell" 0 "$(status installer-pack script script.run)"
is "arguments" "-special  a  b -answers $PWD/a -record /r -answers - --" \
  "$(./script.run -- -c 'echo "$*"' - -special ' a  b' -answers a -record /r -answers - --)"
nothing_left "runs"

# Through a terminal, with every default.
rm -rf start/*
if script -qec true /dev/null >/dev/null 2>&1; then
  (cd start && { echo 1; printf '\n%.0s' {1..40}; } |
    script -qec ../noticeboard.run typescript >/dev/null)
  is "interactive" 1 "$(grep -c '^Success' start/typescript)"
  is "log" 1 "$(find start -name noticeboard.log -size +0 | wc -l)"
  nothing_left "interactive"
else
  echo "Not tried: a terminal (no pseudo-terminals)"
fi
is "standard input" 0 "$(echo 4 | status ./noticeboard.run)"

# Damaged in any place: nothing runs.
rm -rf target start/* noticeboard.log
size=$(stat -c %s noticeboard.run)
for place in 1 20 60 120 200 300 700 2000 $((size / 2)) $((size - 9)) $((size - 1)); do
  cp noticeboard.run damaged.run
  printf '\377' | dd of=damaged.run bs=1 seek="$place" conv=notrunc status=none
  is "byte $place" 2 "$(status ./damaged.run -- -automate)"
  ((place > 10)) || continue # less than the first line: a comment for any shell
  head -c "$place" noticeboard.run >damaged.run
  is "cut at $place" 2 "$(status ./damaged.run -- -automate)"
done
is "not from a pipe" 2 "$(status sh <noticeboard.run)"
is "nothing ran" "" "$(find . -name noticeboard.log -o -name target)"
nothing_left "damaged"

# The log is for its user alone, begins with its oldest part, and stays where there is no place.
# shellcheck disable=SC2016 # for the product
is "parts" 0 "$(umask 022; status ./script.run -- \
  -c 'for part in "" 0 1 2 3 4; do echo "part $part" >noticeboard.log$part; done')"
is "in order" "part 4 part 3 part 2 part 1 part 0 part " "$(paste -sd ' ' noticeboard.log)"
is "mode" 600 "$(stat -c %a noticeboard.log)"
rm noticeboard.log
is "no log" 0 "$(status ./script.run -- -c true)"
is "none made" "" "$(find . -maxdepth 1 -name 'noticeboard.log*')"
mkdir shut
chmod 555 shut
is "no place" "noticeboard: the log could not be put into $PWD/shut" \
  "$(cd shut && ordinary ../script.run -- -c 'echo kept >noticeboard.log' 2>&1 | head -n 1)"
is "kept" "kept noticeboard.log" "$(cat tmp/*/*) $(ls tmp/*)"
rm -r tmp/*

# By whatever shell it is run: the status is the signal's, the log is there, and the folder is gone,
# be it hard to remove, but not what took its place.
for shell in dash 'busybox sh' bash; do
  read -ra run <<<"$shell"
  command -v "${run[0]}" >/dev/null || { echo "Not tried: $shell (not installed)"; continue; }
  for signal in HUP:129 INT:130 QUIT:131 ABRT:134 USR1:138 USR2:140 PIPE:141 ALRM:142 TERM:143 \
    XCPU:152 XFSZ:153 VTALRM:154 PROF:155; do
    rm -f noticeboard.log console
    env --default-signal "${run[@]}" ./script.run -- -c 'trap "sleep 0.1; exit 7" TERM
      echo ready | tee noticeboard.log; while :; do sleep 0.05; done' >console 2>&1 &
    for _ in {1..200}; do ! grep -q ready console 2>/dev/null || break; sleep 0.05; done
    kill -s "${signal%:*}" $!
    got=0
    wait $! 2>/dev/null || got=$?
    is "$shell: $signal" "${signal#*:}" "$got"
    is "$shell: $signal: log" noticeboard.log "$(echo noticeboard.log*)"
    nothing_left "$shell: $signal"
  done
  while read -r work; do
    is "$shell: $work" "0 " "$(first ordinary "${run[@]}" ./script.run -- -c "$work")"
    nothing_left "$shell: $work"
  done <<'END'
mkdir -p a/b && touch a/b/c && chmod 000 a/b && chmod 555 a . ..
chmod -R u+w . && rm -r ../../noticeboard.??????
chmod -R u+w . && cd .. && mv product ../away && ln -s ../away product && rm -r ../away
END
  # shellcheck disable=SC2016 # for the other shell
  is "$shell: moved" 0 "$(status "${run[@]}" ./script.run -- \
    -c 'cd .. && mv "$PWD" ../moved && mkdir -p "$PWD/product/precious"')"
  is "$shell: in its place" precious "$(ls tmp/noticeboard.*/product)"
  rm -rf tmp/noticeboard.*
  nothing_left "$shell: moved"
done

# Where others could put another folder in the place of its own, it does not unpack.
mkdir -p tree/{open,sticky,group,other,own}/below
chmod 777 tree/open
chmod 1777 tree/sticky
chmod 770 tree/group
ln -s ../../own tree/open/below/link
((EUID)) || chown 65534 tree/other tree/sticky/below
while read -r wanted place refused; do
  ((EUID == 0)) || [[ $refused != */other && $refused != */sticky/* ]] || continue
  is "$place" "$wanted" "$(TMPDIR=$place status ./script.run -- -c true)"
  [[ -z $refused ]] || grep -qF " $PWD/$refused " out || is "$place: told" "$refused" "$(cat out)"
done <<END
0 tree/own
0 tree/sticky
0 $PWD/tree/own/../own/below
0 tree/open/below/link
2 tree/open tree/open
2 tree/open/below tree/open
2 tree/group tree/group
2 tree/group/below tree/group
2 tree/other tree/other
2 tree/other/below tree/other
2 tree/sticky/below tree/sticky/below
END
is "left in TMPDIR" "" "$(find tree -name 'noticeboard.*')"

is "no process left" "" "$(find /proc -maxdepth 2 -name cwd -lname "$TMPDIR/*" 2>/dev/null || true)"

# Where programs cannot be run, it says what to do.
if unshare --user --map-root-user --mount true 2>/dev/null; then
  unshare --user --map-root-user --mount sh -c 'mount -t tmpfs -o noexec none tmp &&
    ! ./noticeboard.run -- -automate && ls -A tmp' >noexec 2>&1 || true
  is "noexec" 1 "$(grep -c 'set TMPDIR to a directory that allows it' noexec)"
  is "noexec: lines" 1 "$(wc -l <noexec)"
else
  echo "Not tried: TMPDIR without permission to run programs (no mount name space)"
fi

((failures == 0)) || exit 1
echo "All of it holds."
