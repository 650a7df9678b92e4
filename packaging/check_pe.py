#!/usr/bin/env python3
"""Checks a built Tabforge.dll without Windows: PE machine, export list,
imported DLLs, and the resources (TYPELIB 1, _IID_MAIN2 1, VERSIONINFO 1).

Usage: check_pe.py Tabforge.dll [--arch i686|x86_64] [--dump]
Exit status 0 when every check passes. Pure python3 standard library.
"""
import argparse
import struct
import sys
import uuid

MACHINES = {0x14C: "i686", 0x8664: "x86_64", 0xAA64: "arm64"}
RT_NAMES = {1: "CURSOR", 2: "BITMAP", 3: "ICON", 4: "MENU", 5: "DIALOG", 6: "STRING",
            10: "RCDATA", 14: "GROUP_ICON", 16: "VERSION", 24: "MANIFEST"}
RT_VERSION = 16

EXPECTED_EXPORTS = ["DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"]
# DLLs that ship with Windows; anything else (libstdc++-6.dll, libgcc_s_*.dll,
# libwinpthread-1.dll, ...) would have to be deployed next to the server.
SYSTEM_DLLS = {"kernel32.dll", "user32.dll", "gdi32.dll", "advapi32.dll", "ole32.dll", "oleaut32.dll",
               "msvcrt.dll", "ucrtbase.dll", "gdiplus.dll", "oleacc.dll", "shell32.dll", "shlwapi.dll",
               "comctl32.dll", "winspool.drv", "version.dll", "uxtheme.dll", "ws2_32.dll", "bcrypt.dll", "ntdll.dll",
               "rpcrt4.dll", "comdlg32.dll", "winmm.dll", "crypt32.dll", "secur32.dll", "imm32.dll"}
# System DLLs that only a few calls need and that cost a process dearly to load: the server looks
# them up on first use, so they must not be in its import table.
LOADED_ON_USE = {"winspool.drv", "oleacc.dll"}
IID_MAIN2 = uuid.UUID("A9489D5E-4FFE-404A-9AC7-BA2BEF99BC85")
LIBID = uuid.UUID("09A869B8-F509-4A14-A2EC-4AC3672E2B89")
CLSID_MAIN2 = uuid.UUID("CC663791-259D-4F14-9E50-74944FB9E5D1")
EXPECTED_IID_RESOURCE = struct.pack("<I", 16) + IID_MAIN2.bytes_le
EXPECTED_FIXED = {"FileVersion": (1, 0, 0, 0), "ProductVersion": (1, 0, 0, 0), "FileFlagsMask": 0,
                  "FileFlags": 0, "FileOS": 4, "FileType": 2, "FileSubtype": 0}
EXPECTED_STRINGS = {"CompanyName": "Morvelin Inc.", "ProductName": "Tabforge", "FileVersion": "1.00",
                    "ProductVersion": "1.00", "InternalName": "Tabforge",
                    "OriginalFilename": "Tabforge.dll", "OLESelfRegister": ""}
EXPECTED_STRING_TABLE = "040904B0"
EXPECTED_TRANSLATION = [(0x0409, 0x04B0)]


class PE:
    def __init__(self, data):
        self.data = data
        if data[:2] != b"MZ":
            raise ValueError("not an MZ file")
        pe = struct.unpack_from("<I", data, 0x3C)[0]
        if data[pe:pe + 4] != b"PE\0\0":
            raise ValueError("no PE signature")
        (self.machine, nsect, _ts, _sym, _nsym, opt_size, self.characteristics) = \
            struct.unpack_from("<HHIIIHH", data, pe + 4)
        opt = pe + 24
        self.magic = struct.unpack_from("<H", data, opt)[0]
        if self.magic == 0x10B:
            ndir_off = opt + 92
        elif self.magic == 0x20B:
            ndir_off = opt + 108
        else:
            raise ValueError("unknown optional header magic 0x%X" % self.magic)
        ndirs = struct.unpack_from("<I", data, ndir_off)[0]
        self.dirs = [struct.unpack_from("<II", data, ndir_off + 4 + 8 * i) for i in range(ndirs)]
        self.sections = []
        sect = opt + opt_size
        for i in range(nsect):
            name, vsize, va, rawsize, rawptr = struct.unpack_from("<8sIIII", data, sect + 40 * i)
            self.sections.append((name.rstrip(b"\0").decode("ascii", "replace"), va, max(vsize, rawsize), rawptr))

    def off(self, rva):
        for _name, va, size, rawptr in self.sections:
            if va <= rva < va + size:
                return rawptr + rva - va
        raise ValueError("RVA 0x%X not in any section" % rva)

    def cstr(self, rva):
        o = self.off(rva)
        return self.data[o:self.data.index(b"\0", o)].decode("ascii", "replace")

    def exports(self):
        rva, size = self.dirs[0]
        if not rva:
            return []
        o = self.off(rva)
        nnames, addr_names = struct.unpack_from("<II", self.data, o + 24)[0], struct.unpack_from("<I", self.data, o + 32)[0]
        names_off = self.off(addr_names)
        return [self.cstr(struct.unpack_from("<I", self.data, names_off + 4 * i)[0]) for i in range(nnames)]

    def imports(self):
        rva, _size = self.dirs[1]
        out = []
        if not rva:
            return out
        o = self.off(rva)
        while True:
            fields = struct.unpack_from("<IIIII", self.data, o)
            if not any(fields):
                break
            out.append(self.cstr(fields[3]))
            o += 20
        return out

    def resources(self):
        """Returns a list of (type, name, lang, bytes); type/name are int ids or str names."""
        rva, _size = self.dirs[2]
        if not rva:
            return []
        base = self.off(rva)
        out = []

        def entry_name(raw):
            if raw & 0x80000000:
                o = base + (raw & 0x7FFFFFFF)
                n = struct.unpack_from("<H", self.data, o)[0]
                return self.data[o + 2:o + 2 + 2 * n].decode("utf-16-le")
            return raw

        def walk(dir_off, path):
            n_named, n_ids = struct.unpack_from("<HH", self.data, dir_off + 12)
            for i in range(n_named + n_ids):
                raw_name, target = struct.unpack_from("<II", self.data, dir_off + 16 + 8 * i)
                key = path + [entry_name(raw_name)]
                if target & 0x80000000:
                    walk(base + (target & 0x7FFFFFFF), key)
                else:
                    data_rva, size, _cp, _res = struct.unpack_from("<IIII", self.data, base + target)
                    o = self.off(data_rva)
                    out.append((key[0], key[1], key[2], self.data[o:o + size]))

        walk(base, [])
        return out


def parse_version(blob):
    """Parses a VS_VERSIONINFO block into (fixed dict, {table: {key: (value, wValueLength)}}, translations)."""
    def align(x):
        return (x + 3) & ~3

    def node(o):
        length, vlen, vtype = struct.unpack_from("<HHH", blob, o)
        k = o + 6
        end = k
        while blob[end:end + 2] != b"\0\0":
            end += 2
        key = blob[k:end].decode("utf-16-le")
        value_off = align(end + 2)
        return length, vlen, vtype, key, value_off

    length, vlen, _vtype, key, voff = node(0)
    if key != "VS_VERSION_INFO":
        raise ValueError("VERSIONINFO key is %r" % key)
    fixed = {}
    if vlen:
        f = struct.unpack_from("<13I", blob, voff)
        if f[0] != 0xFEEF04BD:
            raise ValueError("bad VS_FIXEDFILEINFO signature 0x%X" % f[0])
        fixed = {"StrucVersion": f[1],
                 "FileVersion": (f[2] >> 16, f[2] & 0xFFFF, f[3] >> 16, f[3] & 0xFFFF),
                 "ProductVersion": (f[4] >> 16, f[4] & 0xFFFF, f[5] >> 16, f[5] & 0xFFFF),
                 "FileFlagsMask": f[6], "FileFlags": f[7], "FileOS": f[8], "FileType": f[9],
                 "FileSubtype": f[10], "FileDate": (f[11] << 32) | f[12]}
    tables, translations = {}, []
    child = align(voff + vlen)
    while child < length:
        clen, _cvlen, _ct, ckey, cvoff = node(child)
        if clen == 0:
            break
        if ckey == "StringFileInfo":
            t = cvoff
            while t < child + clen:
                tlen, _, _, tkey, toff = node(t)
                strings = {}
                s = toff
                while s < t + tlen:
                    slen, svlen, _, skey, soff = node(s)
                    raw = blob[soff:soff + 2 * svlen].decode("utf-16-le")
                    strings[skey] = (raw.split("\0", 1)[0], svlen)
                    s = align(s + slen)
                tables[tkey] = strings
                t = align(t + tlen)
        elif ckey == "VarFileInfo":
            v = cvoff
            while v < child + clen:
                vl, vvlen, _, vkey, vvoff = node(v)
                if vkey == "Translation":
                    for i in range(vvlen // 4):
                        translations.append(struct.unpack_from("<HH", blob, vvoff + 4 * i))
                v = align(v + vl)
        child = align(child + clen)
    return fixed, tables, translations


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("dll")
    ap.add_argument("--arch", choices=["i686", "x86_64"], help="expected machine type")
    ap.add_argument("--dump", action="store_true", help="print every resource")
    args = ap.parse_args()

    with open(args.dll, "rb") as fh:
        pe = PE(fh.read())
    passed = failed = 0

    def check(ok, what):
        nonlocal passed, failed
        print("%s %s" % ("ok  " if ok else "FAIL", what))
        if ok:
            passed += 1
        else:
            failed += 1

    machine = MACHINES.get(pe.machine, "0x%X" % pe.machine)
    check(bool(pe.characteristics & 0x2000), "image is a DLL (IMAGE_FILE_DLL)")
    check(args.arch is None or machine == args.arch, "machine %s (PE%s)" % (machine, "32+" if pe.magic == 0x20B else "32"))
    exports = pe.exports()
    check(sorted(exports) == EXPECTED_EXPORTS, "exports exactly %s (found %s)" % (EXPECTED_EXPORTS, exports))
    imports = pe.imports()
    foreign = [d for d in imports if d.lower() not in SYSTEM_DLLS]
    check(not foreign, "imports only system DLLs %s%s" % (imports, " - not system: %s" % foreign if foreign else ""))
    eager = [d for d in imports if d.lower() in LOADED_ON_USE]
    check(not eager, "imports none of %s, loaded on first use%s" % (sorted(LOADED_ON_USE), " - imported: %s" % eager if eager else ""))

    res = pe.resources()
    if args.dump:
        for rtype, name, lang, blob in res:
            print("     resource type=%s name=%s lang=%d size=%d" % (RT_NAMES.get(rtype, rtype), name, lang, len(blob)))

    def find(rtype, name):
        return [(lang, blob) for t, n, lang, blob in res if t == rtype and n == name]

    tlb = find("TYPELIB", 1)
    check(len(tlb) == 1, "TYPELIB 1 present")
    if tlb:
        lang, blob = tlb[0]
        check(lang == 0, "TYPELIB 1 is language-neutral (lang %d)" % lang)
        check(blob[:4] == b"MSFT", "TYPELIB 1 is an MSFT type library (%d bytes, lang %d)" % (len(blob), lang))
        syskind = struct.unpack_from("<I", blob, 0x14)[0] & 0xF
        major, minor = struct.unpack_from("<HH", blob, 0x18)
        lcid = struct.unpack_from("<I", blob, 0x0C)[0]
        want_sys = {"i686": 1, "x86_64": 3}.get(machine)
        check(syskind == want_sys, "type library syskind %d (1=SYS_WIN32, 3=SYS_WIN64) matches %s" % (syskind, machine))
        check((major, minor, lcid) == (1, 0, 0), "type library version %d.%d lcid %d" % (major, minor, lcid))
        for label, g in (("LIBID", LIBID), ("IID__Main2", IID_MAIN2), ("CLSID_Main2", CLSID_MAIN2)):
            check(g.bytes_le in blob, "type library holds %s %s" % (label, str(g).upper()))

    iid = find("_IID_MAIN2", 1)
    check(len(iid) == 1, "_IID_MAIN2 1 present")
    if iid:
        lang, blob = iid[0]
        check(lang == 0, "_IID_MAIN2 1 is language-neutral (lang %d)" % lang)
        check(blob == EXPECTED_IID_RESOURCE, "_IID_MAIN2 1 = %s (lang %d)" % (blob.hex(" ").upper(), lang))

    ver = find(RT_VERSION, 1)
    check(len(ver) == 1 and ver[0][0] == 1033, "VERSIONINFO 1 present, language 1033 (%s)" % [l for l, _ in ver])
    if ver:
        fixed, tables, translations = parse_version(ver[0][1])
        for key, want in EXPECTED_FIXED.items():
            check(fixed.get(key) == want, "VS_FIXEDFILEINFO %s = %r" % (key, fixed.get(key)))
        check(list(tables) == [EXPECTED_STRING_TABLE], "string tables %s" % list(tables))
        strings = tables.get(EXPECTED_STRING_TABLE, {})
        for key, want in EXPECTED_STRINGS.items():
            got = strings.get(key)
            check(got is not None and got[0] == want,
                  "string %s = %r (wValueLength %s)" % (key, got[0] if got else None, got[1] if got else "-"))
        extra = sorted(set(strings) - set(EXPECTED_STRINGS))
        check(not extra, "no unexpected strings %s" % extra)
        check(translations == EXPECTED_TRANSLATION,
              "Translation %s" % ["0x%04X,0x%04X" % t for t in translations])

    print("check_pe: %d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
