#!/usr/bin/env bash
# A product made by installer-new: which names it takes, and that it works as it is.
# Usage: tests/new_test.sh DIRECTORY-OF-THE-PROGRAMS
set -euo pipefail
programs=$(cd "$1" && pwd)
export PATH=$programs:$PATH
scratch=$(mktemp -d) failures=0
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

# is TITLE WANTED GOT
is() {
  [[ $2 != "$3" ]] || return 0
  printf 'FAILED %s: wanted "%s", got "%s"\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}
status() { local status=0; "$@" >out 2>&1 || status=$?; echo "$status"; }
tree() { (cd "$1" && find . -printf '%p %m\n' | LC_ALL=C sort); }

mkdir -p full/of work/empty link-to
touch full/of/it file
ln -s nowhere dangling
long=$(printf 'n%.0s' {1..64})
while read -r wanted folder; do
  is "name '$folder'" "$wanted" "$(status installer-new "$folder")"
  [[ $wanted == 1 || -x $folder/$(basename "$folder") ]] || is "program of '$folder'" there missing
done <<END
0 made/up/one-2_b+
0 work/empty
0 $long
0 work/../trailing/
1 n$long
1 two words
1 .hidden
1 a.b
1 -x
1 a/b&c
1 files
1 full/of
1 file
1 dangling
1 .
1 ..
END
usage='usage: installer-new FOLDER'
while IFS=: read -r wanted arguments line; do
  read -ra words <<<"$arguments"
  is "installer-new $arguments" "$wanted${line:+ installer-new:$line}" \
    "$(status installer-new "${words[@]}")${line:+ $(cat out)}"
done <<END
1:: $usage
1:one two: $usage
1:-x: no option '-x'; $usage
1:--x one: no option '--x'; $usage
1:--: $usage
0:-- made/behind:
0:-h:
0:--help:
END
is "--help" "Usage: ${usage#*: }" "$(tail -n 1 out)"
(umask 077; installer-new private >/dev/null)
is "closed to others" "700 700 644" \
  "$(stat -c %a private private/private private/private.dat | paste -sd ' ')"
is "in the working directory" 1 "$(cd link-to && status installer-new "$PWD"; rm -f out)"
is "nothing half made" 0 "$(find . -name '*.??????' | wc -l)"

installer-new shop >/dev/null
cd shop
if command -v installer-check >/dev/null; then
  is "installer-check" 0 "$(status installer-check -strict)"
else
  echo "Not tried: installer-check (not built)"
fi
is "other products' name" "" "$(grep -l hello ./*.* || true)"
run() { ./shop -automate "$@" >console 2>&1 || true; }

# A failed install is an install again, and then it is whole.
mkdir ../shop-installed
touch ../shop-installed/bin
run
is "install that fails" 1 "$(grep -c '^Failed' console)"
rm ../shop-installed/bin
sed -i "s/World/Ann's \"\$(id)\"/" shop.dat
run
is "install" "[Install] Success" "$(grep -oE '^\[Install\]|^Success' console | paste -sd ' ')"
is "installed" "Hello, Ann's \"\$(id)\"!" "$(../shop-installed/bin/greet)"

# An upgrade restores all that an install makes, and keeps the answers.
installed=$(tree ../shop-installed)
sed -i "s/Ann.*/World/" shop.dat
rm -r ../shop-installed/{bin,doc}
run
is "upgrade" "[Upgrade] Success" "$(grep -oE '^\[Upgrade\]|^Success' console | paste -sd ' ')"
is "upgraded" "$installed Hello, Ann's \"\$(id)\"!" "$(tree ../shop-installed) $(../shop-installed/bin/greet)"

# A removal leaves nothing, can be repeated, and takes away no directory of others.
run -special remove
is "removed" no "$([[ -e ../shop-installed ]] && echo yes || echo no)"
run -special remove
is "removed twice" 0 "$(grep -ciE '^ ?(Error|Failed)' console)"
mkdir -p ../shop-installed/conf
run -special remove
is "of others" conf "$(ls ../shop-installed)"
is "log" 1 "$(grep -c 'Error:' shop.log)"

((failures == 0)) || exit 1
echo "All of it holds."
