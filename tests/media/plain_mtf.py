#!/usr/bin/env python3
"""Lists or extracts a plain MTF medium, by what every MTF reader knows and nothing of our own streams.

    plain_mtf.py list MEDIUM            one line each: size, modification time, device/directory/name
    plain_mtf.py extract MEDIUM FOLDER  files under FOLDER/device/directory/name
    plain_mtf.py digest MEDIUM          one line each: SHA-256 of the content, path

Strict about what it reads: header checksums, alignment, positions in the set, filemarks and the order of the blocks.
"""
import calendar
import hashlib
import os
import struct
import sys

KNOWN = {b"TAPE", b"SSET", b"VOLB", b"DIRB", b"FILE", b"ESET", b"SFMB"}


class Bad_Medium(Exception):
    pass


def xor_words(data):
    total = 0
    for (word,) in struct.iter_unpack("<H", data):
        total ^= word
    return total


class Block:
    def __init__(self, medium, offset, flb):
        data = medium.read_at(offset, 52)
        if xor_words(data) != 0:
            raise Bad_Medium("block header checksum at %d" % offset)
        (self.type, self.attributes, self.first, self.os, self.os_version, self.size, self.fla) = struct.unpack_from(
            "<4sIHBBQQ", data, 0)
        (self.number,) = struct.unpack_from("<I", data, 36)
        self.strings = data[48]
        if self.type not in KNOWN:
            raise Bad_Medium("unknown block %r at %d" % (self.type, offset))
        self.offset = offset
        self.data = medium.read_at(offset, min(self.first, flb))

    def u32(self, at):
        return struct.unpack_from("<I", self.data, at)[0]

    def text(self, at):
        length, offset = struct.unpack_from("<HH", self.data, at)
        if offset + length > len(self.data):
            raise Bad_Medium("string outside its block at %d" % self.offset)
        return self.data[offset:offset + length].decode("utf-16-le" if self.strings == 2 else "latin-1")

    def time(self, at):
        packed = int.from_bytes(self.data[at:at + 5], "big")
        if packed == 0:
            return None
        return calendar.timegm((packed >> 26, packed >> 22 & 15, packed >> 17 & 31, packed >> 12 & 31,
                                packed >> 6 & 63, packed & 63))


class Medium:
    def __init__(self, path):
        self.file = open(path, "rb")
        self.size = os.fstat(self.file.fileno()).st_size
        (self.flb,) = struct.unpack("<H", self.read_at(84, 2))

    def read_at(self, offset, length):
        self.file.seek(offset)
        data = self.file.read(length)
        if len(data) != length:
            raise Bad_Medium("the medium ends inside something at %d" % offset)
        return data

    def streams(self, block):
        """(id, offset of the data, length) of each stream; the last is SPAD."""
        at = block.offset + block.first
        while True:
            if at % 4:
                raise Bad_Medium("stream header not aligned at %d" % at)
            header = self.read_at(at, 22)
            if xor_words(header) != 0:
                raise Bad_Medium("stream header checksum at %d" % at)
            ident, _, _, length = struct.unpack_from("<4sHHQ", header, 0)
            yield ident, at + 22, length
            if ident == b"SPAD":
                return
            at = (at + 22 + length + 3) // 4 * 4

    def files(self):
        """(device, directory components, name, size, mtime, offset of the data) in the order of the medium."""
        at = 0
        start = None
        number = None
        device = folder = folder_id = None
        kinds = []
        while at < self.size:
            block = Block(self, at, self.flb)
            kinds.append(block.type)
            if block.type == b"SFMB":
                if block.fla != at // self.flb:
                    raise Bad_Medium("filemark %d at %d" % (block.fla, at))
                at += block.first
                continue
            if block.type == b"SSET":
                start, number = at, -1
            if block.type in (b"VOLB", b"DIRB", b"FILE") and block.fla * self.flb != at - start:
                raise Bad_Medium("block address at %d" % at)
            if block.type != b"TAPE":
                if number is None or block.number <= number:
                    raise Bad_Medium("block number at %d" % at)
                number = block.number
            data = None
            for ident, offset, length in self.streams(block):
                if ident == b"STAN":
                    data = (offset, length)
                elif ident == b"SPAD":
                    at = offset + length
            if at % self.flb:
                raise Bad_Medium("padding ends at %d" % at)
            if block.type == b"VOLB":
                device = block.text(56)
            elif block.type == b"DIRB":
                name = block.text(80)
                if not name.endswith("\0"):
                    raise Bad_Medium("directory name without its end at %d" % block.offset)
                folder = [] if name == "\0" else name[:-1].split("\0")
                folder_id = block.u32(76)
            elif block.type == b"FILE":
                if block.u32(76) != folder_id:
                    raise Bad_Medium("file of another directory at %d" % block.offset)
                if data is None or data[1] != block.size:
                    raise Bad_Medium("no plain content at %d" % block.offset)
                yield device, folder, block.text(84), block.size, block.time(56), data[0]
        if kinds[:4] != [b"TAPE", b"SFMB", b"SSET", b"VOLB"] or kinds[-3:] != [b"SFMB", b"ESET", b"SFMB"]:
            raise Bad_Medium("blocks out of order: %r" % kinds)

    def pieces(self, offset, length):
        while length:
            piece = self.read_at(offset, min(length, 1 << 20))
            yield piece
            offset += len(piece)
            length -= len(piece)


def main(arguments):
    if len(arguments) < 2 or arguments[0] not in ("list", "extract", "digest"):
        sys.stderr.write(__doc__)
        return 2
    medium = Medium(arguments[1])
    for device, folder, name, size, mtime, offset in medium.files():
        path = "/".join([device] + folder + [name])
        if arguments[0] == "list":
            print(size, mtime, path)
        elif arguments[0] == "digest":
            digest = hashlib.sha256()
            for piece in medium.pieces(offset, size):
                digest.update(piece)
            print(digest.hexdigest(), path)
        else:
            parts = [device] + folder + [name]
            if any(part in ("", ".", "..") or "/" in part or "\0" in part for part in parts):
                raise Bad_Medium("a name that no file system holds: %r" % path)
            target = os.path.join(arguments[2], *parts)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "xb") as out:
                for piece in medium.pieces(offset, size):
                    out.write(piece)
            if mtime is not None:
                os.utime(target, (mtime, mtime))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (Bad_Medium, OSError, UnicodeDecodeError) as problem:
        sys.stderr.write("%s\n" % problem)
        sys.exit(1)
