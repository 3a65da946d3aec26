"""The same copies with a server that knows no windowsize."""

from transfers import *
