#!/usr/bin/python3
"""Says whether a PE file whose signature was taken off is the unsigned file it was made from.

Usage: same_without_signature.py BARE UNSIGNED

Signing pads the file to a multiple of 8 bytes and updates the PE checksum, and taking the
signature off (osslsigncode remove-signature) leaves both: BARE must be UNSIGNED but for the
CheckSum field (found with python3-pefile) and fewer than 8 zero bytes at its end.
Exit status 0 when it is.
"""
import sys

import pefile


def main():
    bare, unsigned = (bytearray(open(f, "rb").read()) for f in sys.argv[1:3])
    for data in (bare, unsigned):
        pe = pefile.PE(data=bytes(data), fast_load=True)
        at = pe.OPTIONAL_HEADER.get_field_absolute_offset("CheckSum")
        data[at:at + 4] = bytes(4)
    padding = bare[len(unsigned):]
    return 0 if bare[:len(unsigned)] == unsigned and len(padding) < 8 and not any(padding) else 1


if __name__ == "__main__":
    sys.exit(main())
