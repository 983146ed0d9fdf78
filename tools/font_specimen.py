#!/usr/bin/env python3
"""Specimen sheets of the built-in bitmap fonts, to judge them by looking: font_specimen.py LIBRARY FOLDER [SCALE [LINE...]]

Asks LIBRARY (libkestal_ulx.so) for every glyph and writes FOLDER/*.png, each pixel as SCALE x SCALE (2) pixels; with
lines of text, FOLDER/text.png with these.
"""
import ctypes
import struct
import sys
import zlib
from pathlib import Path

INITIALS, MEDIALS, FINALS = 19, 21, 28

ENGLISH = """The quick brown fox jumps over the lazy dog. 0123456789
SPHINX OF BLACK QUARTZ, JUDGE MY VOW! Pack my box with five dozen liquor jugs?
0Oo 0QO 1lI| 5S 8B 2Z 6G 9g `'" .,:; {}[]() <>= +-*/ _-~ ^ @& #$% \\/ vwu rn/m cl/d
if (size >= limit && *text != '\\0') { table[i++] = ~mask ^ 0x5A; } // 50% of $12.80
user@example.org: "fetch http://[fe80::1%eth0]:8080/a_b-c/?q=x+y#top"; `echo $HOME`
Illegal1 = lIl1I; O0O0 = {5S5S}; B8B8, 2Z2Z; 'quote' "double" `tick` rn m vv w
Speed 12.5 km/h  Temp -40.0 C  Wed 31 Jul 2024 23:59:08  [OK] [FAIL] (3/7) 100%"""

KOREAN = """키스의 고유조건은 입술끼리 만나야 하고 특별한 기술은 필요치 않다.
다람쥐 헌 쳇바퀴에 타고파. 닭 콩팥 훔친 집사. 추운 겨울에는 따뜻한 커피와 티를 마셔야지요.
모든 국민은 법 앞에 평등하다. 누구든지 성별과 종교 또는 사회적 신분에 의하여
정치적, 경제적, 사회적, 문화적 생활의 모든 영역에 있어서 차별을 받지 아니한다.
나라의 말이 중국과 달라 한자와는 서로 통하지 아니하므로, 어리석은 백성이 말하고자
하는 바가 있어도 마침내 제 뜻을 펴지 못하는 사람이 많다. 내 이를 가엾게 여겨
새로 스물여덟 글자를 만드니, 사람마다 쉽게 익혀 날마다 쓰는 데 편하게 하고자 할 따름이다.
전원을 켜고 네트워크 설정을 확인하십시오. 펌웨어 업데이트 중에는 장치를 끄지 마세요!
온도 23.5도, 습도 48%, 배터리 97% 남음. 파일 "기록_01.txt"을 저장했습니다. [확인] [취소]
왜 외계인은 위에서 귀여운 괴물을 훑어 읽었을까? 웬만하면 의자에 앉아 희망을 얘기해 봐.
값 닭 읽 많 뷁 쀍 꽳 뚫 훑 앉 얹 괜 웬 희 의 왜 외 위 워 궤 꿰 뛰 쥐 쉬 튀 휘 되 뵈 죄 쇠 괴
깎 꺾 낚 밖 섞 엮 몫 삯 넋 끊 않 잃 끓 곪 굶 삶 젊 넓 밟 떫 짧 곬 핥 읊 값 없 갔 겠 했 였 봤
거 커 게 케 계 켸 고 코 교 쿄 과 콰 괘 쾌 괴 쾨 구 쿠 권 퀀 글 클 긴 킨 걍 캭 겼 켰 곡 콕 굣 쿈
ㄱ ㄴ ㄷ ㄹ ㅁ ㅂ ㅅ ㅇ ㅈ ㅊ ㅋ ㅌ ㅍ ㅎ ㄲ ㄸ ㅃ ㅆ ㅉ ㅏ ㅑ ㅓ ㅕ ㅗ ㅛ ㅜ ㅠ ㅡ ㅣ ㅐ ㅔ ㅘ ㅢ ㄳ 漢"""


def syllable(initial, medial, final=0):
    return chr(0xAC00 + (initial * MEDIALS + medial) * FINALS + final)


class Font:
    """The pixels of the library's glyphs."""

    def __init__(self, library):
        self.look_up = ctypes.CDLL(library).kestal_get_bitmap_font
        self.look_up.restype = ctypes.c_void_p

    def rows(self, character):
        """The glyph's rows as lists of 0 and 1."""
        width, height, buffer = ctypes.c_uint32(), ctypes.c_uint32(), ctypes.create_string_buffer(32)
        self.look_up(ctypes.byref(width), ctypes.byref(height), buffer, None, ctypes.c_uint32(ord(character)))
        step = width.value // 8
        for y in range(height.value):
            bits = int.from_bytes(buffer.raw[y * step:(y + 1) * step], "big")
            yield [bits >> (width.value - 1 - x) & 1 for x in range(width.value)]

    def lines(self, text):
        """The pixels of a text's lines, 4 pixels between them."""
        for line in text:
            glyphs = [list(self.rows(character)) for character in line]
            for y in range(16):
                yield [pixel for glyph in glyphs for pixel in glyph[y]]
            yield from ([0] * 8 for _ in range(4))


def write_png(file, rows, scale):
    margin = 8
    width = max(map(len, rows)) + 2 * margin
    rows = [[0] * margin + row + [0] * (width - margin - len(row)) for row in ([[]] * margin + rows + [[]] * margin)]
    lines = [b"\0" + bytes(0 if pixel else 255 for pixel in row for _ in range(scale)) for row in rows for _ in range(scale)]

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width * scale, len(lines), 8, 0, 0, 0, 0)
    file.write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(b"".join(lines), 9)) +
                     chunk(b"IEND", b""))


def main():
    font, folder = Font(sys.argv[1]), Path(sys.argv[2])
    scale = int(sys.argv[3]) if len(sys.argv) > 3 else 2
    table = [" ".join(chr(code) for code in range(row, row + 16)) for row in range(0, 128, 16)]
    dense = [0, 1, 3, 4, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26]
    sheets = {
        "english": table + [""] + ENGLISH.split("\n"),
        "korean": KOREAN.split("\n"),
        "open": [" ".join(syllable(i, m) for m in range(MEDIALS)) for i in range(INITIALS)],
        "closed": [" ".join(syllable(i, m, 4) for m in range(MEDIALS)) for i in range(INITIALS)],
        "finals": [" ".join(syllable((m * 5 + f) % INITIALS, m, f) for f in dense) for m in range(MEDIALS)],
        "dense": [" ".join(syllable(i, (0, 1, 5, 8, 9, 10, 13, 14, 15, 16, 19)[(i + f) % 11], f) for f in dense)
                  for i in range(INITIALS)],
    }
    if len(sys.argv) > 4:
        sheets = {"text": sys.argv[4:]}
    folder.mkdir(parents=True, exist_ok=True)
    for name, text in sheets.items():
        write_png(folder / f"{name}.png", list(font.lines(text)), scale)


main()
