"""A few power cuts of an ext4 and an XFS image; `python3 powercut.py 200` makes many."""

import pytest

import powercut


@pytest.mark.parametrize("kind", powercut.MAKE)
def test_what_was_answered_survives_a_power_cut(make_daemon, tmp_path, kind):
    if reason := powercut.why_not(kind):
        pytest.skip(f"no power can be cut here: {reason}")
    report = powercut.cut_power(make_daemon, tmp_path, kind, cuts=6, seed=20261121)
    assert report.cuts == 6 and report.lost == 0, report
