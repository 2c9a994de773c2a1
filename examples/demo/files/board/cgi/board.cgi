#!/bin/sh
# Shows the newest notices.
. ../conf/board.conf
printf 'Content-Type: text/plain; charset=utf-8\r\n\r\n%s\n' "$title"
for notice in $(ls -t ../notices | head -n "$page_size"); do
  printf '\n'
  cat "../notices/$notice"
done
