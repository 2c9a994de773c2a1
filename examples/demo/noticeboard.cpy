[install]
# Before anything is there: a language without pages ends the install.
Exist           $(source)/board/html/welcome.$(language).html   language_known
Error           language_known There are no pages in the language "$(language)". Choose en or de.

# Each command can be done again over what a run that was cut short has left. The directory
# ".noticeboard" is there from the first to the last: it says that what it lies in is a board's. It is
# there or not, while a file is first written beside its place.
MkDir           $(dir)
MkDir           $(dir)/.noticeboard
CopyDir         $(source)/board/*       *.draft $(dir)
Rename          $(dir)/html/welcome.$(language).html    $(dir)/html/index.html
RmFile          $(dir)/html/welcome.*   -
MkDir           $(dir)/notices
MkDir           $(dir)/log
CopyFile        $(source)/samples/*.txt -       $(dir)/notices  start samples
CopyFile        $(own_notice)           -       $(dir)/notices  start own

# The settings of a whole board are the operator's, whoever installs over it.
MkDir           $(dir)/conf
Exist           $(dir)/conf/installed           installed
Ini             $(source)/conf/board.conf.in    $(dir)/conf/board.conf  installed false
WFile           $(dir)/conf/language            language

# What an upgrade must know of the answers, a file for each.
MkDir           $(dir)/conf/answers
WFile           $(dir)/conf/answers/title       title
WFile           $(dir)/conf/answers/admin       admin
WFile           $(dir)/conf/answers/page_size   page_size
WFile           $(dir)/conf/answers/posting     open_posting
WFile           $(dir)/conf/answers/logfile     logfile

# Modes are not copied.
Chmod           $(dir)/cgi/*.cgi        -       755
Chmod           $(dir)/conf/*.conf      -       640
Chown           $(dir)/notices          -       $(owner)        change_owner

# All is there. The mark is written beside its place and renamed, so that it is whole or missing.
WFile           $(dir)/conf/installing  version
Rename          $(dir)/conf/installing  $(dir)/conf/installed

[upgrade]
Exist           $(source)/board/html/welcome.$(language).html   language_known
Error           language_known There are no pages in the language "$(language)". Choose en or de.

# The settings are the operator's. What this version would have written, with the answers of the
# install, lies beside them. A board of version 2.0 has no answers.
RFile           $(dir)/conf/board.conf          settings
Exist           $(dir)/conf/answers             answered
RFile           $(dir)/conf/answers/title       title           answered
RFile           $(dir)/conf/answers/admin       admin           answered
RFile           $(dir)/conf/answers/page_size   page_size       answered
RFile           $(dir)/conf/answers/posting     open_posting    answered
RFile           $(dir)/conf/answers/logfile     logfile         answered
WFile           $(dir)/conf/$(backup).conf      settings        keep_backup
Ini             $(source)/conf/board.conf.in    $(dir)/conf/board.conf.new

# All else is copied as in an install, but for the samples: those may have been taken down.
MkDir           $(dir)/.noticeboard
CopyDir         $(source)/board/*       *.draft $(dir)
Rename          $(dir)/html/welcome.$(language).html    $(dir)/html/index.html
RmFile          $(dir)/html/welcome.*   -
MkDir           $(dir)/notices
MkDir           $(dir)/log
WFile           $(dir)/conf/language            language
Chmod           $(dir)/cgi/*.cgi        -       755
Chmod           $(dir)/conf/*.conf      -       640
WFile           $(dir)/conf/installing  version
Rename          $(dir)/conf/installing  $(dir)/conf/installed

[remove]
# What is left by a removal that was cut short is no whole board, but still a board. One that stays
# installed, as that file cannot be removed, stays whole.
RmFile          $(dir)/conf/installed   -
Exist           $(dir)/conf/installed   left
RmDir           $(dir)/*                .noticeboard,notices left false
Exist           $(dir)/conf/installed   keep_notices    keep_notices    false
RmDir           $(dir)/notices          -               keep_notices    false
# What the init script has written beside this file.
RmFile          $(current_dir)/last_start       -
# ".noticeboard" goes with the directory, once nothing else of the board is there: where
# something stays, kept or not to be removed, it can be removed and installed again.
Exist           $(dir)/cgi      left    left    false
Exist           $(dir)/conf     left    left    false
Exist           $(dir)/doc      left    left    false
Exist           $(dir)/html     left    left    false
Exist           $(dir)/lang     left    left    false
Exist           $(dir)/log      left    left    false
Exist           $(dir)/notices  left    left    false
RmDir           $(dir)          -       left    false

[web]
Exist           $(dir)/conf/installed           installed
Ini             $(source)/web/site.conf.in      $(site_dir)/noticeboard-site.conf       installed
Chmod           $(site_dir)/noticeboard-site.conf       -       644     installed
