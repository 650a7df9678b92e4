"""Reads the parts of an MSFT type library (what widl -t writes and the DLL embeds as TYPELIB 1)
that the build and its checks look at: the header's library id, version, locale and system kind,
the GUID table, and the library's custom data, which widl fills with when and by which version it
ran. No package reads this format, so it is read here, by its layout, not by searching its bytes.

The layout: a header of 0x54 bytes (one more 32-bit field when flag 0x100 names a help DLL), one
32-bit offset per type info, then fifteen segments of (offset, length, -1, 0x0F): type infos,
imported infos, imported files, references, GUID hashes, GUIDs, name hashes, names, strings, type
descriptions, array descriptions, custom data, custom data GUIDs, two reserved.
"""
import struct
import uuid

MAGIC = b"MSFT"
SEGMENTS = ("typeinfos", "impinfos", "impfiles", "refs", "guidhash", "guids", "namehash", "names",
            "strings", "typedescs", "arraydescs", "custdata", "cdguids", "res0e", "res0f")
GUID_ENTRY = 24          # the GUID, its type's HREFTYPE, the next entry of its hash chain
CDGUID_ENTRY = 12        # offset of the GUID, offset of the value, offset of the next entry
VT_BSTR, VT_UI4 = 8, 19


class TypeLib:
    def __init__(self, data):
        self.data = data
        if bytes(data[:4]) != MAGIC:
            raise ValueError("not an MSFT type library")
        (self.libid_at, self.lcid, _lcid2, varflags, version, _flags,
         ntypeinfos) = struct.unpack_from("<iIIIIIi", data, 0x08)
        self.syskind = varflags & 0xF
        self.version = (version & 0xFFFF, version >> 16)
        self.custom_at, = struct.unpack_from("<i", data, 0x40)
        segdir = 0x54 + (4 if varflags & 0x100 else 0) + 4 * ntypeinfos
        self.segments = {}
        for i, name in enumerate(SEGMENTS):
            offset, length = struct.unpack_from("<ii", data, segdir + 16 * i)
            self.segments[name] = (offset, length) if offset >= 0 else (0, 0)

    def guid(self, at):
        base, length = self.segments["guids"]
        if not 0 <= at <= length - GUID_ENTRY:
            raise ValueError(f"GUID offset {at} outside the GUID table")
        return uuid.UUID(bytes_le=bytes(self.data[base + at:base + at + 16]))

    def libid(self):
        return self.guid(self.libid_at)

    def guids(self):
        _, length = self.segments["guids"]
        return [self.guid(at) for at in range(0, length - length % GUID_ENTRY, GUID_ENTRY)]

    def library_custom_data(self):
        """The library's custom data as a list of CustomDatum, in the file's order."""
        base, length = self.segments["cdguids"]
        out, at, seen = [], self.custom_at, set()
        while at != -1:
            if at in seen or not 0 <= at <= length - CDGUID_ENTRY:
                raise ValueError(f"custom data chain broken at {at}")
            seen.add(at)
            guid_at, value_at, following = struct.unpack_from("<iii", self.data, base + at)
            out.append(CustomDatum(self, base + at, self.guid(guid_at), value_at))
            at = following
        return out


class CustomDatum:
    """One custom value. A value that fits 26 bits is packed into the entry itself (the top bit
    set, the type in the next five bits); any other is its type (16 bits) and its bytes in the
    custom data segment, a text as a 32-bit length and that many bytes."""

    def __init__(self, lib, entry, guid, value_at):
        self.lib, self.entry, self.guid, self.value_at = lib, entry, guid, value_at
        if value_at < 0:
            self.vt = (value_at >> 26) & 0x1F
            self.where = None
        else:
            base, length = lib.segments["custdata"]
            if value_at > length - 2:
                raise ValueError(f"custom value at {value_at} outside its segment")
            self.where = base + value_at
            self.vt, = struct.unpack_from("<H", lib.data, self.where)

    def number(self):
        if self.where is None:
            return self.value_at & 0x3FFFFFF
        return struct.unpack_from("<I", self.lib.data, self.where + 2)[0]

    def set_number(self, value):
        """Writes a VT_UI4 in the form it has now (packed or stored)."""
        if self.vt != VT_UI4:
            raise ValueError(f"custom value {self.guid} is of type {self.vt}, not VT_UI4")
        if self.where is None:
            if value >> 26:
                raise ValueError("a packed value holds 26 bits")
            struct.pack_into("<I", self.lib.data, self.entry + 4,
                             0x80000000 | VT_UI4 << 26 | value)
        else:
            struct.pack_into("<I", self.lib.data, self.where + 2, value)

    def text_span(self):
        """(offset, length) of a VT_BSTR's bytes in the file."""
        if self.vt != VT_BSTR or self.where is None:
            raise ValueError(f"custom value {self.guid} is not a stored text")
        length, = struct.unpack_from("<i", self.lib.data, self.where + 2)
        return self.where + 6, length
