#!/bin/sh
# Shows the newest notices.
setting() { sed -n "s/^$1=//p" ../conf/board.conf; }
printf 'Content-Type: text/plain; charset=utf-8\r\n\r\n%s\n' "$(setting title)"
for notice in $(ls -t ../notices | head -n "$(setting page_size)"); do
  printf '\n'
  cat "../notices/$notice"
done
