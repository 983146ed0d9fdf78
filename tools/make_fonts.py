#!/usr/bin/env python3
"""Makes the tables of the built-in bitmap fonts out of their drawings, tools/fonts/*.txt, which say how they are read.

make_fonts.py           writes source/bitmap_font_8x16_en.inc and source/bitmap_font_16x16_ko.inc
make_fonts.py --check   writes nothing, but fails when the tables are not what the drawings give
"""
import re
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent

INITIALS = "ㄱㄲㄴㄷㄸㄹㅁㅂㅃㅅㅆㅇㅈㅉㅊㅋㅌㅍㅎ"
MEDIALS = "ㅏㅐㅑㅒㅓㅔㅕㅖㅗㅘㅙㅚㅛㅜㅝㅞㅟㅠㅡㅢㅣ"
# Syllables take the last one for ㅍ and none the one before it, where ㅎ stands.
FINALS = "ㄱㄲㄳㄴㄵㄶㄷㄹㄺㄻㄼㄽㄾㄿㅀㅁㅂㅄㅅㅆㅇㅈㅊㅋㅌㅎㅍ"


class Glyph:
    """Pixels that are set, as (column, row) pairs in a cell of a width and a height."""

    def __init__(self, width, height, pixels=()):
        self.width, self.height, self.pixels = width, height, set(pixels)

    def lay(self, picture, left, top):
        self.pixels |= {(left + x, top + y) for x, y in picture.pixels}

    def bytes(self):
        if outside := [(x, y) for x, y in self.pixels if not (0 <= x < self.width and 0 <= y < self.height)]:
            raise ValueError(f"pixels outside the cell: {sorted(outside)}")
        for y in range(self.height):
            for left in range(0, self.width, 8):
                yield sum(0x80 >> x for x in range(8) if (left + x, y) in self.pixels)


def blocks(name):
    """The paragraphs of a drawing, as lists of lines."""
    return [block.strip("\n").split("\n")
            for block in (TREE / "tools/fonts" / name).read_text(encoding="utf-8").split("\n\n")]


def pictures(names, rows):
    """The pictures that stand side by side in the rows, by their names."""
    cut = [row.split() for row in rows]
    for column, name in enumerate(names):
        picture = [cells[column] for cells in cut]
        yield name, Glyph(len(picture[0]), len(picture), {(x, y) for y, row in enumerate(picture)
                                                          for x, mark in enumerate(row) if mark == "#"})


def ascii_font():
    glyphs, digits = {}, {}
    for head, *rows in blocks("8x16_en.txt"):
        kind, *names = head.split()
        if kind in ("glyph", "digit"):
            (glyphs if kind == "glyph" else digits).update(pictures(names, rows))
    for code in [*range(0x20), 0x7F]:
        glyphs[chr(code)] = Glyph(8, 16)
        if chr(code) not in "\0\t":
            for digit, left, top in zip(f"{code:02X}", (1, 4), (3, 9)):
                glyphs[chr(code)].lay(digits[digit], left, top)
    glyphs[" "] = Glyph(8, 16)
    return [(f"{code:02X}", glyphs[chr(code)]) for code in range(128)] + [("unsupported", glyphs["unsupported"])]


def placed_letters(letters, sets, column, top):
    """Shapes of the letters: each out of the first set that has it, its middle column and first row placed."""
    for letter in letters:
        picture = next(pictures[letter] for pictures in sets if letter in pictures)
        glyph = Glyph(16, 16)
        glyph.lay(picture, column - picture.width // 2, top)
        yield letter, glyph


def stroked_vowels(lines):
    for letter, *strokes in (line.split() for line in lines):
        glyph = Glyph(16, 16)
        for direction, place, begin, end in (re.fullmatch(r"([|-])(\d+):(\d+)-(\d+)", each).groups() for each in strokes):
            along = range(int(begin), int(end) + 1)
            glyph.pixels |= {(int(place), y) if direction == "|" else (y, int(place)) for y in along}
        yield letter, glyph


def hangul_font():
    sets, shapes, current = {}, {}, None
    for head, *lines in blocks("16x16_ko.txt"):
        if match := re.fullmatch(r"set (\w+)", head):
            current = sets[match[1]] = {}
            head, *lines = lines
        if head.startswith("glyph "):
            current.update(pictures(head.split()[1:], lines))
        elif match := re.fullmatch(r"medial (\d)(?: like (\d))?:", head):
            shapes["medial", match[1]] = shapes.get(("medial", match[2]), {}) | dict(stroked_vowels(lines))
        elif re.match(r"(initial|final) \d:", head):
            for line in (head, *lines):
                kind, number, names, column, top = re.fullmatch(r"(\w+) (\d): (.*) column (\d+) row (\d+)", line).groups()
                shapes[kind, number] = dict(placed_letters(INITIALS if kind == "initial" else FINALS,
                                                           [sets[name] for name in names.split()], int(column), int(top)))
    groups = (("initial", 8, INITIALS), ("medial", 4, MEDIALS), ("final", 4, FINALS))
    return [(f"{kind} {number} {letter}", shapes[kind, str(number)][letter])
            for kind, count, letters in groups for number in range(count) for letter in letters
            ] + [("unsupported", sets["sign"]["unsupported"])]


def table(glyphs):
    """The text of a table: a glyph's name and its bytes, 16 to a line."""
    lines = ["// Made by tools/make_fonts.py."]
    for name, glyph in glyphs:
        values = [f"0x{byte:02X}," for byte in glyph.bytes()]
        lines.append(f"// {name}")
        lines += [" ".join(values[at:at + 16]) for at in range(0, len(values), 16)]
    return "\n".join(lines) + "\n"


def main():
    stale = []
    for name, glyphs in (("8x16_en", ascii_font()), ("16x16_ko", hangul_font())):
        file = TREE / f"source/bitmap_font_{name}.inc"
        if "--check" not in sys.argv:
            file.write_text(table(glyphs), encoding="utf-8")
        elif file.read_text(encoding="utf-8") != table(glyphs):
            stale.append(str(file.relative_to(TREE)))
    if stale:
        sys.exit(f"not what tools/make_fonts.py makes: {', '.join(stale)}")


if __name__ == "__main__":
    main()
