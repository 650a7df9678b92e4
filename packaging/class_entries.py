#!/usr/bin/python3
"""Prints the registry entries under the classes that a case added, in a form that compares across
cases, for scripts/test-install.sh.

Usage: class_entries.py BEFORE AFTER HIVE [fold]

BEFORE and AFTER are snapshots (prefix_snapshot.py). The hive is folded away, the DLL's path and
folder (read from its InprocServer32) become <DLL> and <DIR>, and the registry view is kept where
Windows keeps one: "[32] " before the class and interface keys of the 32-bit view, while the
program id and the type library are shared. With "fold", the view is folded away too. Entries
outside HIVE's classes are listed as OUTSIDE. The last line says where the DLL is: "DLL in the
user's profile", "DLL elsewhere" or "DLL none".
"""
import re, sys
before = set(open(sys.argv[1]).read().splitlines())
fold = len(sys.argv) > 4 and sys.argv[4] == "fold"
added = [l for l in open(sys.argv[2]).read().splitlines() if l not in before and "|" in l
         and "\\\\Classes\\\\" in l and "\\\\Installer\\\\" not in l]
dll = next((l.split('|@="', 1)[1][:-1] for l in added if l.split("|")[0].endswith("InprocServer32")
            and '|@="' in l), "")
folder = dll.rsplit("\\\\", 1)[0]
out = set()
for l in added:
    if not l.startswith(sys.argv[3] + "\\Software\\\\Classes\\\\"):
        out.add("OUTSIDE " + l)
        continue
    l = l.split("\\\\Classes\\\\", 1)[1].replace("Typelib\\\\", "TypeLib\\\\")
    view = ""
    if l.startswith("Wow6432Node\\\\"):
        l = l[len("Wow6432Node\\\\"):]
        view = "" if fold or not re.match(r"(CLSID|Interface)\\\\", l) else "[32] "
    if dll:
        l = l.replace(dll, "<DLL>").replace(folder + '"', '<DIR>"')
    out.add(view + l)
for l in sorted(out):
    print(l)
place = "in the user's profile" if "\\\\users\\\\" in dll else "elsewhere" if dll else "none"
print("DLL " + place)
