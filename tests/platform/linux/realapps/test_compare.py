"""The judging of one change, without a desktop:
    /usr/bin/python3 -m unittest tests/platform/linux/realapps/test_compare.py"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from apps import K, M  # noqa: E402
from compare import Judge, to_agent  # noqa: E402

SCREEN = (1000, 800)
WIN = [100, 100, 600, 400]


def focus(rect, caret=False, role="push button", found="last"):
    return {"kind": "now", "rect": rect, "vis": rect, "raw": rect, "win": WIN, "role": role,
            "name": "x", "caret": caret, "found": found, "toolkit": "T 1"}


def area(rect, t):
    """An area at the visor for a rectangle given on the screen (top-left origin)."""
    return {"rect": to_agent(rect, SCREEN), "t": t}


ZERO = {"rect": [0, 0, 0, 0], "t": 10.01}


class JudgeTest(unittest.TestCase):
    def setUp(self):
        self.j = Judge()

    def change(self, rect, areas, caret=False, prev=None, step=None):
        ev = focus(rect, caret)
        self.j.step("app", step or K("Tab"), 10.0, [ev], ev, areas, prev, SCREEN)
        return self.j.apps["app"]

    def test_turns_to_the_bottom_left_origin_and_clips_at_the_left_and_bottom(self):
        self.assertEqual(to_agent([10, 20, 30, 40], SCREEN), [10, 740, 30, 40])
        self.assertEqual(to_agent([-5, 790, 30, 40], SCREEN), [0, 0, 25, 10])

    def test_final_area_right_within_a_pixel_and_latency_to_its_first_arrival(self):
        r = self.change([10, 20, 30, 40], [area([10, 20, 30, 40], 10.020),
                                           area([11, 20, 30, 40], 10.050)])
        self.assertEqual((r.tried, r.right), (1, 1))
        r = self.change([200, 20, 30, 40], [area([200, 20, 30, 40], 10.030),
                                            area([200, 20, 30, 40], 10.090)])
        self.assertAlmostEqual(r.latencies[-1], 30.0, places=3)

    def test_a_wrong_final_area_is_a_mismatch_even_after_the_right_one(self):
        r = self.change([10, 20, 30, 40], [area([10, 20, 30, 40], 10.02),
                                           area([50, 20, 30, 40], 10.05)])
        self.assertEqual(r.right, 0)
        self.assertEqual(len(r.mismatches), 1)

    def test_text_cursor_must_lie_inside_the_element(self):
        r = self.change([10, 20, 300, 40], [area([15, 25, 1, 17], 10.02)], caret=True)
        self.assertEqual(r.right, 1)
        r = self.change([10, 20, 300, 40], [area([5, 25, 1, 17], 10.02)], caret=True)
        self.assertEqual((r.tried, r.right, len(r.mismatches)), (2, 1, 1))

    def test_false_areas_in_between_by_kind(self):
        self.change([10, 20, 30, 40], [area([10, 20, 30, 40], 10.01)])
        self.change([60, 20, 30, 40], [area([60, 20, 30, 40], 10.01)])
        r = self.change([110, 20, 30, 40], [
            ZERO,
            area(WIN, 10.02),                     # the whole window
            area([10, 20, 30, 40], 10.03),        # an earlier focus, not the previous one
            area([60, 20, 30, 40], 10.04),        # the previous final one: not false
            area([110, 20, 30, 40], 10.05)])
        self.assertEqual(r.false, {"all-zero": 1, "window": 1, "stale": 1})
        self.assertFalse(r.met())

    def test_moves_are_counted_apart_from_focus_changes(self):
        ev = focus([10, 20, 30, 40])
        self.j.step("app", M(5, 5), 10.0, [], ev, [area([10, 20, 30, 40], 10.02)], None, SCREEN)
        r = self.j.apps["app"]
        self.assertEqual((r.tried, r.moves, r.moves_right), (0, 1, 1))

    def test_a_key_without_an_announced_focus_is_not_counted(self):
        ev = focus([10, 20, 30, 40])
        self.j.step("app", K("Tab"), 10.0, [], ev, [], None, SCREEN)
        r = self.j.apps["app"]
        self.assertEqual((r.tried, r.no_change), (0, ["Tab"]))


if __name__ == "__main__":
    unittest.main()
