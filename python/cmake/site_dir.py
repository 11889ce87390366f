"""Prints where `cmake --install` puts the korvane package for a prefix.

The interpreter's own site directory when it lies in the prefix (Debian's
/usr/local/lib/python3.X/dist-packages for /usr/local, a virtual
environment's for its own prefix); otherwise PREFIX/lib/python3.X/site-packages,
which for ~/.local is the user site directory every Python 3.X of that user
reads.
"""

import os
import sys
import sysconfig

prefix = os.path.abspath(os.path.expanduser(sys.argv[1]))
own = sysconfig.get_path("platlib")
if own.startswith(os.path.join(prefix, "lib") + os.sep):
    print(own)
else:
    print(sysconfig.get_path("platlib", "posix_prefix", vars={"base": prefix, "platbase": prefix}))
