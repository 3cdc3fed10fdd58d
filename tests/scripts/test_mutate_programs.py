"""scripts/mutate: which test programs are asked about a file, the nearest first."""

import json
import tempfile
import unittest
from pathlib import Path

from mutate import programs


def target(name, kind, sources, *needs):
    program = f"tests/{name}" if name.endswith("_test") else f"bin/{name}"
    return programs.Target(name, kind, program if kind == "EXECUTABLE" else None, sources, list(needs))


class ProgramsTest(unittest.TestCase):
    FILES = {
        "room/unit.h": "", "room/unit.cpp": '#include "room/unit.h"\n#include "room/inner.h"\n',
        "room/inner.h": "", "room/inner.cpp": '#include "room/inner.h"\n',
        "room/other.h": "", "room/other.cpp": '#include "room/other.h"\n',
        "main.cpp": '#include "room/unit.h"\n',
        "tests/unit_test.cpp": '#include "room/unit.h"\n',
        "tests/inside.cpp": '#include "room/inner.h"\n',
        "tests/aside.cpp": '#include "room/other.h"\n',
        "tests/whole.cpp": "", "tests/apart.cpp": '#include "room/unit.h"\n'}
    TARGETS = [
        target("room", "STATIC_LIBRARY", ["room/unit.cpp", "room/inner.cpp", "room/other.cpp"]),
        target("program", "EXECUTABLE", ["main.cpp"], "room"),
        target("unit_test", "EXECUTABLE", ["tests/unit_test.cpp"], "room"),
        target("inside_test", "EXECUTABLE", ["tests/inside.cpp"], "room"),
        target("aside_test", "EXECUTABLE", ["tests/aside.cpp"], "room"),
        target("whole_test", "EXECUTABLE", ["tests/whole.cpp"], "program"),
        target("apart_test", "EXECUTABLE", ["tests/apart.cpp"])]

    def setUp(self):
        self.graph = programs.Graph({target.name: target for target in self.TARGETS}, self.FILES.get)

    def test_the_nearest_are_first_and_what_does_not_link_it_is_left_out(self):
        self.assertEqual(self.graph.nearest("room/unit.cpp"),
                         [("unit_test", 0), ("whole_test", 4), ("aside_test", 100), ("inside_test", 100)])
        self.assertEqual([name for name, _ in self.graph.nearest("room/inner.cpp")],
                         ["inside_test", "unit_test", "whole_test", "aside_test"])

    def test_what_is_named_after_the_unit_and_a_subject_is_its_test_too(self):
        files = {**self.FILES, "tests/inner_limits_test.cpp": '#include "tests/fixture.h"\n'}
        targets = self.TARGETS + [target("some_test", "EXECUTABLE", ["tests/inner_limits_test.cpp"], "room")]
        graph = programs.Graph({target.name: target for target in targets}, files.get)
        self.assertEqual(graph.nearest("room/inner.cpp")[0], ("some_test", 0))

    def test_the_tests_of_another_room_are_farther(self):
        sources = {name: f"tests/{room}/{name}.cpp" for name, room in
                   {"ahead_test": "other", "beside_test": "room", "unit_test": "room"}.items()}
        files = {**self.FILES, **dict.fromkeys(sources.values(), '#include "room/inner.h"\n')}
        targets = [self.TARGETS[0]] + [target(name, "EXECUTABLE", [source], "room") for name, source in sources.items()]
        graph = programs.Graph({target.name: target for target in targets}, files.get)
        self.assertEqual(graph.nearest("room/inner.cpp"), [("beside_test", 1), ("unit_test", 1), ("ahead_test", 2)])

    def test_what_is_as_near_as_the_last_is_asked_too_but_for_what_is_only_linked(self):
        self.assertEqual(programs.first_of([("a", 1), ("b", 2), ("c", 2), ("d", 3)], 2), ["a", "b", "c"])
        self.assertEqual(programs.first_of([("a", 1), ("b", 2)], 3), ["a", "b"])
        self.assertEqual(programs.first_of([("a", 1), ("b", 100), ("c", 100)], 2), ["a", "b"])
        self.assertEqual(programs.first_of([], 3), [])

    def test_a_test_of_the_same_name_but_for_the_letter_of_classes_is_first(self):
        self.assertEqual(programs.alike("room/cunit.cpp", "tests/unit_test.cpp"), len("unit"))
        self.assertEqual(programs.alike("room/unit.cpp", "tests/until_test.cpp"), 0)

    def test_a_header_reaches_who_compiles_it(self):
        self.assertEqual(self.graph.nearest("room/other.h")[0], ("aside_test", 1))
        self.assertIn("apart_test", [name for name, _ in self.graph.nearest("room/unit.h")])

    def test_what_cmake_tells_is_read(self):
        with tempfile.TemporaryDirectory() as folder:
            build = Path(folder)
            programs.ask_for_targets(build)
            self.assertTrue((build / ".cmake/api/v1/query/codemodel-v2").exists())
            replies = build / ".cmake/api/v1/reply"
            replies.mkdir(parents=True)
            for name, reply in {
                    "index-2.json": {"reply": {"codemodel-v2": {"jsonFile": "model.json"}}},
                    "model.json": {"configurations": [{"targets": [{"jsonFile": "room.json"}, {"jsonFile": "test.json"}]}]},
                    "room.json": {"id": "room::1", "name": "room", "type": "STATIC_LIBRARY", "artifacts": [{"path": "libroom.a"}],
                                  "sources": [{"path": "room/unit.cpp"}, {"path": "build/header.gch"}]},
                    "test.json": {"id": "unit_test::1", "name": "unit_test", "type": "EXECUTABLE",
                                  "artifacts": [{"path": "tests/unit_test"}], "sources": [{"path": "tests/unit_test.cpp"}],
                                  "dependencies": [{"id": "room::1"}]}}.items():
                (replies / name).write_text(json.dumps(reply))
            self.assertEqual(programs.read_targets(build), {
                "room": target("room", "STATIC_LIBRARY", ["room/unit.cpp"]),
                "unit_test": target("unit_test", "EXECUTABLE", ["tests/unit_test.cpp"], "room")})


if __name__ == "__main__":
    unittest.main()
