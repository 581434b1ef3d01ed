#!/usr/bin/env bash
# The archive benchmark: `vksecurity scan` over a tree of zip and tar.gz archives, with the
# share of members that had to be decompressed (only members of a size some record has
# are). Small by default (a few seconds); a benchmark, not a test.
#
#   bench/archives.sh [--archives N] [--members N] [--records N] [--work DIR] [--skip-build]
#
# Prints one Markdown line: archives, members, members decompressed (and their share),
# findings and seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
archives=200 members=50 records=2000 work_parent=${TMPDIR:-/tmp} skip_build=0
while (($#)); do
  case "$1" in
    --archives) archives=$2; shift ;;
    --members) members=$2; shift ;;
    --records) records=$2; shift ;;
    --work) work_parent=$2; shift ;;
    --skip-build) skip_build=1 ;;
    *) echo "archives.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
if ((!skip_build)); then
  scripts/build.sh release >&2
fi
vksecurity=$repo/build/release/apps/vksecurity/vksecurity
vksig=$repo/build/release/apps/vksig/vksig
work=$(mktemp -d "$work_parent/vkbench-archives.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/data" "$work/tree"

# Members of random sizes; records drawn from the same sizes, so that some members share a
# size with a record and must be decompressed; one member per 50 archives is planted.
python3 - "$work" "$archives" "$members" "$records" <<'PY'
import hashlib, io, os, random, sys, tarfile, zipfile
work, n_arch, n_mem, n_rec = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
rnd = random.Random(24)
size = lambda: int(rnd.lognormvariate(9, 1.5)) % (1 << 20) + 1
lines = []
for a in range(n_arch):
    files = []
    for m in range(n_mem):
        data = (b"%d/%d " % (a, m)) + rnd.randbytes(size())
        files.append((f"dir{m % 5}/member{m}.bin", data))
    if a % 50 == 0:
        lines.append(f"{hashlib.md5(files[0][1]).hexdigest()}:{len(files[0][1])}:Bench.Planted")
    path = os.path.join(work, "tree", f"g{a % 10}", f"a{a}" + (".zip" if a % 2 else ".tar.gz"))
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if a % 2:
        with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
            for name, data in files:
                z.writestr(name, data)
    else:
        with tarfile.open(path, "w:gz") as t:
            for name, data in files:
                info = tarfile.TarInfo(name); info.size = len(data)
                t.addfile(info, io.BytesIO(data))
for r in range(n_rec):
    lines.append(f"{rnd.randbytes(16).hex()}:{size()}:Bench.Random{r}")
open(os.path.join(work, "sigs.hdb"), "w").write("\n".join(lines) + "\n")
PY
"$vksig" create "$work/data/bench.sql" --name Bench --version 1.0 >/dev/null
"$vksig" import-hdb "$work/data/bench.sql" "$work/sigs.hdb" >/dev/null
summary=$("$vksecurity" --json --data-dir "$work/data" scan "$work/tree" | grep '"summary"' || true)
python3 - "$summary" "$archives" <<'PY'
import json, sys
s = json.loads(sys.argv[1])
m, d = s["archiveMembers"], s["archiveMembersDecompressed"]
print(f"| archives {sys.argv[2]} | members {m} | decompressed {d} ({100.0 * d / max(m, 1):.1f} %) "
      f"| findings {s['findings']} | {s['seconds']:.2f} s |")
PY
