#!/usr/bin/env python3
"""Generates a benchmark tree and a matching signature list.

The tree holds N files of mixed sizes in nested folders (200 files per folder, 200
folders per group); a few of them are planted "matches" whose MD5 and size go into the
signature list, together with random records (random hashes, sizes drawn from the same
distribution as the files, so that many files share a size with some record and must be
hashed although they match nothing). The list uses the common MD5:size:name line format,
which both `vksig import-hdb` and ClamAV's .hdb loader read.

Every file's content is unique (it starts with its own index), so a random record never
matches by accident and the planted files are the only findings.

With --big-list, records for files larger than 1 MiB go to a second list, one per line as
MD5:size:name:HEAD-MD5 (the head hash covers the first 1,048,576 bytes), which the .hdb format
cannot carry: --planted-big of the tree's large files are planted matches, and about half of
the others get a random record of their exact size, so that their heads must be hashed.
--planted-list writes the paths of every planted file, one per line.

With --tiny the files are empty (a walk benchmark: nothing is ever hashed). Without --out
only the list is written (a load benchmark).

Synthetic data only: nothing here resembles real malware.
"""
import argparse
import hashlib
import os
import random
import sys

KIB = 1024
MIB = 1024 * 1024
# Records larger than this would need a head hash, which the list format cannot carry.
MAX_RECORD_SIZE = MIB
PER_DIR = 200


def size_choice(rng):
    """Mostly small files, a tail of large ones (mean about 30 KiB)."""
    r = rng.random()
    if r < 0.75:
        return rng.randint(1, 16 * KIB)
    if r < 0.98:
        return rng.randint(16 * KIB, 64 * KIB)
    if r < 0.998:
        return rng.randint(64 * KIB, MIB)
    return rng.randint(MIB, 4 * MIB)


def record_size(rng):
    size = size_choice(rng)
    while size > MAX_RECORD_SIZE:
        size = size_choice(rng)
    return size


def folder_of(root, i):
    return os.path.join(root, "d%03d" % (i // (PER_DIR * PER_DIR)),
                         "e%03d" % ((i // PER_DIR) % PER_DIR))


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--out", help="folder to fill (omit to write the list only)")
    ap.add_argument("--files", type=int, default=100000)
    ap.add_argument("--records", type=int, default=10000)
    ap.add_argument("--planted", type=int, default=5)
    ap.add_argument("--list", required=True, help="signature list to write (MD5:size:name)")
    ap.add_argument("--tiny", action="store_true", help="empty files only (walk benchmark)")
    ap.add_argument("--seed", type=int, default=20261122)
    ap.add_argument("--big-list", help="records of files over 1 MiB (MD5:size:name:HEAD-MD5)")
    ap.add_argument("--planted-big", type=int, default=2)
    ap.add_argument("--planted-list", help="paths of the planted files to write")
    args = ap.parse_args()

    rng = random.Random(args.seed)
    files = args.files if args.out else 0
    planted_at = set(rng.sample(range(files), min(args.planted, files))) if not args.tiny else set()
    records = []
    sizes = []
    planted_paths = []
    big_files = []  # (path, size, MD5, head MD5) of the files over 1 MiB
    total_bytes = 0
    if args.out:
        os.makedirs(args.out, exist_ok=True)
    block = rng.randbytes(4 * MIB + 16) if files and not args.tiny else b""
    for i in range(files):
        d = folder_of(args.out, i)
        if i % PER_DIR == 0:
            os.makedirs(d, exist_ok=True)
        path = os.path.join(d, "f%07d.bin" % i)
        if args.tiny:
            open(path, "wb").close()
            continue
        size = rng.randint(1000, 900 * KIB) if i in planted_at else size_choice(rng)
        if size > 8:
            start = rng.randint(0, len(block) - size)
            data = i.to_bytes(8, "little") + block[start:start + size - 8]
        else:
            data = i.to_bytes(8, "little")[:size]
        with open(path, "wb") as f:
            f.write(data)
        sizes.append(size)
        total_bytes += size
        if size > MAX_RECORD_SIZE:
            big_files.append((path, size, hashlib.md5(data).hexdigest(),
                              hashlib.md5(data[:MIB]).hexdigest()))
        if i in planted_at:
            planted_paths.append(path)
            records.append((hashlib.md5(data).hexdigest(), size, "Bench.Planted.%d" % len(records)))
    planted = len(records)
    while len(records) < args.records:
        records.append(("%032x" % rng.getrandbits(128), record_size(rng),
                        "Bench.Random.%d" % len(records)))
    # Planted records first would make them the cheapest to find; spread them out.
    rng.shuffle(records)
    with open(args.list, "w") as f:
        for h, size, name in records:
            f.write("%s:%d:%s\n" % (h, size, name))

    big_records = []
    if args.big_list:
        # A stream of its own, so that the tree and the small records stay as without it.
        big_rng = random.Random(args.seed + 1)
        chosen = set(big_rng.sample(range(len(big_files)), min(args.planted_big, len(big_files))))
        for k, (path, size, whole, head) in enumerate(big_files):
            if k in chosen:
                big_records.append((whole, size, "Bench.PlantedBig.%d" % len(big_records), head))
                planted_paths.append(path)
            elif big_rng.random() < 0.5:
                big_records.append(("%032x" % big_rng.getrandbits(128), size,
                                    "Bench.RandomBig.%d" % len(big_records),
                                    "%032x" % big_rng.getrandbits(128)))
        with open(args.big_list, "w") as f:
            for h, size, name, head in big_records:
                f.write("%s:%d:%s:%s\n" % (h, size, name, head))
        print("gen_tree: %d records over 1 MiB (%d planted) in %s" %
              (len(big_records), len(chosen), args.big_list))
    if args.planted_list:
        with open(args.planted_list, "w") as f:
            for path in sorted(planted_paths):
                f.write(path + "\n")

    record_sizes = {size for _, size, _ in records} | {r[1] for r in big_records}
    same_size = sum(1 for s in sizes if s in record_sizes)
    same_size_bytes = sum(s for s in sizes if s in record_sizes)
    print("gen_tree: %d files (%.1f MiB)%s, %d records (%d planted) in %s" %
          (files, total_bytes / MIB, " empty" if args.tiny else "", len(records), planted,
           args.list))
    if files and not args.tiny:
        print("gen_tree: %d files (%.1f MiB) share a size with some record and must be hashed" %
              (same_size, same_size_bytes / MIB))
    sys.stdout.flush()


if __name__ == "__main__":
    main()
