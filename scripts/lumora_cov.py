"""Coverage helpers of scripts/coverage and scripts/mutate (stdlib only)."""
import hashlib
import json
import os
import subprocess


def line_counts(objdir, root, prefix="src/"):
    """{path relative to root: {line: count}} of the .gcda files under objdir,
    for the sources under root/prefix; lines of a header that several objects
    include are summed."""
    gcdas = []
    for dirpath, _, files in os.walk(objdir):
        gcdas += [os.path.join(dirpath, f) for f in files if f.endswith(".gcda")]
    counts = {}
    if not gcdas:
        return counts
    # --stdout: gcov writes no .gcov files, one JSON document per data file.
    out = subprocess.run(["gcov", "--stdout", "--json-format"] + sorted(gcdas), cwd=objdir,
                         capture_output=True, text=True, check=True).stdout
    for doc in out.splitlines():
        if not doc.startswith("{"):
            continue
        data = json.loads(doc)
        cwd = data.get("current_working_directory", objdir)
        for f in data["files"]:
            path = os.path.relpath(os.path.normpath(os.path.join(cwd, f["file"])), root)
            if not path.startswith(prefix):
                continue
            lines = counts.setdefault(path, {})
            for ln in f["lines"]:
                lines[ln["line_number"]] = lines.get(ln["line_number"], 0) + ln["count"]
    return counts


def increased(before, after):
    """{path: sorted lines} whose count grew from before to after."""
    grown = {}
    for path, lines in after.items():
        old = before.get(path, {})
        hit = sorted(n for n, c in lines.items() if c > old.get(n, 0))
        if hit:
            grown[path] = hit
    return grown


def per_folder(summary, folders):
    """Sums gcovr's --json-summary per folder: [(folder, lines covered, lines,
    branches covered, branches)], the longest matching folder winning."""
    totals = {f: [0, 0, 0, 0] for f in folders}
    by_length = sorted(folders, key=len, reverse=True)
    for f in summary["files"]:
        name = f["filename"]
        folder = next((d for d in by_length if name == d or name.startswith(d + "/")), None)
        if folder is None:
            continue
        t = totals[folder]
        t[0] += f["line_covered"]
        t[1] += f["line_total"]
        t[2] += f["branch_covered"]
        t[3] += f["branch_total"]
    return [(d, *totals[d]) for d in folders]


def percent(covered, total):
    return "-" if total == 0 else "%.1f%%" % (100.0 * covered / total)


def format_table(rows):
    """A Markdown table of per_folder's rows, as the README shows it."""
    out = ["| folder | lines | line coverage | branches | branch coverage |",
           "|---|---:|---:|---:|---:|"]
    for d, lc, lt, bc, bt in rows:
        out.append("| `%s` | %d / %d | %s | %d / %d | %s |" % (d, lc, lt, percent(lc, lt), bc, bt, percent(bc, bt)))
    return "\n".join(out)


def src_digest(root):
    """A digest of every file under root/src, to tell whether coverage data
    still fits the sources."""
    h = hashlib.sha256()
    for dirpath, dirs, files in sorted(os.walk(os.path.join(root, "src"))):
        dirs.sort()
        for f in sorted(files):
            if f.endswith(".mutate-orig"):
                continue
            path = os.path.join(dirpath, f)
            h.update(os.path.relpath(path, root).encode() + b"\0")
            with open(path, "rb") as fh:
                h.update(fh.read())
    return h.hexdigest()
