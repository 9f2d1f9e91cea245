# Objects, dictionaries, lists and strings: many short-lived allocations.
# Self-contained: the data comes from a fixed linear congruential generator.
# Run: python3 objects.py N   (N = thousands of records; default 100)
import sys

scale = int(sys.argv[1]) if len(sys.argv) > 1 else 100
seed = 5


def draw(bound):
    global seed
    seed = (seed * 1103515245 + 12345) % 2147483648
    return (seed // 65536) % bound


class Record:
    __slots__ = ("key", "values", "label")

    def __init__(self, key, values, label):
        self.key = key
        self.values = values
        self.label = label


records = []
index = {}
for i in range(scale * 1000):
    values = [draw(1000) for _ in range(1 + draw(8))]
    label = "-".join(str(v) for v in values[:3]) + ":" + "x" * draw(300)
    record = Record(i, values, label)
    records.append(record)
    index.setdefault(sum(values) % 997, []).append(record)
    if i % 7 == 0:
        records[draw(len(records))].values = list(reversed(values))

records.sort(key=lambda r: (-sum(r.values), r.key))
buckets = sorted(((k, len(v)) for k, v in index.items()), key=lambda kv: (-kv[1], kv[0]))
text = "".join(r.label[:5] for r in records[::13])
checksum = 0
for r in records:
    checksum = (checksum * 31 + r.key + len(r.label)) % 1000000007
print("records", len(records), "buckets", len(index), "top", records[0].key, buckets[:3])
print("text", len(text), text.count("1-"), "checksum", checksum)
