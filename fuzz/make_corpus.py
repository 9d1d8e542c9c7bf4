#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: fuzz/corpus/{archive,database,api}/.

    python3 fuzz/make_corpus.py

The archives are written with Python's zipfile, the databases with Python's sqlite3; the scripts
that follow a database image, and the API scripts, use the encoding of fuzz/input_reader.h. The
output is the same on every run (fixed member dates, fixed contents), so the checked-in corpus can
be compared with a fresh one. Every file stays small: libFuzzer starts from them and mutates.
"""
import io
import os
import shutil
import sqlite3
import struct
import tempfile
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")
DATE = (2024, 1, 2, 3, 4, 6)


# ---- the script encoding of fuzz/input_reader.h ----

def byte(value):
    return bytes([value & 0xFF])


def number(value):
    return struct.pack("<I", value & 0xFFFFFFFF)


def text(data):
    if isinstance(data, str):
        data = data.encode("utf-8", "surrogateescape")
    if len(data) < 0xF0:
        return byte(len(data)) + data
    raise ValueError("use long_text for texts of 240 bytes or more")


def long_text(length, piece):
    """A text of `length` bytes made of `piece` repeated."""
    return byte(0xF0) + number(length) + text(piece)


# ---- archives (Python's zipfile) ----

def zip_bytes(members, comment=b"", compression=zipfile.ZIP_STORED, force_zip64=False,
              streamed=False):
    """members: (name, data) pairs; a name ending in '/' is a directory member."""
    buffer = io.BytesIO()

    class Unseekable(io.RawIOBase):
        """A sink without tell/seek: zipfile then writes data descriptors (flag bit 3)."""

        def writable(self):
            return True

        def write(self, data):
            return buffer.write(data)

    sink = Unseekable() if streamed else buffer
    with zipfile.ZipFile(sink, "w", compression=compression) as archive:
        for name, data in members:
            info = zipfile.ZipInfo(name, date_time=DATE)
            info.compress_type = zipfile.ZIP_STORED if name.endswith("/") else compression
            if force_zip64:
                with archive.open(info, "w", force_zip64=True) as member:
                    member.write(data)
            else:
                archive.writestr(info, data)
        archive.comment = comment
    return buffer.getvalue()


def end_record(archive):
    """(offset of the central directory, its size, number of entries) from the PK\\5\\6 record."""
    at = archive.rindex(b"PK\x05\x06")
    entries, size, offset = struct.unpack_from("<HII", archive, at + 10)
    return offset, size, entries


def over_read_archive(members, total_size, distance):
    """CVE-2024-39134: a well-formed archive whose comment ends with a ZIP64 end-of-central-
    directory signature `distance` (54 or 55) bytes before the end of the file, padded so that the
    file is `total_size` bytes long. Its fields point at the real central directory, so whether
    zziplib 0.13.72 takes the archive depends on the 1 or 2 bytes it reads beyond the file."""
    plain = zip_bytes(members)
    offset, size, entries = end_record(plain)
    record = bytearray(distance)
    record[0:4] = b"PK\x06\x06"
    struct.pack_into("<I", record, 24, entries)       # entries on this disk (read as 32 bits)
    struct.pack_into("<I", record, 32, entries)       # entries in all
    struct.pack_into("<Q", record, 40, size)          # size of the central directory
    seek = struct.pack("<Q", offset)                  # its offset: only the low bytes fit
    record[48:distance] = seek[: distance - 48]
    padding = total_size - len(plain) - len(record)
    if padding < 0:
        raise ValueError("members too large for the requested size")
    archive = zip_bytes(members, comment=b"\0" * padding + bytes(record))
    assert len(archive) == total_size, len(archive)
    assert archive.rindex(b"PK\x06\x06") == total_size - distance
    with zipfile.ZipFile(io.BytesIO(archive)) as check:  # a ZIP reader takes it as it is
        assert [i.filename for i in check.infolist()] == [name for name, _ in members]
    return archive


def archive_seeds():
    text_block = "".join("line %04d of a text that deflate shrinks well\n" % i for i in range(900))
    return {
        "stored.zip": zip_bytes([
            ("readme.txt", b"velFS archive root\n"),
            ("docs/", b""),
            ("docs/a.txt", b"alpha"),
            ("docs/deep/b.txt", b"beta " * 20),
            ("empty.txt", b""),
        ]),
        "deflated.zip": zip_bytes([
            ("text.txt", text_block.encode()),               # > 32 KiB: seeks re-inflate
            ("small.txt", b"x" * 300),
        ], compression=zipfile.ZIP_DEFLATED),
        "names.zip": zip_bytes([
            ("A.txt", b"upper"),
            ("a.txt", b"lower"),
            ("SUB/", b""),
            ("sub/x.txt", b"x"),
            ("docs\\win.txt", b"backslash"),
            ("/abs.txt", b"leading slash"),
            ("dot/./twice//x", b"dots"),
            ("u/\u00fc\u00df.txt", b"utf-8"),
            ("colon:name.txt", b"colon"),
        ]),
        "comment.zip": zip_bytes([("c.txt", b"comment")], comment=b"an archive comment, 40 bytes long......"),
        "zip64-extras.zip": zip_bytes([("z.txt", b"zip64 extra fields")], force_zip64=True),
        "data-descriptors.zip": zip_bytes([("d.txt", b"written to a stream" * 4)],
                                          compression=zipfile.ZIP_DEFLATED, streamed=True),
        # Regression inputs of CVE-2024-39134 (src/archive/archive_io.h): 1,024 bytes, a multiple
        # of 512 (zziplib reads 2 bytes past its stack buffer), and 700 bytes (1 byte past the
        # data it read).
        "cve-2024-39134-1024.zip": over_read_archive([("m.txt", b"member")], 1024, 54),
        "cve-2024-39134-700.zip": over_read_archive([("m.txt", b"member")], 700, 55),
    }


# ---- databases (Python's sqlite3) ----

CREATE = ("create table if not exists FileStorage (FileName text, Path text, Content blob, "
          "Info blob, primary key(FileName, Path));")


def database_image(statements, page_size=512, journal=None):
    directory = tempfile.mkdtemp()
    try:
        path = os.path.join(directory, "seed.db")
        connection = sqlite3.connect(path)
        connection.execute("PRAGMA page_size=%d" % page_size)
        if journal:
            connection.execute("PRAGMA journal_mode=%s" % journal)
        for statement, *parameters in statements:
            connection.execute(statement, *parameters)
        connection.commit()
        connection.close()
        with open(path, "rb") as image:
            return image.read()
    finally:
        shutil.rmtree(directory)


def rows(*entries):
    return [("INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)", entry)
            for entry in entries]


# Database script operations (fuzz/database_fuzzer.cc, Session::Step).
def d_open(slot, path, mode=3):
    return byte(0) + byte(slot) + text(path) + byte(mode)


def d_write(slot, length, seed=7):
    return byte(1) + byte(slot) + number(length) + byte(seed)


def d_read(slot, length):
    return byte(2) + byte(slot) + number(length)


def d_seek(slot, offset, origin):
    return byte(3) + byte(slot) + number(offset) + byte(origin + 1)


def d_tell(slot):
    return byte(4) + byte(slot)


def d_resize(slot, size=None, edge=None):
    if edge is not None:
        return byte(5) + byte(slot) + byte(0xF0 + edge)
    return byte(5) + byte(slot) + byte(0) + number(size)


def d_close(slot):
    return byte(6) + byte(slot)


def d_list(path, steps=255, reset=1):
    return byte(7) + text(path) + byte(steps) + byte(reset)


def d_exists(path):
    return byte(8) + text(path)


def d_delete(path):
    return byte(9) + text(path)


def d_delete_dir(path):
    return byte(10) + text(path)


def d_rename(old, new):
    return byte(11) + text(old) + text(new)


def d_copy(source, target, fail=0):
    return byte(12) + text(source) + text(target) + byte(fail)


def d_move(source, target, fail=0):
    return byte(13) + text(source) + text(target) + byte(fail)


D_BEGIN, D_COMMIT, D_REOPEN = byte(14), byte(15), byte(18)


def d_full_open(slot, path, mode=3):
    return byte(16) + byte(slot) + text(path) + byte(mode)


def d_full_list(path, steps=255, reset=0):
    return byte(17) + text(path) + byte(steps) + byte(reset)


def database_input(image, script):
    return number(len(image)) + image + script


def database_seeds():
    tree = database_image([(CREATE,)] + rows(
        ("a.txt", "", b"hello"),
        ("b.bin", "docs/", bytes(range(256)) * 8),             # overflow pages
        ("", "docs/sub/", b"nameless"),
        ("c.txt", "docs/sub/", None),                           # NULL content
        (None, "odd/", b"null name"),
        ("d.txt", None, b"null path"),
    ))
    everything = (d_list("") + d_list("docs/") + d_exists("docs/b.bin") + d_exists("docs")
                  + d_open(0, "docs/b.bin") + d_read(0, 5000) + d_seek(0, 100, 0) + d_read(0, 10)
                  + d_seek(0, 0xFFFFFFF0, 2) + d_tell(0) + d_write(0, 3000) + d_resize(0, 10)
                  + d_resize(0, edge=1) + d_close(0)
                  + D_BEGIN + d_open(1, "new/n.txt", 1) + d_write(1, 70000) + d_close(1)
                  + d_copy("a.txt", "copy.txt") + d_move("copy.txt", "new/moved.txt")
                  + d_rename("new/n.txt", "new/m.txt") + D_COMMIT
                  + d_full_open(0, "a.txt") + d_read(4, 100) + d_delete("a.txt")
                  + d_delete_dir("docs/") + d_full_list("") + D_REOPEN + d_list(""))
    wrong_schema = database_image([("create table FileStorage (FileName text)",),
                                   ("insert into FileStorage values ('x')",)])
    trigger = database_image([(CREATE,), (
        "create trigger refuse before insert on FileStorage "
        "begin select raise(abort, 'refused'); end",)])
    wal = database_image([(CREATE,)] + rows(("w.txt", "", b"wal")), journal="WAL")
    return {
        "empty-image.bin": database_input(b"", d_open(0, "docs/x.txt", 1) + d_write(0, 100)
                                          + d_list("") + d_list("docs/") + D_BEGIN
                                          + d_delete_dir("") + D_COMMIT),
        "tree.bin": database_input(tree, everything),
        "transactions.bin": database_input(tree, D_BEGIN + d_open(0, "t.txt", 1) + d_write(0, 50)
                                           + D_BEGIN + d_delete("a.txt") + D_REOPEN
                                           + d_exists("t.txt") + D_COMMIT + D_COMMIT),
        "long-paths.bin": database_input(b"", byte(0) + byte(2) + long_text(4096, "dir/")
                                         + byte(1) + d_write(2, 10) + d_list("dir/", 3)
                                         + byte(8) + long_text(300, b"\xff\xfe:\\")),
        "wrong-schema.bin": database_input(wrong_schema, d_list("") + d_open(0, "x", 1)
                                           + d_write(0, 5) + d_copy("x", "y")),
        "trigger.bin": database_input(trigger, d_open(0, "x", 1) + d_write(0, 5)
                                      + d_copy("x", "y") + d_list("")),
        "wal.bin": database_input(wal, d_open(0, "w.txt") + d_read(0, 10) + d_write(0, 20)
                                  + d_full_open(1, "w.txt") + d_read(5, 30)),
        "not-a-database.bin": database_input(b"this is not an SQLite database" * 4, d_list("")),
    }


# ---- API scripts (fuzz/api_fuzzer.cc, Session::Step) ----
# A step: the directory slot (0 stands for a null handle, 1-3 for slots 0-2), then the operation.

NATIVE, DATABASE, ARCHIVE = 0, 1, 2


def a(slot, operation, *arguments):
    return byte(slot + 1) + byte(operation) + b"".join(arguments)


def a_root(kind, name=b""):
    return byte(kind) + (text(name) if kind >= 5 else b"")


def api_seeds():
    open_all = (a(0, 0, byte(0), a_root(NATIVE)) + a(0, 0, byte(1), a_root(DATABASE))
                + a(0, 0, byte(2), a_root(ARCHIVE)))
    per_root = b""
    for slot in range(3):
        per_root += (a(slot, 2, text("docs/b.txt")) + a(slot, 13, byte(0), byte(1), text("docs/"))
                     + a(slot, 14, byte(0), byte(7), byte(0)) + a(slot, 15, byte(0))
                     + a(slot, 8, byte(slot), text("docs/b.txt"), byte(3))
                     + a(slot, 9, byte(slot), byte(0), number(100))
                     + a(slot, 9, byte(slot), byte(1), text("written"))
                     + a(slot, 9, byte(slot), byte(3), number(2), byte(1))
                     + a(slot, 4, text("a.txt"), text("docs/a2.txt"), byte(1), byte(0))
                     + a(slot, 3, text("a.txt"), text("docs/")) + a(slot, 5) + a(slot, 6))
    mounts = (a(-1, 16, text("app:"), byte(0), a_root(NATIVE))
              + a(-1, 16, text("db:"), byte(0), a_root(DATABASE))
              + a(-1, 18, text("app:docs/b.txt"), byte(40))
              + a(-1, 20, byte(0), text("docs/b.txt"), byte(0))
              + a(-1, 21, byte(0), byte(0), number(64))
              + a(-1, 20, byte(1), text("db:new/s.txt"), byte(1))
              + a(-1, 21, byte(1), byte(1), text("stub bytes"))
              + a(-1, 19, text("madedir")) + a(-1, 17, byte(0)) + a(-1, 22, byte(0)))
    hostile = (a(-1, 7, byte(0), byte(0), a_root(DATABASE), text(b"a:b\\c:\xff\xfe"), byte(1))
               + a(-1, 7, byte(1), byte(1), text("native\\docs\\b.txt"), byte(0))
               + a(-1, 0, byte(0), a_root(5, "native:"))
               + a(-1, 0, byte(1), a_root(6, "fresh.db"))
               + a(0, 8, byte(0), long_text(4096, "name"), byte(1))
               + a(0, 8, byte(2), long_text(600, "d/"), byte(1))
               + a(1, 8, byte(1), long_text(4096, b"\xc3\x28/"), byte(1))
               + a(1, 9, byte(1), byte(1), text("long"))
               + a(-1, 18, long_text(5000, "app:"), byte(255))
               + a(-1, 13, byte(1), byte(0), a_root(ARCHIVE), text("")))
    return {
        "open-each-root.bin": open_all + per_root,
        "mounts-and-stubs.bin": mounts,
        "hostile-paths.bin": open_all + hostile,
        "null-handles.bin": b"".join(a(-1, op, byte(0) * 4) for op in range(24)),
    }


def main():
    for target, seeds in (("archive", archive_seeds()), ("database", database_seeds()),
                          ("api", api_seeds())):
        directory = os.path.join(CORPUS, target)
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(directory)
        for name, data in sorted(seeds.items()):
            with open(os.path.join(directory, name), "wb") as seed:
                seed.write(data)
        print("%s: %d seeds, %d bytes" % (target, len(seeds), sum(len(d) for d in seeds.values())))


if __name__ == "__main__":
    main()
