"""scripts/coverage: what is told of each room, and of units without a test."""

import contextlib
import io
import json
import tempfile
import unittest
from pathlib import Path

import rooms


def reached(filename, lines, branches):
    return {"filename": filename, "line_covered": lines[0], "line_total": lines[1],
            "branch_covered": branches[0], "branch_total": branches[1]}


FILES = [reached("com/link/a.cpp", (3, 4), (1, 2)), reached("com/link/b.cpp", (1, 4), (0, 6)),
         reached("com/worker/c.cpp", (2, 2), (0, 0)), reached("common/d.cpp", (0, 10), (5, 10))]


class RoomsTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)

    def write(self, name, text=""):
        file = self.tree / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def test_a_row_for_each_folder_each_room_and_all(self):
        lines = rooms.table(FILES, [Path("com/link/b.cpp")])
        rows = [line.split() for line in lines[2:]]
        self.assertEqual(rows, [["common", "10", "0.0", "10", "50.0", "0"],
                                ["com", "10", "60.0", "8", "12.5", "1"],
                                ["com/link", "8", "50.0", "8", "12.5", "1"],
                                ["com/worker", "2", "100.0", "0", "-", "0"],
                                ["all", "20", "30.0", "18", "33.3", "1"]])

    def test_units_without_tests(self):
        self.write("com/link/named.cpp")
        self.write("com/link/named.h")
        self.write("com/link/included.cpp")
        self.write("com/link/included.h")
        self.write("com/link/untested.cpp")
        self.write("com/link/untested.h")
        self.write("com/link/behind.cpp")
        self.write("com/link/split.cpp")
        self.write("com/link/spl.cpp")
        self.write("host/inline.h")
        self.write("host/types.h")
        self.write("host/main.cpp")
        self.write("tools/tune_main.cpp")
        self.write("bench/beside.cpp")
        self.write("tests/link/named_test.cpp")
        self.write("tests/link/split_limits_test.cpp")
        self.write("tests/link/other_test.cpp", '#include "com/link/included.h"\n#include "tests/link/fixture.h"\n'
                                                '#include "tests/support/shared.h"\n')
        self.write("tests/link/fixture.h", '#include "com/link/behind.h"\n')
        self.write("tests/support/shared.h", '#include "com/link/untested.h"\n')
        self.assertEqual([str(unit) for unit in rooms.units_without_tests(self.tree, {"host/inline.h", "com/link/named.h"})],
                         ["com/link/spl.cpp", "com/link/untested.cpp", "host/inline.h"])

    def run_main(self, files):
        self.write("summary.json", json.dumps({"files": files}))
        told, errors = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(told), contextlib.redirect_stderr(errors):
            status = rooms.main(["--tree", str(self.tree), str(self.tree / "summary.json")])
        return status, told.getvalue(), errors.getvalue()

    def test_the_units_are_named_below_the_table(self):
        self.write("common/d.cpp")
        status, told, _ = self.run_main(FILES)
        self.assertEqual(status, 0)
        self.assertTrue(told.endswith("\n    common/d.cpp\n"), told)

    def test_nothing_reached_is_an_error(self):
        status, told, errors = self.run_main([])
        self.assertEqual((status, told), (1, ""))
        self.assertIn("no test has run", errors)


if __name__ == "__main__":
    unittest.main()
