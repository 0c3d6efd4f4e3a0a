#!/usr/bin/env python3
"""Lists or extracts a plain MTF medium, by what every MTF reader knows and nothing of our own streams.

    plain_mtf.py list MEDIUM            one line each: size, modification time, device/directory/name
    plain_mtf.py extract MEDIUM FOLDER  files under FOLDER/device/directory/name
    plain_mtf.py digest MEDIUM          one line each: SHA-256 of the content, path
    plain_mtf.py steps MEDIUM           the same, found as the most primitive readers find it

Strict about what it reads: header checksums, alignment, positions in the set, filemarks and the order of the blocks.
But for "steps", which believes whatever stands at the start of a logical block and tests nothing.
"""
import calendar
import hashlib
import os
import struct
import sys

KNOWN = {b"TAPE", b"SSET", b"VOLB", b"DIRB", b"FILE", b"ESET", b"SFMB"}
CONTINUATION = 1        # attribute of a block
STREAM_CONTINUATION = 1 # media format attribute of a stream
STREAM_OTHERWISE = 2 | 4 | 8 | 16   # variable, its end, encrypted, compressed


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
        if self.attributes & CONTINUATION:
            raise Bad_Medium("block that goes on from another medium at %d" % offset)
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

    def close(self):
        self.file.close()

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
            ident, system, media, length = struct.unpack_from("<4sHHQ", header, 0)
            if media & STREAM_CONTINUATION or (ident == b"STAN" and (system or media & STREAM_OTHERWISE)):
                raise Bad_Medium("stream of a kind that plain media do not have at %d" % at)
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
        if any(before == b"FILE" and kind not in (b"FILE", b"DIRB", b"SFMB") for before, kind in zip(kinds, kinds[1:])):
            raise Bad_Medium("blocks out of order: %r" % kinds)
        if kinds[:4] != [b"TAPE", b"SFMB", b"SSET", b"VOLB"] or kinds[-3:] != [b"SFMB", b"ESET", b"SFMB"]:
            raise Bad_Medium("blocks out of order: %r" % kinds)

    def steps(self):
        """As `files`, but for the time, by stepping from one logical block to the next: behind any block but FILE, and
        behind a file's data, the next boundary is looked at, whatever stands there."""
        at = 0
        device, folder = None, []
        while at < self.size:
            data = self.read_at(at, min(self.flb, self.size - at))
            kind = data[:4]
            step = self.flb
            if kind == b"VOLB":
                device = self.step_text(data, 56)
            elif kind == b"DIRB":
                folder = self.step_text(data, 80).split("\0")[:-1]
                folder = [] if folder == [""] else folder
            elif kind == b"FILE":
                stream = at + struct.unpack_from("<H", data, 8)[0]
                while True:
                    ident, _, length = struct.unpack("<4sIQ", self.read_at(stream, 16))
                    if ident in (b"STAN", b"SPAD"):
                        break
                    stream = (stream + 22 + length + 3) // 4 * 4
                if ident == b"STAN":
                    yield device, folder, self.step_text(data, 84), length, stream + 22
                step = stream + 22 + length - at
            at += (step + self.flb - 1) // self.flb * self.flb

    @staticmethod
    def step_text(data, at):
        length, offset = struct.unpack_from("<HH", data, at)
        return data[offset:offset + length].decode("latin-1" if data[44] % 2 else "utf-16-le")

    def digest(self, offset, length):
        digest = hashlib.sha256()
        for piece in self.pieces(offset, length):
            digest.update(piece)
        return digest.hexdigest()

    def extract(self, target):
        """Writes every file below `target`; (path, name of the file) of each. Two that have no place beside each other in
        a folder, as "a" and "a/b", are put apart."""
        for number, (device, folder, name, size, mtime, offset) in enumerate(self.files()):
            parts = [device] + folder + [name]
            if any(part in ("", ".", "..") or "/" in part or "\0" in part for part in parts):
                raise Bad_Medium("a name that no file system holds: %r" % parts)
            path = os.path.join(target, *parts)
            try:
                os.makedirs(os.path.dirname(path), exist_ok=True)
                out = open(path, "xb")
            except (FileExistsError, NotADirectoryError, IsADirectoryError):
                path = os.path.join(target, "apart", str(number))
                os.makedirs(os.path.dirname(path), exist_ok=True)
                out = open(path, "xb")
            with out:
                for piece in self.pieces(offset, size):
                    out.write(piece)
            if mtime is not None:
                os.utime(path, (mtime, mtime))
            yield "/".join(parts), path

    def pieces(self, offset, length):
        while length:
            piece = self.read_at(offset, min(length, 1 << 20))
            yield piece
            offset += len(piece)
            length -= len(piece)


def main(arguments):
    if len(arguments) < 2 or arguments[0] not in ("list", "extract", "digest", "steps"):
        sys.stderr.write(__doc__)
        return 2
    medium = Medium(arguments[1])
    if arguments[0] == "extract":
        for path, name in medium.extract(arguments[2]):
            print(path, name)
    elif arguments[0] == "steps":
        for device, folder, name, size, offset in medium.steps():
            print(medium.digest(offset, size), "/".join([device] + folder + [name]))
    else:
        for device, folder, name, size, mtime, offset in medium.files():
            path = "/".join([device] + folder + [name])
            print(*((size, mtime, path) if arguments[0] == "list" else (medium.digest(offset, size), path)))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (Bad_Medium, OSError, UnicodeDecodeError) as problem:
        sys.stderr.write("%s\n" % problem)
        sys.exit(1)
