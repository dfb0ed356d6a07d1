"""The chart of one benchmark run: per row, the fraction of this machine's limit reached
(copy bandwidth or matmul peak; a black tick where a row's compute floor makes the larger of
the two the limit), and the speed-up over the eager composite and over torch.compile of it."""
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.colors import to_rgba  # noqa: E402

DPI = 72


def _label(row):
    return f"{row['op']} {row['dtype']} {row['shape']}"


def draw(result: dict, path: str) -> None:
    rows = result["rows"][::-1]                      # first row at the top
    n = len(rows)
    y = range(n)
    fig, (left, right) = plt.subplots(1, 2, sharey=True, figsize=(12, 1.6 + 0.17 * n),
                                      gridspec_kw={"width_ratios": [1, 1.2]})
    colours = {"memory": "#4c72b0", "compute": "#dd8452"}
    left.barh(y, [r["fraction"] for r in rows], height=0.75,
              color=[to_rgba(colours[r["limit"]["kind"]], 1.0 if r["size"] == "large" else 0.5) for r in rows])
    clip = 1.3
    for i, r in enumerate(rows):   # the value at the bar's end; bars past the axis are cut
        left.text(min(r["fraction"], clip) + 0.01, i, f"{r['fraction']:.2f}", va="center", fontsize=6)
    for i, r in enumerate(rows):   # against the larger limit where the compute floor is it
        if r.get("roofline_fraction", r["fraction"]) > r["fraction"]:
            left.plot([min(r["roofline_fraction"], clip)] * 2, [i - 0.4, i + 0.4], color="k", lw=1.2)
    left.set_xlim(0, clip + 0.12)
    left.axvline(0.85, color="k", lw=0.8, ls="--")
    left.axvline(1.0, color="k", lw=0.6)
    left.set_yticks(list(y), [_label(r) for r in rows], fontsize=7)
    left.set_xlabel("fraction of the limit (dashed: 0.85)", fontsize=8)
    left.set_title("blue: copy bandwidth, orange: matmul peak; pale: decode sizes;\n"
                   "tick: against the compute floor where it exceeds the copy", fontsize=8)
    left.tick_params(axis="x", labelsize=7)

    h = 0.38
    for shift, name, colour in ((-h / 2, "eager", "#8c8c8c"), (h / 2, "compile", "#55a868")):
        vals = [r["speedup"].get(name, float("nan")) for r in rows]
        right.barh([i + shift for i in y], vals, height=h, color=colour, label=f"over {name}")
    right.set_xscale("log")
    right.axvline(1.0, color="k", lw=0.8)
    right.set_xlabel("speed-up (log scale)", fontsize=8)
    right.legend(fontsize=7, loc="lower right")
    right.tick_params(axis="x", labelsize=7)
    for ax in (left, right):
        ax.set_ylim(-0.7, n - 0.3)
        ax.grid(axis="x", lw=0.3)

    peaks = result.get("matmul_peaks", {}).get("float32", {}).get("GFLOP/s", float("nan"))
    fig.suptitle(f"vorta_addons on {result['cpu'] if result['device'] == 'cpu' else result.get('gpu')}"
                 f" ({result['device']}, {result['threads']} threads), torch {result['torch']}, "
                 f"{result['date']}: copy {result['copy_GBps_256MiB']:.1f} GB/s, "
                 f"float32 matmul {peaks:.0f} GFLOP/s", fontsize=9)
    fig.tight_layout(rect=(0, 0, 1, 0.99))
    fig.savefig(path, dpi=DPI)
    plt.close(fig)
    _shrink(path)


def _shrink(path):
    """A 64-colour palette keeps the committed PNG small."""
    try:
        from PIL import Image
    except ImportError:
        return
    img = Image.open(path).convert("RGB").quantize(colors=64)
    img.save(path, optimize=True)
