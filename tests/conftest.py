import harness
import pytest


@pytest.fixture
def segment():
    """The id of a segment of 64 KiB, gone after the test; nobody may be attached to it by then."""
    with harness.Segment() as made:
        yield made.id
        assert harness.attached(made.id) == 0
