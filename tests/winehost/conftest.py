"""Tests of the bench's own programs: a prefix for each file of tests."""

import pytest

from bench.wine import Prefix


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    made = Prefix(tmp_path_factory.mktemp("prefix") / "wine")
    try:
        made.up()
        yield made
    finally:
        made.down()
