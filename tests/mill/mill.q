[install]
Exist      files/bin/milld  whole
Error      whole     h0  This folder is not complete.
DirEmpty   dir       -     -      h1  Install $(product) $(version) into which directory
Text       port      -     -      h2  Listen on which port
Text       kind      -     -      h3  A small or a large mill
YN         web       -     -      h4  Show a page on this machine
DirExist   web_dir   web   -      h5  The directory of its pages
FileName   log_name  kind  large  h6  Name of the log
YN         sure      -     -      h7  Install $(product) in $(dir) now
Loop       sure      2

[upgrade]
Dir        dir       -     -      h1  Where is $(product)
Exist      $(dir)/etc/version     installed
Error      installed  h8  There is no $(product) in $(dir).

[remove]
Dir        dir       -     -      h1  Where is $(product)
YN         keep      -     -      h9  Keep its settings

[page]
DirExist   web_dir   -     -      h5  The directory of its pages
