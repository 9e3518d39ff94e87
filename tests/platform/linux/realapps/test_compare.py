"""The judging of one change, without a desktop:
    /usr/bin/python3 -m unittest tests/platform/linux/realapps/test_compare.py"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import apps  # noqa: E402
from apps import C, K, M  # noqa: E402
from caretplace import locate, usable  # noqa: E402
from compare import Judge, report_lines, to_agent  # noqa: E402

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

    def test_a_page_without_a_caret_gets_no_area_and_one_with_a_caret_gets_it(self):
        page = [10, 20, 300, 400]
        for caret, areas, right in [(False, [ZERO], 1), (False, [area(page, 10.02)], 2),
                                    (True, [ZERO], 2)]:
            ev = dict(focus(page, role="document web"), pagecaret=caret)
            self.j.step("app", K("F6"), 10.0, [ev], ev, areas, None, SCREEN)
            self.assertEqual(self.j.apps["app"].right, right, (caret, areas))
        self.assertEqual(self.j.apps["app"].right_no_caret, 1)

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


FIELD = [100, 200, 300, 30]     # a text field on the screen


def caret(where, at=None, offset=3, count=5, line_start=None):
    """The reader's answer for a caret step; `at` is (x, y, h) on the screen."""
    return {"kind": "caret-now", "rect": FIELD, "vis": FIELD, "role": "text", "name": "f",
            "toolkit": "T 1", "offset": offset, "count": count, "sel": None, "where": where,
            "at": None if at is None else {"x": at[0], "y": at[1], "h": at[2]},
            "line_start": line_start}


def mark(x, y, w=1, h=17):
    return [x, y, w, h]


class CaretJudgeTest(unittest.TestCase):
    def setUp(self):
        self.j = Judge()

    def caret(self, ref, got, events=1):
        areas = [area(got, 10.05)] if got else []
        self.j.caret("app", C("Right"), 10.0, [{"kind": "caret"}] * events, ref, areas, None,
                     SCREEN)
        return self.j.apps["app"].caret

    def test_mark_within_two_px_of_the_caret_on_its_line(self):
        c = self.caret(caret("char", (150, 205, 17)), mark(152, 206))
        self.assertEqual((c.tried, c.matched), (1, 1))
        self.assertAlmostEqual(c.latencies[0], 50.0, places=3)
        c = self.caret(caret("char", (150, 205, 17)), mark(153, 206))
        self.assertIn("x off by +3 px", c.lines[-1])
        c = self.caret(caret("char", (150, 205, 17)), mark(150, 223))    # the line below
        self.assertIn("not on the caret's line", c.lines[-1])
        c = self.caret(caret("char", (150, 205, 17)), mark(150, 205, w=3))
        self.assertIn("not a cursor mark (3x17)", c.lines[-1])
        self.assertEqual((c.tried, c.matched, c.rule), (4, 1, 0))

    def test_a_miss_at_the_end_of_the_text_says_the_previous_character_gave_the_caret(self):
        c = self.caret(caret("prev-edge", (180, 205, 17), offset=5, count=5), FIELD)
        self.assertIn("end of text: the previous character's right edge", c.lines[-1])
        self.assertEqual(c.matched, 0)

    def test_rule_placed_positions_are_counted_apart_and_checked_against_the_rule(self):
        # Empty: the agent's arithmetic in its own space, 4 px in, bottom 20 px below the top.
        f = to_agent(FIELD, SCREEN)
        empty_mark = [f[0] + 4, f[1] + f[3] - 20, 1, 17]
        on_screen = [empty_mark[0], SCREEN[1] - empty_mark[1] - 17, 1, 17]
        c = self.caret(caret("empty", (108, 205, 17), offset=0, count=0), on_screen)
        self.assertEqual((c.matched, c.rule, c.rule_held), (0, 1, 1))
        # After a newline: the start of the line the newline ends, one line above the caret.
        ls = [104, 205, 8, 17]
        c = self.caret(caret("after-newline", (104, 222, 17), line_start=ls), mark(104, 205))
        self.assertEqual((c.matched, c.rule, c.rule_held), (0, 2, 2))
        c = self.caret(caret("after-newline", None, line_start=ls), mark(104, 222))
        self.assertEqual((c.rule, c.rule_held), (3, 2))
        self.assertIn("NOT where the rule puts it", c.lines[-1])
        # No extents at all: a mark inside the field holds, one outside or the field does not.
        c = self.caret(caret("no-extents"), mark(104, 205))
        c = self.caret(caret("no-extents"), mark(90, 205))
        c = self.caret(caret("no-extents"), FIELD)
        self.assertEqual((c.tried, c.matched, c.rule, c.rule_held), (6, 0, 6, 3))

    def test_a_rule_case_at_the_toolkits_caret_counts_as_matched(self):
        c = self.caret(caret("after-newline", (104, 222, 17), line_start=[104, 205, 8, 17]),
                       mark(104, 222))
        self.assertEqual((c.matched, c.rule), (1, 0))

    def test_a_password_field_is_followed_whole_never_by_a_cursor(self):
        secret = dict(caret("no-extents"), role="password text")
        c = self.caret(secret, FIELD)
        self.assertEqual((c.tried, c.rule, c.rule_held), (1, 1, 1))
        c = self.caret(secret, mark(FIELD[0] + 4, FIELD[1] + 3))
        self.assertEqual((c.tried, c.rule, c.rule_held), (2, 2, 1))

    def test_no_text_object_and_no_caret_event_are_reported_not_tried(self):
        c = self.caret({"kind": "caret-now", "none": True}, mark(1, 1), events=0)
        self.assertEqual((c.tried, c.no_reference, c.no_event), (0, ["Right"], ["Right"]))

    def test_caret_walks_are_reported_and_never_fail_the_run(self):
        self.j.reported_only("app")
        self.caret(caret("char", (150, 205, 17)), FIELD)
        self.assertTrue(self.j.all_met())
        text = "\n".join(report_lines(self.j, 1.0, SCREEN))
        self.assertIn("1 positions tried, 0 within 2 px", text)
        self.assertIn("1 missed", text)


class CaretPlaceTest(unittest.TestCase):
    """The reference's reading of the toolkit's character extents."""
    A, B = [10, 50, 8, 17], [18, 50, 7, 17]    # two characters side by side

    def test_the_character_at_the_caret_else_the_right_edge_of_the_one_before(self):
        self.assertEqual(locate(1, 2, self.B, self.A, "a"), ("char", [18, 50, 17]))
        self.assertEqual(locate(2, 2, None, self.B, "b"), ("prev-edge", [25, 50, 17]))
        # The toolkit's own answer at the end of the text is not taken: some answer the last
        # character's rectangle there.
        self.assertEqual(locate(2, 2, self.B, self.B, "b"), ("prev-edge", [25, 50, 17]))
        self.assertEqual(locate(1, 2, None, self.A, "a"), ("prev-edge", [18, 50, 17]))

    def test_after_a_newline_the_character_before_does_not_tell(self):
        nl = [25, 50, 0, 17]
        self.assertEqual(locate(3, 3, [10, 67, 0, 17], nl, "\n"),
                         ("after-newline", [10, 67, 17]))
        self.assertEqual(locate(3, 3, None, nl, "\n"), ("after-newline", None))
        # A line that goes on after the newline has its own character.
        self.assertEqual(locate(3, 4, [10, 67, 8, 17], nl, "\n"), ("char", [10, 67, 17]))

    def test_empty_fields_and_toolkits_without_extents(self):
        self.assertEqual(locate(0, 0, [12, 50, 0, 17], None, None), ("empty", [12, 50, 17]))
        self.assertEqual(locate(0, 0, None, None, None), ("empty", None))
        self.assertEqual(locate(0, 5, None, None, None), ("no-extents", None))
        self.assertEqual(locate(5, 5, None, None, "x"), ("no-extents", None))

    def test_unusable_rectangles(self):
        self.assertFalse(usable(None))
        self.assertFalse(usable([-1, -1, 0, 0]))
        self.assertFalse(usable([-1, -1, 5, 17]))
        self.assertFalse(usable([0, 0, 0, 0]))
        self.assertTrue(usable([30, 40, 0, 17]))     # a cursor-wide answer at the caret


class SelectTest(unittest.TestCase):
    def names(self, *args):
        got = apps.select(list(args))
        return None if got is None else [a.name for a in got]

    def test_short_names_take_both_walks_and_kinds_take_every_walk_of_theirs(self):
        self.assertEqual(self.names("gtk3"), ["gtk3-widget-factory", "gtk3-widget-factory-caret"])
        self.assertEqual(self.names("mousepad"), ["mousepad", "mousepad-caret"])
        self.assertEqual(self.names("qt5-gallery-caret"), ["qt5-gallery-caret"])
        self.assertEqual(self.names("caret", "gtk3-widget-factory-caret"),
                         [a.name for a in apps.CARET_WALKS])
        self.assertTrue(all(a.judged for a in apps.select(["focus"])))
        self.assertFalse(any(a.judged for a in apps.select(["caret"])))
        self.assertIsNone(self.names("gtk5"))


if __name__ == "__main__":
    unittest.main()
