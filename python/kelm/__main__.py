"""``python -m kelm`` is the command ``kelm``."""

import sys

from ._command import main

sys.exit(main())
