"""Draws the map of TarnHeap's state from the data the map's replayer (heap_map) dumps: the
small classes' segments, the bucket area's groups by role, the run cache's lists and a text
summary (matplotlib)."""

import collections
import math

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy  # noqa: E402
from matplotlib.patches import Patch  # noqa: E402

MIB = 2**20
GROUP_BYTES = 70656
GROUPS_PER_ROW = 100
SMALL_COLOURS = {"in use": (0.16, 0.38, 0.72), "stacked": (0.95, 0.61, 0.07),
                 "free": (0.90, 0.92, 0.93)}
UNCOMMITTED = (1.0, 1.0, 1.0)
ROLE_COLOURS = {"unclaimed": (0.96, 0.97, 0.97), "warm-up": (0.58, 0.65, 0.65),
                "large": (0.12, 0.12, 0.12)}
# A cell with any block issued shows at least this strongly, however large its segment.
LEAST_VISIBLE = 0.3
LONGEST_CACHED_RUN = 32768


def bucket_colour(rank):
    """The colour of the bucket class with the rank-th most groups."""
    return matplotlib.colormaps["tab20b"](rank % 20)[:3]


def cached_colour(groups):
    shade = 0.3 + 0.7 * math.log2(groups) / math.log2(LONGEST_CACHED_RUN)
    return matplotlib.colormaps["Oranges"](shade)[:3]


def class_ranks(runs):
    groups_by_class = collections.Counter(run["class"] for run in runs if run["role"] == "bucket")
    return {c: rank for rank, (c, _) in enumerate(groups_by_class.most_common())}


def group_colour(run, ranks):
    if run["role"] == "bucket":
        return bucket_colour(ranks[run["class"]])
    if run["role"] == "cached":
        return cached_colour(run["groups"])
    return ROLE_COLOURS[run["role"]]


def cell_colour(in_use, stacked, blocks):
    """Free blocks' colour, blended towards in use and stacked by the share issued."""
    issued = in_use + stacked
    if issued == 0:
        return SMALL_COLOURS["free"]
    weight = LEAST_VISIBLE + (1 - LEAST_VISIBLE) * issued / blocks
    return [(1 - weight) * f + weight * (in_use * u + stacked * s) / issued
            for u, s, f in zip(SMALL_COLOURS["in use"], SMALL_COLOURS["stacked"],
                               SMALL_COLOURS["free"])]


def small_class_image(classes):
    image = numpy.ones((len(classes), max(len(c["cells"]) for c in classes) or 1, 3))
    for row, small_class in enumerate(classes):
        for column, (in_use, stacked, blocks) in enumerate(small_class["cells"]):
            image[row, column] = cell_colour(in_use, stacked, blocks)
        if not small_class["committed"]:
            image[row, :] = UNCOMMITTED
    return image


def draw_small_classes(axes, data):
    classes = data["small_classes"]
    axes.imshow(small_class_image(classes), aspect="auto", interpolation="nearest")
    axes.set_yticks(range(len(classes)))
    axes.set_yticklabels([f"{c['block_size']} B  {c['in_use']:,} / {c['stacked']:,} of "
                          f"{c['extent']:,}" if c["committed"] else f"{c['block_size']} B"
                          for c in classes], fontsize=6)
    axes.set_xticks([])
    axes.set_title("small classes: each row a segment's blocks up to the highest issued;\n"
                   "blocks in use / stacked of those", fontsize=9)
    handles = [Patch(color=colour, label=label) for label, colour in SMALL_COLOURS.items()]
    handles.append(Patch(facecolor=UNCOMMITTED, edgecolor="grey", label="not committed"))
    axes.legend(handles=handles, fontsize=6, loc="lower right")


def shown_groups(runs):
    last = max((run["first"] + run["groups"] for run in runs if run["role"] != "unclaimed"),
               default=0)
    return max(GROUPS_PER_ROW, math.ceil((last + GROUPS_PER_ROW // 2) / GROUPS_PER_ROW)
               * GROUPS_PER_ROW)


def draw_groups(axes, data):
    runs = data["groups"]["runs"]
    shown = shown_groups(runs)
    ranks = class_ranks(runs)
    colours = numpy.ones((shown, 3))
    for run in runs:
        if run["first"] < shown:
            end = min(run["first"] + run["groups"], shown)
            colours[run["first"]:end] = group_colour(run, ranks)
    axes.imshow(colours.reshape(shown // GROUPS_PER_ROW, GROUPS_PER_ROW, 3), aspect="auto",
                interpolation="nearest")
    axes.set_title(f"bucket area: groups 0 to {shown - 1:,} of {data['groups']['count']:,}, "
                   f"{GROUPS_PER_ROW} a row", fontsize=9)
    axes.set_xticks([])
    axes.set_yticks([])
    unit_sizes = {run["class"]: run["unit_size"] for run in runs if run["role"] == "bucket"}
    handles = [Patch(color=bucket_colour(rank), label=f"bucket class {c} ({unit_sizes[c]} B)")
               for c, rank in ranks.items() if rank < 8]
    cached_lengths = sorted({run["groups"] for run in runs if run["role"] == "cached"})
    handles += [Patch(color=cached_colour(length), label=f"cached run of {length}")
                for length in cached_lengths[:4]]
    handles += [Patch(facecolor=colour, edgecolor="grey", label=role)
                for role, colour in ROLE_COLOURS.items()]
    axes.legend(handles=handles, fontsize=6, loc="upper left", bbox_to_anchor=(1.01, 1.0))


def draw_run_cache(axes, data):
    cache = data["run_cache"]
    lengths = cache["lengths"]
    if not lengths:
        axes.text(0.5, 0.5, "the run cache is empty", ha="center", va="center")
        axes.set_axis_off()
        return
    axes.bar([f"{entry['groups']}" for entry in lengths], [len(entry["runs"]) for entry in lengths],
             color=[cached_colour(entry["groups"]) for entry in lengths], edgecolor="grey")
    axes.set_xlabel("run length (groups), one list each, reused last in first out", fontsize=8)
    axes.set_ylabel("cached runs", fontsize=8)
    axes.tick_params(labelsize=7)
    axes.set_title(f"run cache: {cache['cached_groups']:,} groups; age lists hold "
                   f"{len(cache['short_age'])} short and {len(cache['long_age'])} long runs",
                   fontsize=9)


def mib(value):
    return f"{value / MIB:,.1f} MiB"


def summary(data):
    """The text summary, one line per figure."""
    blocks = data["blocks"]
    heap_areas = [area for area in blocks if area != "c_library"]
    requested = sum(blocks[area]["requested"] for area in heap_areas)
    handed_out = sum(blocks[area]["handed_out"] for area in heap_areas)
    committed = data["committed"]
    roles = data["groups"]["roles"]
    audit = data["audit"]
    rounding = f" (+{(handed_out - requested) / requested:.1%})" if requested else ""
    lines = [
        f"after {data['replayed']:,} of {data['operations']:,} calls",
        "live blocks: " + (", ".join(f"{blocks[area]['blocks']:,} {area.replace('_', ' ')}"
                                     for area in blocks if blocks[area]["blocks"]) or "none"),
        f"bytes requested: {requested:,}; handed out: {handed_out:,}{rounding}",
        f"C library's blocks (aligned requests, fallback): {blocks['c_library']['blocks']:,}, "
        f"{blocks['c_library']['requested']:,} bytes",
        f"committed: small classes {mib(committed['small'])}, bucket area "
        f"{mib(committed['bucket'])}, zeroed region {mib(committed['zeroed'])}, "
        f"bootstrap {committed['bootstrap']:,} bytes",
        "groups: " + ", ".join(f"{count:,} {role}" for role, count in roles.items()),
        f"largest free run: {data['groups']['largest_free_run']:,} groups "
        f"({mib(data['groups']['largest_free_run'] * GROUP_BYTES)})",
        "audit: clean" if audit["clean"] else
        f"audit: broken: {audit['broken']} at {audit['at']} (expected {audit['expected']}, "
        f"found {audit['found']})",
    ]
    tally = data["tally"]
    if tally["zero_size_nulls"]:
        lines.append(f"zero-size requests answered with null by design: "
                     f"{tally['zero_size_nulls']:,}")
    if tally["failures"] or tally["damaged"]:
        lines.append(f"UNSERVED requests: {tally['failures']:,}; damaged blocks: "
                     f"{tally['damaged']:,}")
    return lines


def draw(data, title, path):
    fig = plt.figure(figsize=(11, 9))
    grid = fig.add_gridspec(2, 2, height_ratios=[3, 1.3], width_ratios=[1, 1.25])
    draw_small_classes(fig.add_subplot(grid[0, 0]), data)
    draw_groups(fig.add_subplot(grid[0, 1]), data)
    draw_run_cache(fig.add_subplot(grid[1, 0]), data)
    text = fig.add_subplot(grid[1, 1])
    text.set_axis_off()
    text.text(0, 1, "\n".join(summary(data)), va="top", fontsize=7, family="monospace",
              wrap=True)
    fig.suptitle(f"TarnHeap after {title} (simulated vendor KestrelCores)")
    fig.tight_layout()
    fig.savefig(path, dpi=80)
    plt.close(fig)
