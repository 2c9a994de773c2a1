[install]
# Before anything is there: a language without pages ends the install.
Exist           $(source)/board/html/welcome.$(language).html   language_known
Error           language_known There are no pages in the language "$(language)". Choose en or de.

MkDir           $(dir)
CopyDir         $(source)/board/*       *.draft $(dir)
Rename          $(dir)/html/welcome.$(language).html    $(dir)/html/index.html
RmFile          $(dir)/html/welcome.*   -
MkDir           $(dir)/notices
MkDir           $(dir)/log
CopyFile        $(source)/samples/*.txt -       $(dir)/notices  start samples
CopyFile        $(own_notice)           -       $(dir)/notices  start own

MkDir           $(dir)/conf
Ini             $(source)/conf/board.conf.in    $(dir)/conf/board.conf
WFile           $(dir)/conf/version             version
WFile           $(dir)/conf/language            language

# Modes are not copied.
Chmod           $(dir)/cgi/*.cgi        -       755
Chmod           $(dir)/conf/*.conf      -       640
Chown           $(dir)/notices          -       $(owner)        change_owner

[upgrade]
Exist           $(source)/board/html/welcome.$(language).html   language_known
Error           language_known There are no pages in the language "$(language)". Choose en or de.

# The settings are the operator's. What this version would have written lies beside them.
RFile           $(dir)/conf/board.conf          settings
WFile           $(dir)/conf/$(backup).conf      settings        keep_backup
Ini             $(source)/conf/board.conf.in    $(dir)/conf/board.conf.new

CopyDir         $(source)/board/*       *.draft $(dir)
Rename          $(dir)/html/welcome.$(language).html    $(dir)/html/index.html
RmFile          $(dir)/html/welcome.*   -
WFile           $(dir)/conf/version             version
WFile           $(dir)/conf/language            language
Chmod           $(dir)/cgi/*.cgi        -       755
Chmod           $(dir)/conf/*.conf      -       640

[remove]
RmDir           $(dir)/*                notices keep_notices
RmDir           $(dir)                  -       keep_notices false
# What the init script has written beside this file.
RmFile          $(current_dir)/last_start       -

[web]
Exist           $(dir)/conf/board.conf          installed
Ini             $(source)/web/site.conf.in      $(site_dir)/noticeboard-site.conf       installed
Chmod           $(site_dir)/noticeboard-site.conf       -       644     installed
