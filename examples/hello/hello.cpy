# What to do when the questions are answered. Install and upgrade stop at the first command that
# fails. See installer-cpy(5).

[install]
MkDir       $(dir)/bin
MkDir       $(dir)/conf
# Says whose directory it is: [remove] takes no other one away.
WFile       $(dir)/conf/product         product
# An answer that an upgrade must know is kept in a file of its own.
WFile       $(dir)/conf/name            name
CopyDir     files/doc                   -           $(dir)
# A template: its references are replaced by the answers.
Ini         files/greet.in              $(dir)/bin/greet
Chmod       $(dir)/bin/greet            -           755
# Last, and whole or not at all: the sign that everything is there.
WFile       $(dir)/conf/installing      version
Rename      $(dir)/conf/installing      $(dir)/conf/installed

[upgrade]
# All that [install] does, for a version that was installed may lack any of it.
MkDir       $(dir)/bin
MkDir       $(dir)/conf
WFile       $(dir)/conf/product         product
RFile       $(dir)/conf/name            name
CopyDir     files/doc                   -           $(dir)
Ini         files/greet.in              $(dir)/bin/greet
Chmod       $(dir)/bin/greet            -           755
WFile       $(dir)/conf/installing      version
Rename      $(dir)/conf/installing      $(dir)/conf/installed

[remove]
Exist       $(dir)/conf/product         ours
RmDir       $(dir)                      -           ours        true
