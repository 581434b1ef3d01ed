#!/usr/bin/env python3
"""Generates a benchmark tree and a matching signature list.

The tree holds N files of mixed sizes in nested folders; a few of them are planted
"matches" whose MD5 and size go into the signature list, together with random records
(random hashes, sizes drawn from the same distribution so that some files share a size
with a record and must be hashed). The list uses the common MD5:size:name line format.
Synthetic data only: nothing here resembles real malware.
"""
import argparse
import hashlib
import os
import random


def size_choice(rng):
    r = rng.random()
    if r < 0.70:
        return rng.randint(1, 16 * 1024)
    if r < 0.95:
        return rng.randint(16 * 1024, 256 * 1024)
    if r < 0.995:
        return rng.randint(256 * 1024, 1024 * 1024)
    return rng.randint(1024 * 1024, 3 * 1024 * 1024)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--out", required=True, help="folder to fill")
    ap.add_argument("--files", type=int, default=100000)
    ap.add_argument("--records", type=int, default=10000)
    ap.add_argument("--planted", type=int, default=5)
    ap.add_argument("--list", required=True, help="signature list to write (MD5:size:name)")
    ap.add_argument("--tiny", action="store_true", help="empty files only (walk benchmark)")
    ap.add_argument("--seed", type=int, default=20261122)
    args = ap.parse_args()

    rng = random.Random(args.seed)
    os.makedirs(args.out, exist_ok=True)
    per_dir = 200
    planted_at = set(rng.sample(range(args.files), min(args.planted, args.files)))
    records = []
    block = rng.randbytes(4 * 1024 * 1024)
    for i in range(args.files):
        d = os.path.join(args.out, "d%03d" % (i // (per_dir * per_dir)), "e%03d" % ((i // per_dir) % per_dir))
        if i % per_dir == 0:
            os.makedirs(d, exist_ok=True)
        path = os.path.join(d, "f%07d.bin" % i)
        if args.tiny:
            open(path, "wb").close()
            continue
        size = size_choice(rng) if i not in planted_at else rng.randint(1000, 900 * 1024)
        start = rng.randint(0, len(block) - size)
        data = i.to_bytes(8, "little") + block[start:start + size - 8] if size > 8 else block[:size]
        with open(path, "wb") as f:
            f.write(data)
        if i in planted_at:
            records.append((hashlib.md5(data).hexdigest(), len(data), "Bench.Planted.%d" % len(records)))
    while len(records) < args.records:
        h = "%032x" % rng.getrandbits(128)
        records.append((h, size_choice(rng) if not args.tiny else rng.randint(1, 1 << 20),
                        "Bench.Random.%d" % len(records)))
    # Records above 1 MiB would need a head hash; keep the list importable as it is.
    with open(args.list, "w") as f:
        for h, size, name in records:
            if size > 1048576:
                size = rng.randint(1, 1048576)
            f.write("%s:%d:%s\n" % (h, size, name))


if __name__ == "__main__":
    main()
