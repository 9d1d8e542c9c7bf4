#!/usr/bin/env python3
"""Writes the data sets of the velFS benchmarks into one directory (the only argument).

Every data set that a benchmark reads back has a manifest, "<set>.manifest", with one line per
file or member: name, size and CRC-32 (zlib) separated by tabs. The benchmarks compare what they
read with it. ZIP archives are written with Python's zipfile, databases with Python's sqlite3 in
the format of Part 3.1 (table "FileStorage", page size 8192).

Layout:
  files/            10,000 host files of 10,240 bytes, d00/f0000.bin ... d99/f9999.bin
  files.db          the same 10,000 files as rows (FileName f0000.bin, Path d00/)
  members.zip       10,000 deflated members of 4,096 bytes of text, d00/m0000.txt ...
  stream.zip        deflated.bin (64 MiB of text, deflated) and stored.bin (64 MiB, stored)
  big.zip           deflated.bin (1 GiB of text, deflated) and stored.bin (1 GiB, stored), for
                    the peak memory of streaming (bench/stream_peak.cc)
  list-N/, list-N.db, list-N.zip
                    the directory entries/ with N entries, half files fK and half
                    subdirectories sK (in the database and the archive each sK holds a file x);
                    N = 1000, 10000 and 100000, and 65000 for the archive (zziplib reads no ZIP64
                    directory, so an archive holds at most 65,535 members for it)
"""
import os
import random
import sqlite3
import sys
import zipfile
import zlib

FILE_COUNT = 10_000
FILE_SIZE = 10_240
MEMBER_SIZE = 4_096
STREAM_SIZE = 64 << 20
BIG_SIZE = 1 << 30
LIST_SIZES = {"native": (1_000, 10_000, 100_000), "db": (1_000, 10_000, 100_000),
              "zip": (1_000, 10_000, 65_000)}
CREATE_TABLE = ("create table if not exists FileStorage (FileName text, Path text, Content blob, "
                "Info blob, primary key(FileName, Path));")


class Manifest:
    """Collects name, size and CRC-32 of each written file and writes them as <set>.manifest."""

    def __init__(self, root, name):
        self.path = os.path.join(root, name + ".manifest")
        self.lines = []

    def add(self, name, data):
        self.lines.append(f"{name}\t{len(data)}\t{zlib.crc32(data):08x}\n")

    def add_crc(self, name, size, crc):
        self.lines.append(f"{name}\t{size}\t{crc:08x}\n")

    def write(self):
        with open(self.path, "w", encoding="ascii") as out:
            out.writelines(self.lines)


def text_corpus(rng, size):
    """Text of pseudo-random words, about as compressible as prose (deflate to roughly 40%)."""
    words = ["".join(rng.choice("etaoinshrdlucmfwypvbgkjqxz") for _ in range(rng.randint(2, 9)))
             for _ in range(4_000)]
    out = []
    length = 0
    while length < size:
        line = " ".join(rng.choices(words, k=12)) + "\n"
        out.append(line)
        length += len(line)
    return "".join(out).encode("ascii")[:size]


def varied_bytes(rng, base, count):
    """`count` different blocks of len(base) bytes: base with a random byte permutation each."""
    for _ in range(count):
        table = bytes(rng.sample(range(256), 256))
        yield base.translate(table)


def new_database(path):
    if os.path.exists(path):
        os.remove(path)
    db = sqlite3.connect(path)
    db.execute("PRAGMA page_size=8192")
    db.execute(CREATE_TABLE)
    return db


def file_name(i):
    return f"d{i // 100:02d}/f{i:04d}.bin"


def make_files(root, rng):
    base = os.urandom(FILE_SIZE * 64)
    manifest = Manifest(root, "files")
    db = new_database(os.path.join(root, "files.db"))
    rows = []
    for i in range(FILE_COUNT):
        name = file_name(i)
        start = rng.randrange(0, len(base) - FILE_SIZE)
        data = bytes(base[start:start + FILE_SIZE]).translate(bytes(rng.sample(range(256), 256)))
        path = os.path.join(root, "files", name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(data)
        directory, leaf = name.rsplit("/", 1)
        rows.append((leaf, directory + "/", data))
        manifest.add(name, data)
    with db:
        db.executemany("INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)", rows)
    db.close()
    manifest.write()


def make_members(root, rng):
    corpus = text_corpus(rng, 4 << 20)
    manifest = Manifest(root, "members")
    with zipfile.ZipFile(os.path.join(root, "members.zip"), "w", zipfile.ZIP_DEFLATED) as archive:
        for i in range(FILE_COUNT):
            name = f"d{i // 100:02d}/m{i:04d}.txt"
            start = rng.randrange(0, len(corpus) - MEMBER_SIZE)
            data = corpus[start:start + MEMBER_SIZE]
            archive.writestr(name, data)
            manifest.add(name, data)
    manifest.write()


def make_stream(root, rng):
    corpus = text_corpus(rng, 4 << 20)
    text = b"".join(corpus[k:] + corpus[:k] for k in range(0, 16 * 4099, 4099))[:STREAM_SIZE]
    raw = b"".join(varied_bytes(rng, os.urandom(1 << 20), STREAM_SIZE >> 20))
    manifest = Manifest(root, "stream")
    with zipfile.ZipFile(os.path.join(root, "stream.zip"), "w") as archive:
        archive.writestr(zipfile.ZipInfo("deflated.bin"), text, compress_type=zipfile.ZIP_DEFLATED)
        archive.writestr(zipfile.ZipInfo("stored.bin"), raw, compress_type=zipfile.ZIP_STORED)
    manifest.add("deflated.bin", text)
    manifest.add("stored.bin", raw)
    manifest.write()


def make_big(root, rng):
    corpus = text_corpus(rng, 4 << 20)
    text_blocks = (corpus[k:] + corpus[:k] for k in range(0, BIG_SIZE // len(corpus) * 4099, 4099))
    raw_blocks = varied_bytes(rng, os.urandom(16 << 20), BIG_SIZE >> 24)
    manifest = Manifest(root, "big")
    with zipfile.ZipFile(os.path.join(root, "big.zip"), "w", compresslevel=1) as archive:
        for name, method, blocks in (("deflated.bin", zipfile.ZIP_DEFLATED, text_blocks),
                                     ("stored.bin", zipfile.ZIP_STORED, raw_blocks)):
            info = zipfile.ZipInfo(name)
            info.compress_type = method
            info.file_size = BIG_SIZE  # below ZIP64's limit: a plain ZIP entry
            crc = 0
            with archive.open(info, "w") as out:
                for block in blocks:
                    out.write(block)
                    crc = zlib.crc32(block, crc)
            manifest.add_crc(name, BIG_SIZE, crc)
    manifest.write()


def make_listings(root):
    for n in LIST_SIZES["native"]:
        entries = os.path.join(root, f"list-{n}", "entries")
        os.makedirs(entries)
        for k in range(n // 2):
            open(os.path.join(entries, f"f{k}"), "wb").close()
            os.mkdir(os.path.join(entries, f"s{k}"))
    for n in LIST_SIZES["db"]:
        db = new_database(os.path.join(root, f"list-{n}.db"))
        rows = [(f"f{k}", "entries/", b"") for k in range(n // 2)]
        rows += [("x", f"entries/s{k}/", b"") for k in range(n // 2)]
        random.Random(n).shuffle(rows)
        with db:
            db.executemany("INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)",
                           rows)
        db.close()
    for n in LIST_SIZES["zip"]:
        names = [f"entries/f{k}" for k in range(n // 2)]
        names += [f"entries/s{k}/x" for k in range(n // 2)]
        random.Random(n).shuffle(names)
        with zipfile.ZipFile(os.path.join(root, f"list-{n}.zip"), "w") as archive:
            for name in names:
                archive.writestr(name, b"")


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_data_sets.py DIRECTORY")
    root = sys.argv[1]
    os.makedirs(root, exist_ok=True)
    rng = random.Random(7)
    make_files(root, rng)
    make_members(root, rng)
    make_stream(root, rng)
    make_big(root, rng)
    make_listings(root)


if __name__ == "__main__":
    main()
