#!/usr/bin/python3
"""Prints a Wine prefix's registry and files, one line each, for scripts/test-install.sh to compare
before and after a case.

Usage: prefix_snapshot.py PREFIX

Keys as "HIVE\\key", values as "HIVE\\key|value line" in the form of Wine's .reg files, files as
"FILE path" under drive_c. Left out: what Wine rewrites at every start (the hardware it finds),
Windows Installer's own bookkeeping, the Windows folder and the temporary folders, and the flight
log that the library keeps for the user, which outlives the package as the user's data does.
"""
import os, re, sys
prefix = sys.argv[1]
for hive, name in (("HKLM", "system.reg"), ("HKCU", "user.reg")):
    key = None
    for line in open(os.path.join(prefix, name), encoding="utf-8", errors="replace"):
        line = line.rstrip("\n")
        if line.startswith("["):
            key = hive + "\\" + re.sub(r"\]\s*\d*$", "", line[1:])
            # Windows always has a user's classes key; Wine makes it on first use.
            if "\\\\Installer\\\\" not in key and "CurrentControlSet" not in key \
                    and "NetworkCards" not in key and key != "HKCU\\Software\\\\Classes":
                print(key)
        elif key and line and not line.startswith("#") and "CurrentControlSet" not in key \
                and "NetworkCards" not in key:
            print(key + "|" + line)
drive = os.path.join(prefix, "drive_c")
for root, dirs, files in os.walk(drive):
    rel = os.path.relpath(root, drive)
    if rel == "windows" or rel.startswith("windows" + os.sep) or os.sep + "Temp" in rel:
        dirs[:] = []
        continue
    # The user's flight log folder, and all below it.
    log_folder = os.path.join("AppData", "Local", "Tabforge")
    dirs[:] = [d for d in dirs if not os.path.join(rel, d).endswith(log_folder)]
    for entry in sorted(dirs + files):
        print("FILE " + os.path.join(rel, entry))
