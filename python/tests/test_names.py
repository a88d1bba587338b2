"""The spelling of names."""

import unittest

import kvfs


class Spelling(unittest.TestCase):
    PAIRS = (
        ("plain", "plain"),
        ("either/or", "either%u002For"),
        ("a\0b", "a%u0000b"),
        ("100%", "100%"),
        ("%u", "%u"),
        ("%u002F", "%u0025u002F"),
        ("%u002f", "%u002f"),
        ("%%u0041", "%%u0025u0041"),
        ("\ud800", "%uD800"),
        ("\udfff\U0001f600", "%uDFFF\U0001f600"),
        ("\u00e9\ud55c", "\u00e9\ud55c"),
        ("", ""),
    )

    def test_names_are_spelled_and_read_back(self) -> None:
        for name, spelled in self.PAIRS:
            with self.subTest(spelled):
                self.assertEqual(kvfs.spell(name), spelled)
                self.assertEqual(kvfs.unspell(spelled), name)

    def test_any_unit_may_be_spelled(self) -> None:
        self.assertEqual(kvfs.unspell("%u0041%uD83D%uDE00%u0025"), "A\U0001f600%")
