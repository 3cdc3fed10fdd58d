"""Which unit a test file is named after."""

from pathlib import Path

ENDING = "_test.cpp"


def is_named_after(test, unit):
    """window_test.cpp and window_limits_test.cpp are tests of window.cpp; windows_test.cpp is not."""
    name = Path(test).name
    return name.endswith(ENDING) and f"{name[:-len(ENDING)]}_".startswith(f"{Path(unit).stem}_")
