import sys

import torch  # noqa: F401  (vorta_addons needs torch loaded first)

from .demo import main

sys.exit(main())
