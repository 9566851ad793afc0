"""Words of calls: joined in any order they are the same, and tell the calls that one reader tells."""

import random

import pytest

pytest.importorskip("numpy")
from quorvex._joins import Enter, Leave, Word, _Thread  # noqa: E402


def letters(random_, count):
    """Random enters and leaves; a letter may be wrong, or end any call."""
    word, stack = [], []
    for tick in range(count):
        function = random_.randint(1, 4)
        if stack and random_.random() < 0.5:
            function = stack.pop() if random_.random() < 0.8 else random_.choice([None, 1, 2, 3, 4])
            word.append(Leave(function, tick, tick, 0, None))
        else:
            stack.append(function)
            word.append(Enter(function, tick, tick, 0, None))
    return word


def left_of(piece):
    whole = Word()
    for letter in piece:
        whole = whole.joined(Word([letter], [0, 0], letter.tick))
    return whole


@pytest.mark.parametrize("seed", range(300))
def test_words(seed):
    random_ = random.Random(seed)
    word = letters(random_, random_.randint(0, 40))
    cuts = sorted(random_.randint(0, len(word)) for _ in range(4))
    pieces = [left_of(word[a:b]) for a, b in zip([0, *cuts], [*cuts, len(word)], strict=True)]
    a, b, c, d, e = pieces
    from_left = a.joined(b).joined(c).joined(d).joined(e)
    assert from_left == a.joined(b.joined(c.joined(d.joined(e)))) == a.joined(b).joined(c.joined(d).joined(e))
    assert from_left == left_of(word)
    # One reader's calls, and those that are found piece by piece, with what is left of all before.
    one, rows = _Thread(), []
    one.take(Word(word, [0] * (len(word) + 1)), rows)
    calls = {(row.enter, row.leave): row for row in rows if row.leave is not None or row.enter is not None}
    before = Word()
    for piece in pieces:
        thread, found = _Thread(), []
        thread.take(before, [])
        thread.take(piece, found)
        assert all(calls[row.enter, row.leave] == row for row in found)
        before = before.joined(piece)
    last = _Thread()
    last.take(before, [])
    assert [call.enter for call in last.stack] == [call.enter for call in one.stack]
    assert [call.callees for call in last.stack] == [call.callees for call in one.stack]
