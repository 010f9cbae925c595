#!/usr/bin/env python3
"""How close a conversion comes to its floor: bench/floor.py BUILD_DIR [--before OTHER_BUILD_DIR]

The floor of a model is the five meshoptimizer calls the compiler makes on it (vertex cache,
overdraw and vertex fetch per render set; vertex and index encoding per merged buffer), made alone
on the same converted data and timed inside the process (bench_corpus_bare's floor_us). Printed
side by side in one run, so every figure saw the same machine:

  1. per corpus mesh (VERTEXMILL_CORPUS, else ../shared/corpus beside the repository): triangles,
     floor ms, the whole `vertexmill --src-path MESH.primitives --dst-path DIR` process in ms
     (one job, the default), their ratio and vertexmill's peak memory;
  2. the `--jobs 2` speed-up on merged_scene alone and on a tree of 20 models;
  3. what `--report FILE` adds on merged_scene;
  4. start-up: the whole `vertexmill --version` process;
  5. whether the outputs are byte-identical across --jobs 1, 2 and 4 (and to the other build's).

With --before, every vertexmill figure is also taken from OTHER_BUILD_DIR's vertexmill in the same
rounds (an earlier commit built in its own work tree), and the outputs of both are compared.

Untimed preparation: BUILD_DIR's primitives_from_obj imports each OBJ (format xyznuvtb, the
importer's default) and bench_corpus_prepare stores the data the compiler optimises. The tree is
the corpus imported as the six small meshes in xyznuv, xyznuvtb and xyznuv2tb plus merged_scene in
xyznuvtb and xyznuv, kept in BUILD_DIR/bench_tree_models (as bench/tree_bench.sh keeps it).

Every figure is a median over the rounds (--repeats, default 7); ratios and speed-ups are medians
of per-round ratios, so both sides of a ratio saw about the same load. Times are wall-clock from
spawning the process to reaping it; peak memory is the maximum resident set size, from
/usr/bin/time (package time) over three more runs. The load average is printed before and after: other work on a 2-core machine distorts every figure.
"""

import argparse
import filecmp
import os
import pathlib
import shutil
import statistics
import sys
import tempfile
import time

SMALL_MESHES = ["spot_low_resolution", "spot_triangulated", "boat", "pizza", "nefertiti-lowres", "koala"]
SMALL_FORMATS = ["xyznuv", "xyznuvtb", "xyznuv2tb"]
LARGE_FORMATS = ["xyznuvtb", "xyznuv"]


class Failed(Exception):
    pass


def spawn(argv, stdout_path=os.devnull):
    """Runs argv to its end; returns (wall seconds, peak KiB, exit status)."""
    actions = [
        (os.POSIX_SPAWN_OPEN, 0, os.devnull, os.O_RDONLY, 0),
        (os.POSIX_SPAWN_OPEN, 1, str(stdout_path), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644),
        (os.POSIX_SPAWN_OPEN, 2, os.devnull, os.O_WRONLY, 0),
    ]
    start = time.perf_counter()
    pid = os.posix_spawn(str(argv[0]), [str(a) for a in argv], os.environ, file_actions=actions)
    _, status, usage = os.wait4(pid, 0)
    wall = time.perf_counter() - start
    return wall, usage.ru_maxrss, os.waitstatus_to_exitcode(status)


def measure(argv, stdout_path=os.devnull):
    wall, peak, status = spawn(argv, stdout_path)
    if status != 0:
        raise Failed(f"failed with status {status}: {' '.join(map(str, argv))}")
    return wall, peak


def peak_kib(argv, work):
    """The peak resident set of a run, in KiB, as /usr/bin/time reports it. Not taken from wait4
    here: a child started by posix_spawn (vfork) begins with this Python process's memory in its
    high-water mark, which a small tool never reaches again."""
    report = work / "peak.txt"
    measure(["/usr/bin/time", "-f", "%M", "-o", report, *argv])
    return int(report.read_text().split()[-1])


def fields(text):
    return dict(item.split("=", 1) for item in text.split() if "=" in item)


def same_trees(a, b):
    """True when the two folders hold the same file names with the same bytes."""
    a, b = pathlib.Path(a), pathlib.Path(b)
    names_a = sorted(p.relative_to(a) for p in a.rglob("*") if p.is_file())
    names_b = sorted(p.relative_to(b) for p in b.rglob("*") if p.is_file())
    if names_a != names_b:
        return False
    return all(filecmp.cmp(a / n, b / n, shallow=False) for n in names_a)


def fresh(path):
    shutil.rmtree(path, ignore_errors=True)
    path.mkdir(parents=True)
    return path


def median_ratio(numerators, denominators):
    return statistics.median(n / d for n, d in zip(numerators, denominators))


def load_average():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


class Tool:
    def __init__(self, build, label):
        self.label = label
        self.vertexmill = build / "tools/vertexmill/vertexmill"
        if not os.access(self.vertexmill, os.X_OK):
            raise Failed(f"{self.vertexmill} is not built (ninja vertexmill)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--before", type=pathlib.Path, help="another build to measure in the same rounds")
    parser.add_argument("--repeats", type=int, default=int(os.environ.get("REPEATS", "7")))
    parser.add_argument("--keep", action="store_true", help="keep the temporary folder")
    args = parser.parse_args()

    build = args.build.resolve()
    script_dir = pathlib.Path(__file__).resolve().parent
    corpus = pathlib.Path(os.environ.get("VERTEXMILL_CORPUS", script_dir / "../../shared/corpus")).resolve()
    if not corpus.is_dir():
        print(f"bench_floor: no mesh corpus at '{corpus}' (set VERTEXMILL_CORPUS); nothing to measure.")
        return 0
    importer = build / "tools/primitives_from_obj/primitives_from_obj"
    prepare = build / "bench/bench_corpus_prepare"
    bare = build / "bench/bench_corpus_bare"
    if not os.access("/usr/bin/time", os.X_OK):
        raise Failed("/usr/bin/time is missing (apt-get install -y time)")
    for program in (importer, prepare, bare):
        if not os.access(program, os.X_OK):
            raise Failed(f"{program} is not built (ninja bench_floor builds what it needs)")
    tools = [Tool(build, "now")]
    if args.before:
        tools.append(Tool(args.before.resolve(), "before"))
    repeats = args.repeats

    work = pathlib.Path(tempfile.mkdtemp(prefix="vertexmill_floor.", dir=os.environ.get("TMPDIR")))
    try:
        return run(args, build, corpus, importer, prepare, bare, tools, repeats, work)
    finally:
        if args.keep:
            print(f"(kept {work})")
        else:
            shutil.rmtree(work, ignore_errors=True)


def prepare_tree(build, corpus, importer):
    cache = pathlib.Path(os.environ.get("TREE_CACHE", build / "bench_tree_models"))
    tree = cache / "models"
    complete = cache / "complete"
    if not complete.exists() or importer.stat().st_mtime > complete.stat().st_mtime:
        print("bench_floor: importing the corpus into the tree (once)...", file=sys.stderr)
        shutil.rmtree(cache, ignore_errors=True)
        for fmt in SMALL_FORMATS:
            (tree / fmt).mkdir(parents=True)
            for mesh in SMALL_MESHES:
                measure([importer, corpus / f"{mesh}.obj", tree / fmt / f"{mesh}.primitives", "--format", fmt])
        for fmt in LARGE_FORMATS:
            (tree / fmt).mkdir(parents=True, exist_ok=True)
            measure([importer, corpus / "merged_scene.obj.gz", tree / fmt / "merged_scene.primitives", "--format", fmt])
        complete.touch()
    return tree


def run(args, build, corpus, importer, prepare, bare, tools, repeats, work):
    meshes = sorted(p for p in corpus.iterdir() if p.name.endswith((".obj", ".obj.gz")))
    if not meshes:
        print(f"bench_floor: no .obj or .obj.gz files in {corpus}; nothing to measure.")
        return 0
    tree = prepare_tree(build, corpus, importer)
    tree_models = sum(1 for _ in tree.rglob("*.primitives"))

    # Untimed preparation.
    models = []
    for obj in meshes:
        name = obj.name.removesuffix(".gz").removesuffix(".obj")
        primitives = work / f"{name}.primitives"
        gpumesh = work / f"{name}.gpumesh"
        measure([importer, obj, primitives])
        measure([prepare, primitives, gpumesh], work / "prepare.txt")
        triangles = int(fields((work / "prepare.txt").read_text())["triangles"])
        models.append({"name": name, "primitives": primitives, "gpumesh": gpumesh, "triangles": triangles})
    models.sort(key=lambda m: m["triangles"])
    merged = next((m for m in models if m["name"] == "merged_scene"), models[-1])

    load_start = load_average()
    cores = os.cpu_count()
    started = time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())
    print("# vertexmill against its floor")
    print()
    print(f"{started}, {cores} cores, load average at start {load_start}; {repeats} rounds, medians.")
    print("floor = the five meshoptimizer calls alone on the same data, timed in-process;")
    print("vertexmill = the whole process converting the .primitives file, one job.")
    print()

    # 1. Per mesh: floor and whole processes, interleaved within every round.
    floor = {m["name"]: [] for m in models}
    wall = {(t.label, m["name"]): [] for t in tools for m in models}
    peak = {(t.label, m["name"]): [] for t in tools for m in models}
    for _ in range(repeats):
        for m in models:
            measure([bare, m["gpumesh"]], work / "bare.txt")
            floor[m["name"]].append(int(fields((work / "bare.txt").read_text())["floor_us"]) / 1e6)
            for t in tools:
                out = fresh(work / "out" / t.label)
                seconds, _ = measure([t.vertexmill, "--src-path", m["primitives"], "--dst-path", out])
                wall[(t.label, m["name"])].append(seconds)
    for _ in range(3):
        for m in models:
            for t in tools:
                out = fresh(work / "out" / t.label)
                peak[(t.label, m["name"])].append(
                    peak_kib([t.vertexmill, "--src-path", m["primitives"], "--dst-path", out], work))

    header = "| mesh | triangles | floor ms | vertexmill ms | ratio | aim | peak MiB |"
    rule = "|---|---:|---:|---:|---:|---:|---:|"
    if len(tools) > 1:
        header += " before ms | before ratio | before MiB |"
        rule += "---:|---:|---:|"
    print(header)
    print(rule)
    for m in models:
        name = m["name"]
        aim = 1.15 if m["triangles"] >= 70000 else 1.30 if m["triangles"] >= 30000 else None
        row = f"| {name} | {m['triangles']:,} | {statistics.median(floor[name]) * 1e3:.1f} |"
        for i, t in enumerate(tools):
            ratio = median_ratio(wall[(t.label, name)], floor[name])
            cells = [f"{statistics.median(wall[(t.label, name)]) * 1e3:.1f}", f"{ratio:.2f}"]
            if i == 0:
                verdict = "-" if aim is None else f"{aim:.2f} {'met' if ratio <= aim else 'MISSED'}"
                cells.append(verdict)
            cells.append(f"{statistics.median(peak[(t.label, name)]) / 1024:.1f}")
            row += " " + " | ".join(cells) + " |"
        print(row)
    print()

    # 2 and 3. merged_scene with one and two jobs and with a report; the tree with one and two jobs.
    single = {}
    trees = {}
    report = {}
    for t in tools:
        for key in ("1", "2", "report"):
            single[(t.label, key)] = []
            report[(t.label, key)] = []
        for key in ("1", "2"):
            trees[(t.label, key)] = []
    for _ in range(repeats):
        for t in tools:
            for jobs in ("1", "2"):
                out = fresh(work / "merged" / f"{t.label}{jobs}")
                seconds, _ = measure([t.vertexmill, "--jobs", jobs, "--src-path", merged["primitives"], "--dst-path", out])
                single[(t.label, jobs)].append(seconds)
            out = fresh(work / "merged" / f"{t.label}report")
            seconds, _ = measure([t.vertexmill, "--report", work / "report.json", "--src-path", merged["primitives"],
                                  "--dst-path", out])
            single[(t.label, "report")].append(seconds)
            for jobs in ("1", "2"):
                out = fresh(work / "tree" / f"{t.label}{jobs}")
                seconds, _ = measure([t.vertexmill, "--jobs", jobs, "--tree", tree, out])
                trees[(t.label, jobs)].append(seconds)

    # 4. Start-up.
    startup = {t.label: [] for t in tools}
    reference = []
    for _ in range(max(repeats, 25)):
        for t in tools:
            startup[t.label].append(measure([t.vertexmill, "--version"])[0])
        reference.append(measure(["/bin/true"])[0])

    def row(label, values, aim=None):
        cells = " | ".join(values)
        return f"| {label} | {cells} |" + (f" {aim} |" if aim is not None else "")

    columns = "| | " + " | ".join(t.label for t in tools) + " | aim |"
    print(columns)
    print("|---|" + "---:|" * len(tools) + "---|")
    speedups = [median_ratio(single[(t.label, "1")], single[(t.label, "2")]) for t in tools]
    print(row(f"merged_scene one job, ms", [f"{statistics.median(single[(t.label, '1')]) * 1e3:.0f}" for t in tools], ""))
    print(row("merged_scene `--jobs 2` speed-up", [f"{s:.2f}x" for s in speedups],
              f">= 1.75x: {'met' if speedups[0] >= 1.75 else 'MISSED'}"))
    tree_speedups = [median_ratio(trees[(t.label, "1")], trees[(t.label, "2")]) for t in tools]
    print(row(f"tree of {tree_models} models one job, ms",
              [f"{statistics.median(trees[(t.label, '1')]) * 1e3:.0f}" for t in tools], ""))
    print(row(f"tree of {tree_models} models `--jobs 2` speed-up", [f"{s:.2f}x" for s in tree_speedups],
              f">= 1.85x: {'met' if tree_speedups[0] >= 1.85 else 'MISSED'}"))
    costs = [median_ratio(single[(t.label, "report")], single[(t.label, "1")]) - 1 for t in tools]
    print(row("merged_scene `--report` cost", [f"{c * 100:+.1f}%" for c in costs],
              f"<= 10%: {'met' if costs[0] <= 0.10 else 'MISSED'}"))
    merged_peak = [statistics.median(peak[(t.label, merged['name'])]) / 1024 for t in tools]
    print(row("merged_scene peak MiB", [f"{p:.1f}" for p in merged_peak],
              f"<= 40: {'met' if merged_peak[0] <= 40 else 'MISSED'}"))
    starts = [statistics.median(startup[t.label]) * 1e3 for t in tools]
    print(row("start-up (`--version`), ms", [f"{s:.2f}" for s in starts],
              f"<= 2: {'met' if starts[0] <= 2 else 'MISSED'}"))
    print(row("(`/bin/true` for reference), ms", [f"{statistics.median(reference) * 1e3:.2f}"] * len(tools), ""))
    print()

    # 5. Byte identity.
    checks = []
    for t in tools:
        base = fresh(work / "same" / t.label / "tree1")
        measure([t.vertexmill, "--jobs", "1", "--tree", tree, base])
        for jobs in ("2", "4"):
            other = fresh(work / "same" / t.label / f"tree{jobs}")
            measure([t.vertexmill, "--jobs", jobs, "--tree", tree, other])
            checks.append((f"{t.label}: tree --jobs 1 / --jobs {jobs}", same_trees(base, other)))
        merged1 = fresh(work / "same" / t.label / "merged1")
        measure([t.vertexmill, "--jobs", "1", "--src-path", merged["primitives"], "--dst-path", merged1])
        for jobs in ("2", "4"):
            other = fresh(work / "same" / t.label / f"merged{jobs}")
            measure([t.vertexmill, "--jobs", jobs, "--src-path", merged["primitives"], "--dst-path", other])
            checks.append((f"{t.label}: merged_scene --jobs 1 / --jobs {jobs}", same_trees(merged1, other)))
    if len(tools) > 1:
        checks.append(("tree: now / before", same_trees(work / "same/now/tree1", work / "same/before/tree1")))
        for m in models:
            a = fresh(work / "same/now/single")
            b = fresh(work / "same/before/single")
            measure([tools[0].vertexmill, "--src-path", m["primitives"], "--dst-path", a])
            measure([tools[1].vertexmill, "--src-path", m["primitives"], "--dst-path", b])
            checks.append((f"{m['name']}: now / before", same_trees(a, b)))
    different = [label for label, same in checks if not same]
    print(f"Byte-identical outputs: {len(checks) - len(different)} of {len(checks)} comparisons"
          + ("." if not different else "; DIFFERENT: " + ", ".join(different)))
    print()
    print(f"load average at end {load_average()}")
    return 1 if different else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failed as error:
        print(f"bench_floor: {error}", file=sys.stderr)
        sys.exit(1)
