#!/usr/bin/python3
"""Checks a built Tabforge.dll without Windows: PE machine, export list, imported DLLs, and the
resources (TYPELIB 1, _IID_MAIN2 1, VERSIONINFO 1).

Usage: check_pe.py Tabforge.dll --version-header FILE [--arch i686|x86_64] [--dump]

The ids it expects are server/Tabforge.idl's, the version the one that the build wrote into
FILE (server/generated/tabforge_version.h in the build folder) from the project's version.
Exit status 0 when every check passes. The PE file is read with python3-pefile, the type library
with typelib.py.
"""
import argparse
import struct
import sys

import pefile

import product_facts
from typelib import TypeLib

MACHINES = {0x14C: "i686", 0x8664: "x86_64", 0xAA64: "arm64"}
SYSKINDS = {"i686": 1, "x86_64": 3}            # SYS_WIN32, SYS_WIN64
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
EXPECTED_FIXED = {"FileFlagsMask": 0, "FileFlags": 0, "FileOS": 4, "FileType": 2, "FileSubtype": 0}
EXPECTED_STRING_TABLE = "040904B0"
EXPECTED_TRANSLATION = [(0x0409, 0x04B0)]


def resources(pe):
    """[(type, name, lang, bytes)]: type and name are int ids or str names."""
    if not hasattr(pe, "DIRECTORY_ENTRY_RESOURCE"):
        return []

    def key(entry):
        return str(entry.name) if entry.name is not None else entry.id

    out = []
    for rtype in pe.DIRECTORY_ENTRY_RESOURCE.entries:
        for name in rtype.directory.entries:
            for lang in name.directory.entries:
                data = lang.data.struct
                out.append((key(rtype), key(name), lang.id,
                            pe.get_data(data.OffsetToData, data.Size)))
    return out


def version_record(pe):
    """(fixed, {table: {key: value}}, translations) of the version record, as pefile read it."""
    f = pe.VS_FIXEDFILEINFO[0]
    fixed = {"FileVersion": (f.FileVersionMS >> 16, f.FileVersionMS & 0xFFFF,
                             f.FileVersionLS >> 16, f.FileVersionLS & 0xFFFF),
             "ProductVersion": (f.ProductVersionMS >> 16, f.ProductVersionMS & 0xFFFF,
                                f.ProductVersionLS >> 16, f.ProductVersionLS & 0xFFFF),
             "FileFlagsMask": f.FileFlagsMask, "FileFlags": f.FileFlags, "FileOS": f.FileOS,
             "FileType": f.FileType, "FileSubtype": f.FileSubtype}
    tables, translations = {}, []
    for info in pe.FileInfo[0] if hasattr(pe, "FileInfo") else []:
        if info.Key == b"StringFileInfo":
            for table in info.StringTable:
                tables[table.LangID.decode("ascii")] = {
                    k.decode("utf-8"): v.decode("utf-8") for k, v in table.entries.items()}
        elif info.Key == b"VarFileInfo":
            for var in info.Var:
                if b"Translation" not in var.entry:
                    continue
                lang, codepage = var.entry[b"Translation"].split()
                translations.append((int(lang, 16), int(codepage, 16)))
                # pefile keeps the last pair of a list; the length says how many there are.
                translations += [None] * (var.ValueLength // 4 - 1)
    return fixed, tables, translations


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("dll")
    ap.add_argument("--version-header", required=True,
                    help="tabforge_version.h that the build wrote")
    ap.add_argument("--arch", choices=["i686", "x86_64"], help="expected machine type")
    ap.add_argument("--dump", action="store_true", help="print every resource")
    args = ap.parse_args()

    ids = product_facts.ids()
    version = product_facts.version(args.version_header)
    four = (version["MAJOR"], version["MINOR"], version["PATCH"], 0)
    expected_strings = {"CompanyName": "Morvelin Inc.", "ProductName": "Tabforge",
                        "FileVersion": version["TEXT"], "ProductVersion": version["TEXT"],
                        "InternalName": "Tabforge", "OriginalFilename": "Tabforge.dll",
                        "OLESelfRegister": ""}
    try:
        pe = pefile.PE(args.dll)
    except (pefile.PEFormatError, OSError) as e:
        print("FAIL %s is no PE file: %s" % (args.dll, e))
        return 1
    passed = failed = 0

    def check(ok, what):
        nonlocal passed, failed
        print("%s %s" % ("ok  " if ok else "FAIL", what))
        if ok:
            passed += 1
        else:
            failed += 1

    machine = MACHINES.get(pe.FILE_HEADER.Machine, "0x%X" % pe.FILE_HEADER.Machine)
    pe32plus = pe.OPTIONAL_HEADER.Magic == pefile.OPTIONAL_HEADER_MAGIC_PE_PLUS
    check(pe.is_dll(), "image is a DLL (IMAGE_FILE_DLL)")
    check(args.arch is None or machine == args.arch, "machine %s (PE%s)" % (machine, "32+" if pe32plus else "32"))
    exports = [s.name.decode("ascii", "replace") for s in
               getattr(pe, "DIRECTORY_ENTRY_EXPORT", None) and pe.DIRECTORY_ENTRY_EXPORT.symbols or []
               if s.name]
    check(sorted(exports) == EXPECTED_EXPORTS, "exports exactly %s (found %s)" % (EXPECTED_EXPORTS, exports))
    imports = [e.dll.decode("ascii", "replace") for e in getattr(pe, "DIRECTORY_ENTRY_IMPORT", [])]
    delayed = [e.dll.decode("ascii", "replace") for e in getattr(pe, "DIRECTORY_ENTRY_DELAY_IMPORT", [])]
    foreign = [d for d in imports + delayed if d.lower() not in SYSTEM_DLLS]
    check(not foreign, "imports only system DLLs %s%s" % (imports + delayed, " - not system: %s" % foreign if foreign else ""))
    eager = [d for d in imports if d.lower() in LOADED_ON_USE]
    check(not eager, "imports none of %s, loaded on first use%s" % (sorted(LOADED_ON_USE), " - imported: %s" % eager if eager else ""))

    res = resources(pe)
    if args.dump:
        for rtype, name, lang, blob in res:
            print("     resource type=%s name=%s lang=%d size=%d" % (
                pefile.RESOURCE_TYPE.get(rtype, rtype), name, lang, len(blob)))

    def find(rtype, name):
        return [(lang, blob) for t, n, lang, blob in res if t == rtype and n == name]

    tlb = find("TYPELIB", 1)
    check(len(tlb) == 1, "TYPELIB 1 present")
    if tlb:
        lang, blob = tlb[0]
        check(lang == 0, "TYPELIB 1 is language-neutral (lang %d)" % lang)
        try:
            lib = TypeLib(blob)
            check(True, "TYPELIB 1 is an MSFT type library (%d bytes)" % len(blob))
            want_sys = SYSKINDS.get(machine)
            check(lib.syskind == want_sys, "type library syskind %d (1=SYS_WIN32, 3=SYS_WIN64) matches %s" % (lib.syskind, machine))
            check(lib.version + (lib.lcid,) == (version["MAJOR"], version["MINOR"], 0),
                  "type library version %d.%d lcid %d" % (lib.version + (lib.lcid,)))
            check(lib.libid() == ids["library"], "type library's id %s" % str(lib.libid()).upper())
            guids = lib.guids()
            for label, key in (("IID__Main2", "_Main2"), ("CLSID_Main2", "Main2")):
                check(ids[key] in guids, "type library holds %s %s" % (label, str(ids[key]).upper()))
        except ValueError as e:
            check(False, "TYPELIB 1 is an MSFT type library: %s" % e)

    iid = find("_IID_MAIN2", 1)
    check(len(iid) == 1, "_IID_MAIN2 1 present")
    if iid:
        lang, blob = iid[0]
        check(lang == 0, "_IID_MAIN2 1 is language-neutral (lang %d)" % lang)
        check(blob == struct.pack("<I", 16) + ids["_Main2"].bytes_le,
              "_IID_MAIN2 1 = %s (lang %d)" % (blob.hex(" ").upper(), lang))

    ver = find(RT_VERSION, 1)
    check(len(ver) == 1 and ver[0][0] == 1033, "VERSIONINFO 1 present, language 1033 (%s)" % [l for l, _ in ver])
    if ver and hasattr(pe, "VS_FIXEDFILEINFO"):
        fixed, tables, translations = version_record(pe)
        for key, want in dict(EXPECTED_FIXED, FileVersion=four, ProductVersion=four).items():
            check(fixed.get(key) == want, "VS_FIXEDFILEINFO %s = %r" % (key, fixed.get(key)))
        check(list(tables) == [EXPECTED_STRING_TABLE], "string tables %s" % list(tables))
        strings = tables.get(EXPECTED_STRING_TABLE, {})
        for key, want in expected_strings.items():
            check(strings.get(key) == want, "string %s = %r" % (key, strings.get(key)))
        extra = sorted(set(strings) - set(expected_strings))
        check(not extra, "no unexpected strings %s" % extra)
        check(translations == EXPECTED_TRANSLATION,
              "Translation %s" % ["0x%04X,0x%04X" % t if t else "?" for t in translations])
    elif ver:
        check(False, "VERSIONINFO 1 holds a VS_FIXEDFILEINFO")

    print("check_pe: %d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
