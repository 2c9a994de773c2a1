[install]
MkDir      $(dir)/bin
MkDir      $(dir)/etc
MkDir      $(dir)/share
CopyFile   files/bin/*      *.old     $(dir)/bin
CopyDir    files/share/*    *.bak     $(dir)/share
CopyFile   files/page.html  -         $(web_dir)   web
Ini        mill.conf.in     $(dir)/etc/mill.conf
Chown      $(dir)           -         $(owner)
Chmod      $(dir)/bin/*     */*.txt   755
Chmod      $(dir)/etc/*     -         $(mode)
WFile      $(dir)/etc/version         version

[upgrade]
Exist      $(dir)/etc/mill.conf       have_conf
Rename     $(dir)/bin/milld  $(dir)/bin/milld.old
CopyFile   files/bin/*      *.old     $(dir)/bin
Chmod      $(dir)/bin/*     -         755
Ini        mill.conf.in     $(dir)/etc/mill.conf   have_conf  false
RmFile     $(dir)/bin/milld.old  -
Error      installed  There is no older one in $(dir)
WFile      $(dir)/etc/version         version

[remove]
RmDir      $(dir)/*         etc       keep  true
RmDir      $(dir)           -         keep  false

[page]
CopyFile   files/page.html  -         $(web_dir)
