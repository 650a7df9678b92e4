#!/usr/bin/env python3
"""Takes the time of day out of a type library that widl wrote, in place.

Usage: tlb_stamp.py FILE.tlb

widl records when it ran twice in the library's custom data: the text "Created by WIDL version V
at <ctime>" and the same moment as a 32-bit number (VT_UI4). Both become 1 January 1970, 0:00 UTC,
so that the same IDL gives the same library, and the DLL that embeds it the same bytes. Run it in
the same environment as widl (its text is in local time). Pure python3 standard library.
"""
import calendar
import re
import struct
import sys
import time

VT_UI4 = 19


def main():
    path = sys.argv[1]
    data = bytearray(open(path, "rb").read())
    notes = list(re.finditer(rb"Created by WIDL version [^\n]* at (\w{3} \w{3} [ \d]\d "
                             rb"\d\d:\d\d:\d\d \d{4})\n", data))
    if len(notes) != 1:
        sys.exit(f"{path}: {len(notes)} notes of widl's time, not one")
    text = notes[0].group(1).decode("ascii")
    when = int(time.mktime(time.strptime(text, "%a %b %d %H:%M:%S %Y")))
    # The same moment as a number, if it is stored; a different time zone rule could put it an
    # hour off the text, so every candidate within a day is looked at, nearest first.
    number = None
    for delta in sorted(range(-86400, 86401, 1800), key=abs):
        hits = [m.start() + 2 for m in re.finditer(
            re.escape(struct.pack("<HI", VT_UI4, (when + delta) & 0xFFFFFFFF)), data)]
        if len(hits) == 1:
            number = hits[0]
            break
    if number is None:
        sys.exit(f"{path}: widl's time as a number was not found")
    start, end = notes[0].span(1)
    data[start:end] = time.asctime(time.gmtime(0)).encode("ascii")
    data[number:number + 4] = struct.pack("<I", calendar.timegm(time.gmtime(0)))
    with open(path, "wb") as f:
        f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
