"""Every protocol over the ordinary network."""

import pytest
from protocols import *


@pytest.fixture
def place():
    return Place()
