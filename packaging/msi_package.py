#!/usr/bin/env python3
"""Builds the installer package of one Tabforge.dll with wixl, the same bytes for the same inputs.

Usage: msi_package.py --arch x86|x64 --version X.Y.Z --dll FILE --out FILE.msi [--wxs FILE]
                      [--typelib X.Y]   (the type library's version, by default the version's X.Y)

wixl alone gives a different package every run: it draws the product code and the package code at
random and writes the clock into the summary information. Here the product code is derived from
the version and the architecture (one product per version and architecture, as a major upgrade
needs), the summary's "created" and "last saved" are the time SOURCE_DATE_EPOCH names (now when it
is not set), the DLL goes into the cabinet with that time as its date, and the package code is
derived from the package's own bytes, so that two packages share it only when they are the same.
The upgrade code stays the fixed one of the .wxs. Pure python3 standard library besides wixl.
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

# The namespace of every code this tool derives; never to change, or the product codes of
# released versions would.
NAMESPACE = uuid.UUID("6F0E2B7C-5A43-4C1D-9B8E-2D7F3A61C4E5")
SUMMARY_STREAM = "\x05SummaryInformation"
PID_REVNUMBER, PID_CREATED, PID_LASTSAVED = 9, 12, 13
VT_LPSTR, VT_FILETIME = 30, 64
FREESECT, ENDOFCHAIN = 0xFFFFFFFF, 0xFFFFFFFE


def guid_text(value):
    return "{" + str(value).upper() + "}"


def product_code(arch, version):
    return guid_text(uuid.uuid5(NAMESPACE, f"Tabforge product {arch} {version}"))


class CompoundFile:
    """Just enough of the compound file format to rewrite one stream in place."""

    def __init__(self, data):
        self.data = data
        if data[:8] != bytes.fromhex("D0CF11E0A1B11AE1"):
            raise ValueError("not a compound file")
        self.sector = 1 << struct.unpack_from("<H", data, 0x1E)[0]
        self.mini_sector = 1 << struct.unpack_from("<H", data, 0x20)[0]
        dir_start, = struct.unpack_from("<I", data, 0x30)
        self.cutoff, minifat_start = struct.unpack_from("<II", data, 0x38)
        difat_start, difat_count = struct.unpack_from("<II", data, 0x44)
        fat_sectors = list(struct.unpack_from("<109I", data, 0x4C))
        for _ in range(difat_count):
            per = self.sector // 4 - 1
            fat_sectors += struct.unpack_from(f"<{per}I", data, self.offset(difat_start))
            difat_start, = struct.unpack_from("<I", data, self.offset(difat_start) + per * 4)
        self.fat = []
        for s in fat_sectors:
            if s != FREESECT:
                self.fat += struct.unpack_from(f"<{self.sector // 4}I", data, self.offset(s))
        self.minifat = []
        for s in self.chain(minifat_start):
            self.minifat += struct.unpack_from(f"<{self.sector // 4}I", data, self.offset(s))
        self.entries = []
        for s in self.chain(dir_start):
            for i in range(self.sector // 128):
                self.entries.append(self.offset(s) + i * 128)

    def offset(self, sector):
        return (sector + 1) * self.sector

    def chain(self, start, table=None):
        table = self.fat if table is None else table
        out = []
        while start not in (ENDOFCHAIN, FREESECT):
            out.append(start)
            start = table[start]
        return out

    def stream_offsets(self, name):
        """The file offsets of the stream's bytes, one run per (mini) sector."""
        root_start, = struct.unpack_from("<I", self.data, self.entries[0] + 0x74)
        for e in self.entries:
            length, = struct.unpack_from("<H", self.data, e + 0x40)
            if length < 2 or self.data[e:e + length - 2].decode("utf-16-le") != name:
                continue
            start, size = struct.unpack_from("<IQ", self.data, e + 0x74)
            runs = []
            if size < self.cutoff:
                mini_stream = self.chain(root_start)
                for m in self.chain(start, self.minifat):
                    pos = m * self.mini_sector
                    runs.append(self.offset(mini_stream[pos // self.sector]) + pos % self.sector)
                unit = self.mini_sector
            else:
                runs = [self.offset(s) for s in self.chain(start)]
                unit = self.sector
            return [(r, min(unit, size - i * unit)) for i, r in enumerate(runs)]
        raise KeyError(name)

    def read(self, runs):
        return b"".join(self.data[o:o + n] for o, n in runs)

    def write(self, runs, stream):
        pos = 0
        for o, n in runs:
            self.data[o:o + n] = stream[pos:pos + n]
            pos += n


def property_offsets(stream):
    """Property id to (type, offset of the value) in a property set stream's first section."""
    section, = struct.unpack_from("<I", stream, 28 + 16)
    _, count = struct.unpack_from("<II", stream, section)
    found = {}
    for i in range(count):
        pid, where = struct.unpack_from("<II", stream, section + 8 + 8 * i)
        vtype, = struct.unpack_from("<I", stream, section + where)
        found[pid] = (vtype & 0xFFFF, section + where + 4)
    return found


def set_summary(path, when, code):
    data = bytearray(open(path, "rb").read())
    cf = CompoundFile(data)
    runs = cf.stream_offsets(SUMMARY_STREAM)
    stream = bytearray(cf.read(runs))
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
    cf.write(runs, stream)
    with open(path, "wb") as f:
        f.write(data)


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
    with tempfile.TemporaryDirectory() as folder:
        dll = os.path.join(folder, "Tabforge.dll")
        shutil.copyfile(args.dll, dll)
        os.utime(dll, (when, when))
        command = ["wixl", "-a", args.arch, "-D", f"Arch={args.arch}",
                   "-D", f"Version={args.version}",
                   "-D", f"ProductCode={product_code(args.arch, args.version)}",
                   "-D", f"TypeLibVersion={major}.{minor}",
                   "-D", f"TypeLibKey={major:x}.{minor:x}",
                   "-D", "Dll=Tabforge.dll", "-o", out, os.path.abspath(args.wxs)]
        # The cabinet keeps the file's date as local time.
        subprocess.run(command, cwd=folder, check=True, env=dict(os.environ, TZ="UTC"))
    set_summary(out, when, guid_text(uuid.UUID(int=0)))
    digest = hashlib.sha256(open(out, "rb").read()).hexdigest()
    set_summary(out, when, guid_text(uuid.uuid5(NAMESPACE, f"Tabforge package {digest}")))
    return 0


if __name__ == "__main__":
    sys.exit(main())
