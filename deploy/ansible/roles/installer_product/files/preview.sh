#!/bin/sh
# Tries the product on a view of the host, in its folder, and prints what it would change.
# Usage: preview.sh NAME SECONDS PREVIEW COMMAND...
# A script keeps what the product itself prints apart from that. It is called like the product, whose
# log is then known for what it is.
set -eu
script=$1.preview.sh seconds=$2 preview=$3
shift 3
printf '#!/bin/sh\nexec "$@" >/dev/null\n' >"$script"
chmod 700 "$script"
exec timeout -k 10 "$seconds" "$preview" -- "./$script" "$@"
