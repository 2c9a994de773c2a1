# What to ask: type, setting, when (two words), a word for your own use, and the question. The
# default is the value in hello.dat. See installer-q(5).

[install]
Dir         dir         -           -           dir     Install $(product) $(version) into which directory
Text        name        -           -           name    Whom shall it greet

[upgrade]
Dir         dir         -           -           dir     Where is $(product) installed
Exist       $(dir)/conf/installed   installed
Error       installed                           none    There is no $(product) in $(dir)

[remove]
Dir         dir         -           -           dir     Remove $(product) from which directory
