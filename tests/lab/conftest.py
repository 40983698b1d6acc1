import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))

from lab import Lab  # noqa: E402


@pytest.fixture
def lab(tmp_path):
    the_lab = Lab(tmp_path)
    try:
        yield the_lab
    finally:
        the_lab.close()
