#!/bin/sh
# Puts what was sent on the board.
setting() { sed -n "s/^$1=//p" ../conf/board.conf; }
[ "$(setting open_posting)" = true ] || { printf 'Status: 403 Forbidden\r\n\r\n'; exit; }
head -c 4000 >"../notices/$(date +%s).$$.txt"
printf 'Status: 303 See Other\r\nLocation: board.cgi\r\n\r\n'
