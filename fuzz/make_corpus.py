#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: fuzz/corpus/{archive,database,api}/.

    python3 fuzz/make_corpus.py

Archives come from Python's zipfile, database images from its sqlite3; the scripts use the
encoding of fuzz/fuzz_support.h. The output is the same on every run (fixed dates and contents).
"""
import io
import os
import shutil
import sqlite3
import struct
import tempfile
import zipfile

CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def text(data):
    data = data.encode("utf-8", "surrogateescape") if isinstance(data, str) else data
    return bytes([len(data)]) + data if len(data) < 0xF0 else bytes([0xF0 + len(data) // 512 - 1, data[0]])


def zip_bytes(members, comment=b"", compression=zipfile.ZIP_STORED):
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", compression=compression) as archive:
        for name, data in members:
            archive.writestr(zipfile.ZipInfo(name, date_time=(2024, 1, 2, 3, 4, 6)), data,
                             compress_type=zipfile.ZIP_STORED if name.endswith("/") else compression)
        archive.comment = comment
    return buffer.getvalue()


def over_read_archive(total_size, distance):
    """An archive whose comment ends with a ZIP64 end-of-central-directory signature `distance`
    (54 or 55) bytes before the end: zziplib would read one or two bytes beyond the file."""
    members = [("m.txt", b"member")]
    plain = zip_bytes(members)
    at = plain.rindex(b"PK\x05\x06")
    entries, size, offset = struct.unpack_from("<HII", plain, at + 10)
    record = bytearray(distance)
    record[0:4] = b"PK\x06\x06"
    struct.pack_into("<IIQ", record, 32, entries, 0, size)
    record[48:distance] = struct.pack("<Q", offset)[: distance - 48]
    struct.pack_into("<I", record, 24, entries)
    return zip_bytes(members, comment=b"\0" * (total_size - len(plain) - distance) + bytes(record))


def damaged_archive(damage):
    """A deflated and a stored member (the last before the central directory) with
    central-directory fields rewritten: damage(data, deflated_entry, stored_entry) changes the
    bytes in place."""
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w") as archive:
        for name, data, compression in (("d.txt", b"deflated member " * 200, zipfile.ZIP_DEFLATED),
                                        ("s.txt", b"stored member " * 40, zipfile.ZIP_STORED)):
            archive.writestr(zipfile.ZipInfo(name, date_time=(2024, 1, 2, 3, 4, 6)), data,
                             compress_type=compression)
    data = bytearray(buffer.getvalue())
    deflated = data.index(b"PK\x01\x02")
    damage(data, deflated, data.index(b"PK\x01\x02", deflated + 1))
    return bytes(data)


def overlapping_archive(entries):
    """`entries` central-directory entries that all point at one deflated stream."""
    plain = zip_bytes([("0.txt", b"\0" * 100000)], compression=zipfile.ZIP_DEFLATED)
    central = plain.index(b"PK\x01\x02")
    end = plain.rindex(b"PK\x05\x06")
    entry = plain[central:end]
    directory = b"".join(entry[:46] + b"%05d" % i + entry[51:] for i in range(entries))
    return (plain[:central] + directory + plain[end:end + 8]
            + struct.pack("<HHII", entries, entries, len(directory), central) + b"\0\0")


def archive_seeds():
    lines = "".join("line %04d of a text that deflate shrinks well\n" % i for i in range(900))
    return {
        "stored.zip": zip_bytes([("readme.txt", b"velFS archive root\n"), ("docs/", b""),
                                 ("docs/a.txt", b"alpha"), ("docs/deep/b.txt", b"beta " * 20),
                                 ("empty.txt", b"")]),
        "deflated.zip": zip_bytes([("text.txt", lines.encode()), ("small.txt", b"x" * 300)],
                                  compression=zipfile.ZIP_DEFLATED),
        "names.zip": zip_bytes([("A.txt", b"upper"), ("a.txt", b"lower"), ("SUB/", b""),
                                ("sub/x.txt", b"x"), ("docs\\win.txt", b"backslash"),
                                ("/abs.txt", b"slash"), ("u/\u00fc\u00df.txt", b"utf-8"),
                                ("colon:name.txt", b"colon")], comment=b"a comment"),
        "cve-2024-39134-1024.zip": over_read_archive(1024, 54),
        "cve-2024-39134-700.zip": over_read_archive(700, 55),
        "crc-mismatch.zip": damaged_archive(
            lambda data, deflated, stored: struct.pack_into("<I", data, deflated + 16, 0x01020304)),
        "encrypted.zip": damaged_archive(
            lambda data, deflated, stored: struct.pack_into("<H", data, stored + 8, 1)),
        "stored-size-past-data.zip": damaged_archive(
            lambda data, deflated, stored: struct.pack_into("<II", data, stored + 20, 60000, 60000)),
        "overlapping-members.zip": overlapping_archive(20),
    }


def database_image(statements):
    directory = tempfile.mkdtemp()
    try:
        path = os.path.join(directory, "seed.db")
        connection = sqlite3.connect(path)
        connection.execute("PRAGMA page_size=512")
        for statement in statements:
            connection.execute(*statement)
        connection.commit()
        connection.close()
        with open(path, "rb") as image:
            return image.read()
    finally:
        shutil.rmtree(directory)


def a(slot, operation, file=0, listing=0, first="", second="", number=0, flag=0):
    """A step of the script of fuzz/api_session.h; slot -1 stands for a null directory handle."""
    return (bytes([slot + 1, operation, file, listing]) + text(first) + text(second)
            + struct.pack("<I", number) + bytes([flag]))


def database_seeds():
    insert = "INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)"
    table = ("create table FileStorage (FileName text, Path text, Content blob, Info blob, "
             "primary key(FileName, Path))",)
    tree = database_image([table, (insert, ("a.txt", "", b"hello")),
                           (insert, ("b.bin", "docs/", bytes(range(256)) * 8)),
                           (insert, ("c.txt", "docs/sub/", None)),
                           (insert, (None, "odd/", b"null name"))])
    # store.db opened, listed, read, written, resized (to sizes beyond 32 bits too), renamed,
    # copied, moved and deleted inside and outside a transaction, through the handle and through
    # full paths; then a deep path and a mount of a hostile name.
    script = (a(0, 0, flag=1) + a(0, 7, 0, 0, "") + a(0, 8, 0, 0, flag=9) + a(0, 7, 0, 1, "docs/")
              + a(0, 8, 0, 1, flag=7) + a(0, 1, first="docs") + a(0, 4, 0, first="docs/b.bin", flag=3)
              + a(0, 6, 0, second="written", number=5000, flag=1) + a(0, 3, first="none/", flag=1)
              + a(0, 4, 1, first="new/n.txt", flag=1) + a(0, 6, 1, second="x" * 200, number=70000)
              + a(0, 2, first="a.txt", second="copy.txt") + a(0, 3, first="none/")
              + a(0, 5, 2, first="docs/b.bin", number=1, flag=1) + a(0, 6, 2, number=10, flag=0xF1)
              + a(0, 1, first="copy.txt") + a(0, 3, first="docs/sub/") + a(0, 0, flag=3)
              + a(0, 4, 3, first="dir/" * 1024, flag=1) + a(-1, 9, first=b"\xff\xfe:\\" * 150, flag=1))
    recursive_view = database_image([(
        "CREATE VIEW FileStorage AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) "
        "SELECT 'f' || x AS FileName, '' AS Path, zeroblob(1000) AS Content, NULL AS Info FROM n",)])
    no_content = database_image([("CREATE TABLE FileStorage (FileName text, Path text, Info blob)",)])
    trigger = database_image([table, ("CREATE TABLE Log (x)",),
                              ("CREATE TRIGGER Spy AFTER INSERT ON FileStorage BEGIN "
                               "INSERT INTO Log VALUES (new.FileName); END",),
                              (insert, ("a.txt", "", b"hello"))])
    image = lambda data: struct.pack("<I", len(data)) + data
    return {"tree.bin": image(tree) + script, "empty-image.bin": image(b"") + script,
            "not-a-database.bin": image(b"this is not an SQLite database" * 4) + script,
            "recursive-view.bin": image(recursive_view) + script,
            "no-content-column.bin": image(no_content) + script,
            "trigger.bin": image(trigger) + script}


def api_seeds():
    roots = a(0, 0, flag=0) + a(1, 0, flag=1) + a(2, 0, flag=2)
    each = b"".join(a(s, 1, first="docs/b.txt") + a(s, 4, s, first="docs/b.txt", flag=3)
                    + a(s, 6, s, second="written", number=100, flag=1) + a(s, 7, 0, s, "docs/")
                    + a(s, 8, 0, s, flag=7) + a(s, 2, first="a.txt", second="docs/a2.txt")
                    + a(s, 3, first="docs/", flag=1) + a(s, 3) for s in range(3))
    mounts = (a(-1, 9, first="app:", flag=0) + a(-1, 9, first="db:", flag=1)
              + a(-1, 11, first="app:docs/b.txt", second="made", flag=40)
              + a(-1, 12, first="docs/b.txt") + a(-1, 12, first="db:new/s.txt", flag=1)
              + a(-1, 13, second="stub bytes", number=2, flag=1) + a(-1, 10, flag=1) + a(-1, 14))
    hostile = (a(-1, 5, first=b"a:b\\c:\xff\xfe", number=1, flag=1)
               + a(-1, 5, first="native\\docs\\b.txt") + a(0, 0, second="native:", flag=5)
               + a(1, 0, second="fresh.db", flag=5) + a(0, 4, first="name" * 1024, flag=1)
               + a(-1, 11, first="app:" * 1024, flag=255) + a(-1, 7, first="", number=1, flag=2))
    return {"open-each-root.bin": roots + each, "mounts-and-stubs.bin": mounts,
            "hostile-paths.bin": roots + hostile,
            "null-handles.bin": b"".join(a(-1, op, flag=op) for op in range(16))}


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
