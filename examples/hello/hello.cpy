# What to do when the questions are answered. Install and upgrade stop at the first command that
# fails. See installer-cpy(5).

[install]
# Says whose directory it is: [remove] takes no other one away. A directory is never half there.
MkDir       $(dir)
MkDir       $(dir)/.hello
# An answer that an upgrade must know is kept in a file of its own. The program that needs it reads
# that file: written into a program, an answer would be code.
MkDir       $(dir)/conf
WFile       $(dir)/conf/name            name
CopyDir     files/bin                   -           $(dir)
Chmod       $(dir)/bin/*                -           755
# A template: its references are replaced by the answers.
MkDir       $(dir)/doc
Ini         files/readme.in             $(dir)/doc/readme.txt
# Last, beside its place and renamed: the sign that everything is there.
WFile       $(dir)/conf/installing      version
Rename      $(dir)/conf/installing      $(dir)/conf/installed

[upgrade]
# All that [install] does, for a version that was installed may lack any of it.
MkDir       $(dir)
MkDir       $(dir)/.hello
MkDir       $(dir)/conf
RFile       $(dir)/conf/name            name
CopyDir     files/bin                   -           $(dir)
Chmod       $(dir)/bin/*                -           755
MkDir       $(dir)/doc
Ini         files/readme.in             $(dir)/doc/readme.txt
WFile       $(dir)/conf/installing      version
Rename      $(dir)/conf/installing      $(dir)/conf/installed

[remove]
Exist       $(dir)/.hello               ours
# Without this file it is no whole one: whatever happens below, it can be removed or installed again.
RmFile      $(dir)/conf/installed       -           ours
Exist       $(dir)/conf/installed       left        ours
RmDir       $(dir)/*                    .hello      left        false
# What says whose directory it is goes with it, once nothing else of ours is there.
Exist       $(dir)/bin                  left        left        false
Exist       $(dir)/conf                 left        left        false
Exist       $(dir)/doc                  left        left        false
RmDir       $(dir)                      -           left        false
