"""Where a toolkit's text cursor is, from what the toolkit answers about its characters (the
reference reader's rule, apart from the bus so that it is tested without a desktop)."""


def usable(r):
    """A character rectangle the toolkit really answered: -1s or no height mean none."""
    return r is not None and r[3] > 0 and not (r[0] == -1 and r[1] == -1)


def locate(offset, count, char, prev, prev_text):
    """(where, at): at = [x, y, h] of the cursor on the screen, or None. char and prev are the
    placed extents of the characters at and before the caret (None when unusable):
      char           the character at the caret: its left edge;
      prev-edge      at the end of the text, or no extents at the caret: the right edge of the
                     character before;
      after-newline  the character before is a newline and the caret is at the end of the text
                     or its character has no extents: the toolkit's answer at the caret if any
                     (the newline's own extents lie on the line it ends);
      empty          no characters: the toolkit's answer at the caret if any;
      no-extents     the toolkit answered no character extents."""
    if count == 0:
        return "empty", _at(char)
    if 0 <= offset < count and char is not None:
        return "char", _at(char)
    if offset > 0 and prev_text == "\n":
        return "after-newline", _at(char)
    if offset > 0 and prev is not None:
        return "prev-edge", [prev[0] + prev[2], prev[1], prev[3]]
    return "no-extents", None


def _at(r):
    return None if r is None else [r[0], r[1], r[3]]
