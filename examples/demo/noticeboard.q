[install]
Exist           $(source)/board/cgi     package_whole
Error           package_whole           package The package is not whole: the directory "files" beside it is missing.
Dir             dir             - -             dir     Directory for the board (full path)
# A new directory needs no more, and "Loop" goes on with the entry 7, counted from 0. Nor does that
# of an install that was cut short; any other must be empty, for a removal would take all of it.
Exist           $(dir)                  in_use
Loop            in_use          7
Exist           $(dir)/.noticeboard     begun
DirEmpty        dir             begun false     empty   That directory is there already. Unless it is empty, name another one
Text            language        - -             lang    Language of the pages, en or de
Text            page_size       - -             size    Notices on a page
YN              open_posting    - -             post    May everybody post a notice
Text            start           - -             start   Hang up samples, a notice of your own or none\n(samples/own/none)
FileExist       own_notice      start own       notice  File with your notice
File            logfile         - -             log     Log file, below the directory of the board unless it is a full path
YN              change_owner    - -             owner   Should the notices belong to another user (only root can do that)
Text            owner           change_owner -  owner   That user, or user:group
# The last "Loop" comes back to the next entry, which has the number 15.
Text            title           - -             title   Name of the board
Text            admin           - -             admin   Mail address of its keeper
Copy            all_right       - -             right   yes
YN              all_right       - -             right   In $(dir) there will be the board "$(title)", with $(admin) as its keeper. Is that right
Loop            all_right       15

[upgrade]
DirExist        dir             - -             dir     Directory of the board
Exist           $(dir)/conf/installed   installed
Error           installed       none    There is no $(product) in $(dir). Install it, or name the directory where it is.
Text            language        - -             lang    Language of the pages, en or de
YN              keep_backup     - -             backup  Your settings stay as they are. Keep a copy of them as well
FileName        backup          keep_backup -   backup  Name of the copy

[remove]
DirExist        dir             - -             dir     Directory of the board
Exist           $(dir)/.noticeboard     begun
Error           begun           none    There is no board in that directory, so nothing was removed.
YN              keep_notices    - -             keep    Keep the notices
YN              sure            - -             sure    Remove the board from $(dir) now
Error           sure            sure    Nothing was removed.

# For "-special web": a site file for the web server.
[web]
YN              guess           no_www -        web     No web server was found here. Go on with the usual values
Error           guess           web     Nothing was written.
DirExist        dir             - -             dir     Directory of the board
Copy            site_dir        - -             site    dir
DirExist        site_dir        - -             site    Directory for the site file
Text            server_name     - -             server  Name of the server
Dir             www_root        - -             root    Document root of the web server
