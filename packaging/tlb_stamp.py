#!/usr/bin/python3
"""Takes the time of day out of a type library that widl wrote, in place.

Usage: tlb_stamp.py FILE.tlb

widl records when it ran in the library's custom data, twice: as a number (VT_UI4, under the
GUID DE77BA63-...) and in its note "Created by WIDL version V at <ctime>" (VT_BSTR, under
DE77BA65-...). Both become 1 January 1970, 0:00 UTC, so that the same IDL gives the same library,
and the DLL that embeds it the same bytes. Both are found through the library's custom data as
the format lays it out (typelib.py), so nothing else in the file can be taken for them.
"""
import sys
import time
import uuid

from typelib import TypeLib, VT_BSTR, VT_UI4

WIDL_TIME = uuid.UUID("DE77BA63-517C-11D1-A2DA-0000F8773CE9")
WIDL_NOTE = uuid.UUID("DE77BA65-517C-11D1-A2DA-0000F8773CE9")
NOTE_START = b"Created by WIDL version "
# ctime's form, and the note's end: " at Thu Jan  1 00:00:00 1970\n"
EPOCH_TEXT = time.asctime(time.gmtime(0)).encode("ascii")


def main():
    path = sys.argv[1]
    data = bytearray(open(path, "rb").read())
    try:
        found = {d.guid: d for d in TypeLib(data).library_custom_data()}
    except ValueError as e:
        sys.exit(f"{path}: {e}")
    when, note = found.get(WIDL_TIME), found.get(WIDL_NOTE)
    if when is None or when.vt != VT_UI4:
        sys.exit(f"{path}: no time of widl's (VT_UI4 {WIDL_TIME}) in the library's custom data")
    if note is None or note.vt != VT_BSTR:
        sys.exit(f"{path}: no note of widl's (VT_BSTR {WIDL_NOTE}) in the library's custom data")
    start, length = note.text_span()
    text = bytes(data[start:start + length])
    stamp = len(text) - len(EPOCH_TEXT) - 1
    if not text.startswith(NOTE_START) or text[stamp - 4:stamp] != b" at " or \
            not text.endswith(b"\n"):
        sys.exit(f"{path}: widl's note is not of the known form: {text!r}")
    when.set_number(0)
    data[start + stamp:start + stamp + len(EPOCH_TEXT)] = EPOCH_TEXT
    with open(path, "wb") as f:
        f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
