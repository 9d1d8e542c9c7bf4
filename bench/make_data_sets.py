#!/usr/bin/env python3
"""Writes the data sets of the velFS benchmarks into one directory.

Usage: make_data_sets.py [--small] DIRECTORY. With --small the sets are smaller (1,000 files and
members, 4 MiB and 64 MiB members to stream) for a quick check that every benchmark runs; the
listings keep their sizes, which the benchmarks name.

Every data set that a benchmark reads back has a manifest, "<set>.manifest", with one line per
file or member: name, size and CRC-32 (zlib) separated by tabs. The benchmarks compare what they
read with it. ZIP archives are written with Python's zipfile, databases with Python's sqlite3 in
velFS's format (table "FileStorage", page size 8192).

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


def write_manifest(root, name, entries):
    """Writes <name>.manifest from (name, size, crc) tuples."""
    with open(os.path.join(root, name + ".manifest"), "w", encoding="ascii") as out:
        out.writelines(f"{entry}\t{size}\t{crc:08x}\n" for entry, size, crc in entries)


def text_corpus(rng, size):
    """Text of pseudo-random words, about as compressible as prose (deflate to roughly 40%)."""
    words = ["".join(rng.choice("etaoinshrdlucmfwypvbgkjqxz") for _ in range(rng.randint(2, 9)))
             for _ in range(4_000)]
    lines = [" ".join(rng.choices(words, k=12)) + "\n" for _ in range(size // 30)]
    return "".join(lines).encode("ascii")[:size]


def varied_bytes(rng, base, count):
    """`count` different blocks of len(base) bytes: base with a random byte permutation each."""
    for _ in range(count):
        yield base.translate(bytes(rng.sample(range(256), 256)))


def write_database(path, rows):
    """A new database in velFS's format holding rows of (FileName, Path, Content)."""
    db = sqlite3.connect(path)
    db.execute("PRAGMA page_size=8192")
    db.execute(CREATE_TABLE)
    with db:
        db.executemany("INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)", rows)
    db.close()


def make_files(root, rng):
    base = os.urandom(FILE_SIZE * 64)
    rows, manifest = [], []
    for i in range(FILE_COUNT):
        directory, leaf = f"d{i // 100:02d}", f"f{i:04d}.bin"
        start = rng.randrange(0, len(base) - FILE_SIZE)
        data = base[start:start + FILE_SIZE].translate(bytes(rng.sample(range(256), 256)))
        os.makedirs(os.path.join(root, "files", directory), exist_ok=True)
        with open(os.path.join(root, "files", directory, leaf), "wb") as out:
            out.write(data)
        rows.append((leaf, directory + "/", data))
        manifest.append((f"{directory}/{leaf}", len(data), zlib.crc32(data)))
    write_database(os.path.join(root, "files.db"), rows)
    write_manifest(root, "files", manifest)


def make_members(root, rng):
    corpus = text_corpus(rng, 4 << 20)
    manifest = []
    with zipfile.ZipFile(os.path.join(root, "members.zip"), "w", zipfile.ZIP_DEFLATED) as archive:
        for i in range(FILE_COUNT):
            name = f"d{i // 100:02d}/m{i:04d}.txt"
            start = rng.randrange(0, len(corpus) - MEMBER_SIZE)
            data = corpus[start:start + MEMBER_SIZE]
            archive.writestr(name, data)
            manifest.append((name, len(data), zlib.crc32(data)))
    write_manifest(root, "members", manifest)


def make_streams(root, rng, name, size, raw_block, level=None):
    """name.zip with deflated.bin (text, deflated at `level`) and stored.bin (varied random
    bytes, stored), each of `size` bytes, written block by block."""
    corpus = text_corpus(rng, 4 << 20)
    text = (corpus[k:] + corpus[:k] for k in range(0, size // len(corpus) * 4099, 4099))
    raw = varied_bytes(rng, os.urandom(raw_block), size // raw_block)
    manifest = []
    with zipfile.ZipFile(os.path.join(root, name + ".zip"), "w", compresslevel=level) as archive:
        for member, method, blocks in (("deflated.bin", zipfile.ZIP_DEFLATED, text),
                                       ("stored.bin", zipfile.ZIP_STORED, raw)):
            info = zipfile.ZipInfo(member)
            info.compress_type = method
            info.file_size = size  # below ZIP64's limit: a plain ZIP entry
            crc = 0
            with archive.open(info, "w") as out:
                for block in blocks:
                    out.write(block)
                    crc = zlib.crc32(block, crc)
            manifest.append((member, size, crc))
    write_manifest(root, name, manifest)


def make_listings(root):
    for n in LIST_SIZES["native"]:
        entries = os.path.join(root, f"list-{n}", "entries")
        os.makedirs(entries)
        for k in range(n // 2):
            open(os.path.join(entries, f"f{k}"), "wb").close()
            os.mkdir(os.path.join(entries, f"s{k}"))
    for n in LIST_SIZES["db"]:
        rows = [(f"f{k}", "entries/", b"") for k in range(n // 2)]
        rows += [("x", f"entries/s{k}/", b"") for k in range(n // 2)]
        random.Random(n).shuffle(rows)
        write_database(os.path.join(root, f"list-{n}.db"), rows)
    for n in LIST_SIZES["zip"]:
        names = [f"entries/f{k}" for k in range(n // 2)]
        names += [f"entries/s{k}/x" for k in range(n // 2)]
        random.Random(n).shuffle(names)
        with zipfile.ZipFile(os.path.join(root, f"list-{n}.zip"), "w") as archive:
            for name in names:
                archive.writestr(name, b"")


def main():
    global FILE_COUNT, STREAM_SIZE, BIG_SIZE
    args = sys.argv[1:]
    if args[:1] == ["--small"]:
        FILE_COUNT, STREAM_SIZE, BIG_SIZE = 1_000, 4 << 20, 64 << 20
        args = args[1:]
    if len(args) != 1:
        sys.exit("usage: make_data_sets.py [--small] DIRECTORY")
    root = args[0]
    os.makedirs(root, exist_ok=True)
    rng = random.Random(7)
    make_files(root, rng)
    make_members(root, rng)
    make_streams(root, rng, "stream", STREAM_SIZE, 1 << 20)
    make_streams(root, rng, "big", BIG_SIZE, 16 << 20, level=1)
    make_listings(root)


if __name__ == "__main__":
    main()
