"""Builds, sorts and groups lists of dicts: the allocation pattern of ordinary
Python data handling (run with PYTHONMALLOC=malloc so that every object goes
through the C allocator). Deterministic: prints a digest of the results.
Usage: python3 records.py [records]"""
import sys
import zlib

CITIES = ["Aberdeen", "Bergen", "Cork", "Dundee", "Esbjerg", "Faro", "Gdansk", "Hull", "Izmir", "Jaffa"]
TAGS = ["red", "green", "blue", "amber", "violet", "grey"]


def make(n, seed=20240601):
    rows = []
    x = seed
    for i in range(n):
        x = (x * 1103515245 + 12345) & 0x7FFFFFFF
        rows.append({
            "id": i,
            "name": "item-%06d-%s" % (x % 1000003, TAGS[x % len(TAGS)]),
            "city": CITIES[(x >> 8) % len(CITIES)],
            "score": (x >> 4) % 10007 / 7.0,
            "tags": [TAGS[(x >> k) % len(TAGS)] for k in range(x % 4)],
            "meta": {"batch": i // 1000, "odd": bool(x & 1)},
        })
    return rows


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 50000
    digest = 0
    for rnd in range(3):
        rows = make(n, 20240601 + rnd)
        rows.sort(key=lambda r: (r["city"], -r["score"], r["name"]))
        groups = {}
        for r in rows:
            groups.setdefault((r["city"], r["meta"]["odd"]), []).append(r)
        summary = []
        for key in sorted(groups):
            g = groups[key]
            tags = {}
            for r in g:
                for t in r["tags"]:
                    tags[t] = tags.get(t, 0) + 1
            best = sorted(g, key=lambda r: r["name"])[:5]
            summary.append("%s %s %d %.3f %s %s" % (key[0], key[1], len(g), sum(r["score"] for r in g) / len(g),
                                                   ",".join("%s=%d" % kv for kv in sorted(tags.items())),
                                                   ",".join(r["name"] for r in best)))
        text = "\n".join(summary)
        digest = zlib.crc32(text.encode(), digest)
        del rows, groups
    print("records: %d x 3, digest %08x" % (n, digest))


main()
