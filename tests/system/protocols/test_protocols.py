"""Every protocol over the ordinary network."""

import protocols
from copy_table import shared_tests

globals().update(shared_tests(protocols))
