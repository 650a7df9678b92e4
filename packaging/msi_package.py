#!/usr/bin/python3
"""Builds the installer package of one Tabforge.dll with wixl, the same bytes for the same inputs.

Usage: msi_package.py --arch x86|x64 --version X.Y.Z --dll FILE --out FILE.msi [--wxs FILE]
                      [--typelib X.Y]   (the type library's version, by default the version's X.Y)

wixl alone gives a different package every run: it draws the product code and the package code at
random and writes the clock into the summary information. Here the product code is derived from
the version and the architecture (one product per version and architecture, as a major upgrade
needs), the summary's "created" and "last saved" are the time SOURCE_DATE_EPOCH names (now when it
is not set), the DLL goes into the cabinet with that time as its date, and the package code is
derived from the package's own bytes, so that two packages share it only when they are the same.
The upgrade code stays the fixed one of the .wxs; the class, interface and library ids are
server/Tabforge.idl's. The summary stream is read and rewritten in
place with python3-olefile.
"""
import argparse
import hashlib
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import uuid

import olefile

import product_facts

# The namespace of every code this tool derives; never to change, or the product codes of
# released versions would.
NAMESPACE = uuid.UUID("6F0E2B7C-5A43-4C1D-9B8E-2D7F3A61C4E5")
SUMMARY_STREAM = "\x05SummaryInformation"
PID_REVNUMBER, PID_CREATED, PID_LASTSAVED = 9, 12, 13
VT_LPSTR, VT_FILETIME = 30, 64


def guid_text(value):
    return "{" + str(value).upper() + "}"


def product_code(arch, version):
    return guid_text(uuid.uuid5(NAMESPACE, f"Tabforge product {arch} {version}"))


def property_offsets(stream):
    """Property id to (type, offset of the value) in a property set stream's first section.
    olefile reads the values but neither says where they are nor writes them, and the package
    code and the times are rewritten in place, each the same length as before."""
    section, = struct.unpack_from("<I", stream, 28 + 16)
    _, count = struct.unpack_from("<II", stream, section)
    found = {}
    for i in range(count):
        pid, where = struct.unpack_from("<II", stream, section + 8 + 8 * i)
        vtype, = struct.unpack_from("<I", stream, section + where)
        found[pid] = (vtype & 0xFFFF, section + where + 4)
    return found


def set_summary(path, when, code):
    ole = olefile.OleFileIO(path, write_mode=True)
    try:
        stream = bytearray(ole.openstream(SUMMARY_STREAM).read())
        props = property_offsets(stream)
        filetime = (when + 11644473600) * 10_000_000
        for pid in (PID_CREATED, PID_LASTSAVED):
            vtype, at = props[pid]
            if vtype != VT_FILETIME:
                raise ValueError(f"summary property {pid} is of type {vtype}")
            struct.pack_into("<Q", stream, at, filetime)
        vtype, at = props[PID_REVNUMBER]
        length, = struct.unpack_from("<I", stream, at)
        text = code.encode("ascii") + b"\0"
        if vtype != VT_LPSTR or length != len(text):
            raise ValueError("the package code is not a 38-character text")
        stream[at + 4:at + 4 + length] = text
        # The same length: olefile rewrites the stream's sectors in place.
        ole.write_stream(SUMMARY_STREAM, bytes(stream))
    finally:
        ole.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--arch", choices=["x86", "x64"], required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--dll", required=True)
    parser.add_argument("--out", required=True)
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--wxs", default=os.path.join(here, "Tabforge.wxs"))
    parser.add_argument("--typelib")
    args = parser.parse_args()
    when = int(os.environ.get("SOURCE_DATE_EPOCH") or time.time())
    major, minor = (int(p) for p in (args.typelib or args.version).split(".")[:2])
    out = os.path.abspath(args.out)
    ids = product_facts.ids()
    with tempfile.TemporaryDirectory() as folder:
        dll = os.path.join(folder, "Tabforge.dll")
        shutil.copyfile(args.dll, dll)
        os.utime(dll, (when, when))
        command = ["wixl", "-a", args.arch, "-D", f"Arch={args.arch}",
                   "-D", f"Version={args.version}",
                   "-D", f"ProductCode={product_code(args.arch, args.version)}",
                   "-D", f"TypeLibVersion={major}.{minor}",
                   "-D", f"TypeLibKey={major:x}.{minor:x}",
                   "-D", f"ClassId={guid_text(ids['Main2'])}",
                   "-D", f"InterfaceId={guid_text(ids['_Main2'])}",
                   "-D", f"LibraryId={guid_text(ids['library'])}",
                   "-D", "Dll=Tabforge.dll", "-o", out, os.path.abspath(args.wxs)]
        # The cabinet keeps the file's date as local time.
        subprocess.run(command, cwd=folder, check=True, env=dict(os.environ, TZ="UTC"))
    set_summary(out, when, guid_text(uuid.UUID(int=0)))
    digest = hashlib.sha256(open(out, "rb").read()).hexdigest()
    set_summary(out, when, guid_text(uuid.uuid5(NAMESPACE, f"Tabforge package {digest}")))
    return 0


if __name__ == "__main__":
    sys.exit(main())
