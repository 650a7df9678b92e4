"""The ids and the version of Tabforge.dll, read from where the build takes them: the ids from
server/Tabforge.idl, the version from the header that the build writes from the project's version
(tabforge_version.h in the build folder's server/generated/). The helpers of this folder check and
package what the build made against these, never against copies of their own.
"""
import os
import re
import uuid

SOURCE = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
IDL = os.path.join(SOURCE, "server", "Tabforge.idl")


def ids(idl=IDL):
    """{"library": LIBID, "_Main2": IID, "Main2": CLSID}: each uuid() attribute with the name of
    the library, interface or coclass that it stands before."""
    text = re.sub(r"//[^\n]*", "", open(idl, encoding="utf-8").read())
    found = {}
    for m in re.finditer(r"\[[^\[\]]*?\buuid\(([0-9A-Fa-f-]{36})\)[^\[\]]*\]\s*"
                         r"(library|interface|coclass)\s+(\w+)", text):
        key = "library" if m.group(2) == "library" else m.group(3)
        found[key] = uuid.UUID(m.group(1))
    for key in ("library", "_Main2", "Main2"):
        if key not in found:
            raise ValueError(f"{idl}: no uuid for {key}")
    return found


def version(header):
    """The version macros of tabforge_version.h: MAJOR, MINOR, PATCH (numbers) and TEXT."""
    macros = dict(re.findall(r"^#define TABFORGE_VERSION_(\w+) (.+)$",
                             open(header, encoding="utf-8").read(), re.M))
    try:
        out = {key: int(macros[key]) for key in ("MAJOR", "MINOR", "PATCH")}
        out["TEXT"] = re.fullmatch(r'"([^"]*)"', macros["TEXT"]).group(1)
    except (KeyError, ValueError, AttributeError) as e:
        raise ValueError(f"{header}: no version macros ({e})") from None
    return out
