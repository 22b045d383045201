#!/usr/bin/env python3
"""Mutation testing for the library: measures how many small faults the unit tests catch.

The sample is drawn, with a fixed seed, from the sources (not the tests) of lowlevel/ and
compression/ as they stand at a fixed base commit, so runs before and after a change of the tests
use the same mutants. Each mutant is applied alone, the test programs of the mutated module's
directory are rebuilt (-O0, no sanitizers, ccache off for the mutant) and run one after another
until the first failure. A mutant is `killed` (a test failed, crashed or timed out), `survived`
(every test passed), `nocompile` (the build failed; not counted in the score) or `skipped` (the
source line changed since the base commit).

The run works on a copy of the working tree in BUILD_DIR/src (the real tree is never mutated, and
editing it during a run changes nothing), built in BUILD_DIR/obj. Run it through scripts/mutate.sh;
`--help` lists the options.
"""
import argparse
import hashlib
import os
import random
import re
import signal
import subprocess
import sys
import time

BASE_COMMIT = "f8f429b"
SOURCE_DIRS = ["lowlevel/btree", "lowlevel/files", "lowlevel/cmdline", "lowlevel/support",
               "lowlevel/platform", "compression"]
MIN_PER_DIR = 15
TEST_MARKERS = ("_test", "test_", "testing", "testutil")


def is_test_file(path):
    name = os.path.basename(path)
    return any(m in name for m in TEST_MARKERS) or path.startswith("tests/")


def git(root, *args):
    return subprocess.run(["git", "-C", root] + list(args), check=True, capture_output=True,
                          text=True).stdout


# ---------------------------------------------------------------------------------------------
# Finding mutation points.

def code_masks(lines):
    """For each line, the line with comments, string and char literals blanked out (same length),
    or None for preprocessor lines."""
    out = []
    in_block = False
    for line in lines:
        if not in_block and line.lstrip().startswith("#"):
            out.append(None)
            continue
        res = []
        i = 0
        n = len(line)
        while i < n:
            c = line[i]
            if in_block:
                if line.startswith("*/", i):
                    in_block = False
                    res.append("  ")
                    i += 2
                else:
                    res.append(" ")
                    i += 1
                continue
            if line.startswith("//", i):
                res.append(" " * (n - i))
                break
            if line.startswith("/*", i):
                in_block = True
                res.append("  ")
                i += 2
                continue
            if c == '"' or (c == "'" and not (i > 0 and line[i - 1].isalnum())):
                # A string or char literal (a ' between digits is a digit separator).
                j = i + 1
                while j < n and line[j] != c:
                    j += 2 if line[j] == "\\" else 1
                res.append(" " * (min(j, n - 1) - i + 1))
                i = j + 1
                continue
            res.append(c)
            i += 1
        out.append("".join(res)[:n])
    return out


REL_SWAP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
REL_RE = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)")
LOGIC_RE = re.compile(r"(?<=\s)(&&|\|\|)(?=\s)")
INT_RE = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])")
INDEX_RE = re.compile(r"(?<=\w)\[([A-Za-z_]\w*)\]")
BOOL_RE = re.compile(r"\breturn (true|false);")
STMT_RE = re.compile(r"^(\s*)(\*?[A-Za-z_]\w*(?:\s*(?:\.|->|::)\s*[A-Za-z_]\w*|\[[^\]]*\])*"
                     r"\s*(?:=(?!=)|\+=|-=|\*=|/=|%=|&=|\|=|\^=|<<=|>>=|\+\+|--|\(|<)"
                     r".*;)\s*$")
NOT_STMT = re.compile(r"^\s*(return|break|continue|goto|case|default|using|typedef|static_assert|"
                      r"else|do|delete|if|for|while|switch|template|public|private|protected|"
                      r"const|static|constexpr|inline|explicit|virtual|friend|struct|class|enum|"
                      r"namespace|unsigned|signed|int|long|short|char|bool|void|auto|size_t|"
                      r"u?int\d+_t|double|float)\b")
IF_RETURN_RE = re.compile(r"^(\s*if \(.*\)) (return\b[^;]*;)\s*$")
RETURN_LINE_RE = re.compile(r"^(\s*)(return\b[^;]*;)\s*$")


def balanced(s):
    return s.count("(") == s.count(")") and s.count("{") == s.count("}")


def find_mutations(path, text):
    """Every mutation point of one file, as dicts with line (1-based), col, kind, old, new."""
    lines = text.split("\n")
    masks = code_masks(lines)
    muts = []

    def add(ln, col, kind, old, new):
        old = lines[ln][col:col + len(old)]  # the real text, literals included
        muts.append({"file": path, "line": ln + 1, "col": col, "kind": kind, "old": old, "new": new})

    for ln, (line, mask) in enumerate(zip(lines, masks)):
        if mask is None or not mask.strip():
            continue
        if re.search(r"\b(static_assert|template|operator|#include)\b", mask):
            continue
        for m in REL_RE.finditer(mask):
            add(ln, m.start(), "relational", m.group(1), REL_SWAP[m.group(1)])
        for m in LOGIC_RE.finditer(mask):
            add(ln, m.start(), "logical", m.group(1), "||" if m.group(1) == "&&" else "&&")
        # Integer literals; not in array bounds of declarations nor in case labels nor enums.
        if not re.match(r"^\s*(case\b|[A-Za-z_]\w*\s*=\s*[^;]*,\s*$)", mask):
            for m in INT_RE.finditer(mask):
                lit, suf = m.group(1), m.group(2)
                val = int(lit, 16) if lit[:2].lower() == "0x" else int(lit)
                fmt = (lambda v: hex(v)) if lit[:2].lower() == "0x" else str
                add(ln, m.start(), "literal", lit + suf, fmt(val + 1) + suf)
                if val > 0:
                    add(ln, m.start(), "literal", lit + suf, fmt(val - 1) + suf)
        for m in INDEX_RE.finditer(mask):
            add(ln, m.start(), "index", m.group(0), "[" + m.group(1) + " + 1]")
        for m in BOOL_RE.finditer(mask):
            flip = "false" if m.group(1) == "true" else "true"
            add(ln, m.start(), "bool", m.group(0), "return " + flip + ";")
        prev = next((p for p in reversed(masks[:ln]) if p is not None and p.strip()), "{")
        # Dropping an early return: `if (c) return x;`, or a return that is the body of an if.
        m = IF_RETURN_RE.match(mask)
        if m and balanced(m.group(1)):
            add(ln, m.start(2), "early-return", m.group(2), "{}")
        else:
            m = RETURN_LINE_RE.match(mask)
            if m and re.match(r"^\s*(\} else )?if \(.*\)\s*\{?\s*$", prev):
                add(ln, m.start(2), "early-return", m.group(2), "{}")
        # Dropping a statement: an assignment, increment or call that fits on one line.
        starts = re.search(r"([;{}:)]|\belse)\s*$", prev) is not None
        m = STMT_RE.match(mask)
        if m and starts and path.endswith(".cpp") and not NOT_STMT.match(mask) and balanced(m.group(2)) and \
                not re.match(r"^\s*[A-Za-z_][\w:<>,\s\*&]*[\s\*&]\*?[A-Za-z_]\w*\s*(=|\(|\{|;|\[)",
                             mask.split("(")[0] + ("(" if "(" in mask else "")) and \
                not mask.rstrip().endswith(",") and "}" not in m.group(2):
            add(ln, m.start(2), "statement", m.group(2), "{}")
    return muts


def mutant_id(m):
    key = "%s:%d:%d:%s:%s>%s" % (m["file"], m["line"], m["col"], m["kind"], m["old"], m["new"])
    return hashlib.sha1(key.encode()).hexdigest()[:10]


def sample(root, seed, count):
    files = [f for f in git(root, "ls-tree", "-r", "--name-only", BASE_COMMIT).split("\n")
             if f.endswith((".cpp", ".h")) and not is_test_file(f)
             and any(f.startswith(d + "/") for d in SOURCE_DIRS)]
    allm = []
    for f in sorted(files):
        allm.extend(find_mutations(f, git(root, "show", BASE_COMMIT + ":" + f)))
    # Each directory gets its share of `count` by its number of mutation points, but at least
    # MIN_PER_DIR, so that a small module is measured too.
    rng = random.Random(seed)
    picked = []
    for d in SOURCE_DIRS:
        pts = [m for m in allm if module_dir(m["file"]) == d]
        quota = max(MIN_PER_DIR, round(count * len(pts) / len(allm)))
        picked.extend(rng.sample(pts, min(quota, len(pts))))
    for m in picked:
        m["id"] = mutant_id(m)
    return allm, picked


# ---------------------------------------------------------------------------------------------
# Building and running.

def module_dir(path):
    for d in SOURCE_DIRS:
        if path.startswith(d + "/"):
            return d
    raise ValueError(path)


def test_targets(root, d):
    return sorted(f[:-4] for f in os.listdir(os.path.join(root, d)) if f.endswith("_test.cpp"))


def snapshot(repo, dest):
    """Copies the working tree (tracked and untracked files, not ignored ones) to `dest`, so that
    the mutants never touch the real tree and edits made during a run do not reach it. Files that
    did not change keep their time stamps, so the build stays incremental."""
    import shutil
    files = git(repo, "ls-files", "-co", "--exclude-standard", "-z").split("\0")
    for f in files:
        if not f or not os.path.isfile(os.path.join(repo, f)):
            continue
        src, dst = os.path.join(repo, f), os.path.join(dest, f)
        with open(src, "rb") as a:
            data = a.read()
        if os.path.exists(dst):
            with open(dst, "rb") as b:
                if b.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)


def configure(root, build):
    launcher = os.path.join(root, "scripts", "mutate_cc.sh")
    if os.path.exists(os.path.join(build, "build.ninja")):
        return
    subprocess.run(["cmake", "-S", root, "-B", build, "-G", "Ninja",
                    "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_C_COMPILER=gcc",
                    "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",
                    "-DCMAKE_CXX_COMPILER_LAUNCHER=" + launcher,
                    "-DCMAKE_C_COMPILER_LAUNCHER=" + launcher,
                    "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
                    "-DLOWLEVEL_BUILD_BENCH=OFF", "-DLOWLEVEL_BUILD_TOOLS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)


def build(build_dir, targets, jobs, mutant):
    env = dict(os.environ)
    if mutant:
        env["CCACHE_DISABLE"] = "1"
    r = subprocess.run(["nice", "ninja", "-C", build_dir, "-j", str(jobs)] + targets,
                       capture_output=True, text=True, env=env)
    return r.returncode == 0, r.stdout[-3000:]


def run_tests(root, build_dir, targets, timeout):
    """Runs the test programs until one fails; returns (all passed, name of the failing one)."""
    env = dict(os.environ, LOWLEVEL_SOURCE_DIR=root)
    for t in targets:
        try:
            r = subprocess.run(["nice", os.path.join(build_dir, t), "--gtest_brief=1",
                                "--gtest_fail_fast"], capture_output=True, env=env,
                               timeout=timeout, cwd=build_dir, start_new_session=True)
            if r.returncode != 0:
                return False, t
        except subprocess.TimeoutExpired as e:
            return False, t + " (timeout)"
    return True, ""


class Restorer:
    """Puts a mutated file back whatever happens, including Ctrl-C and SIGTERM."""

    def __init__(self):
        self.path = None
        self.text = None
        for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(sig, self.on_signal)

    def set(self, path, text):
        self.path, self.text = path, text

    def restore(self):
        if self.path is not None:
            with open(self.path, "w") as f:
                f.write(self.text)
            self.path = None

    def on_signal(self, signum, frame):
        self.restore()
        sys.exit(128 + signum)


def apply(text, m):
    """The text with mutant m applied, or None when the line is no longer where it was."""
    lines = text.split("\n")
    for ln in [m["line"] - 1] + [m["line"] - 1 + d for s in range(1, 40) for d in (s, -s)]:
        if 0 <= ln < len(lines) and lines[ln] == m["orig_line"]:
            line = lines[ln]
            col = m["col"]
            assert line[col:col + len(m["old"])] == m["old"], (m, line)
            lines[ln] = line[:col] + m["new"] + line[col + len(m["old"]):]
            return "\n".join(lines), ln + 1
    return None, 0


def describe(m):
    return "%s:%d [%s] %s -> %s" % (m["file"], m["line"], m["kind"], m["old"], m["new"])


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--seed", type=int, default=20)
    ap.add_argument("--count", type=int, default=200, help="mutants in the whole sample")
    ap.add_argument("--dirs", nargs="*", default=[],
                    help="only the sample's mutants in these directories (e.g. lowlevel/btree)")
    ap.add_argument("--build-dir", default="build/mutate")
    ap.add_argument("--out", default=None, help="result file (default BUILD_DIR/results.txt)")
    ap.add_argument("--timeout", type=float, default=120, help="seconds per test program")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--only", nargs="*", default=[],
                    help="only these mutants of the sample, by id (e.g. the survivors of a run)")
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--resume", action="store_true", help="keep the results already in --out")
    args = ap.parse_args()

    repo = os.path.abspath(git(os.getcwd(), "rev-parse", "--show-toplevel").strip())
    allm, picked = sample(repo, args.seed, args.count)
    dirs = [d.rstrip("/") for d in args.dirs]
    for d in dirs:
        if d not in SOURCE_DIRS:
            sys.exit("unknown directory %s (known: %s)" % (d, " ".join(SOURCE_DIRS)))
    chosen = [m for m in picked if (not dirs or module_dir(m["file"]) in dirs)
              and (not args.only or m["id"] in args.only)]
    if args.list:
        print("%d mutation points, %d in the sample, %d chosen" % (len(allm), len(picked),
                                                                    len(chosen)))
        for m in chosen:
            print(m["id"], describe(m))
        return 0

    build_dir = os.path.abspath(os.path.join(repo, args.build_dir))
    out = os.path.abspath(args.out or os.path.join(build_dir, "results.txt"))
    root = os.path.join(build_dir, "src")
    os.makedirs(build_dir, exist_ok=True)
    snapshot(repo, root)
    configure(root, os.path.join(build_dir, "obj"))
    build_dir = os.path.join(build_dir, "obj")

    done = {}
    if args.resume and os.path.exists(out):
        for line in open(out):
            parts = line.split()
            if len(parts) > 2 and re.match(r"^[0-9a-f]{10}$", parts[1]):
                done[parts[1]] = line.rstrip("\n")
    restorer = Restorer()

    # The unmutated tests must pass, and their times set the order (fastest first).
    order = {}
    for d in sorted({module_dir(m["file"]) for m in chosen}):
        targets = test_targets(root, d)
        ok, log = build(build_dir, targets, args.jobs, False)
        if not ok:
            sys.exit("the unmutated build fails:\n" + log)
        times = []
        for t in targets:
            t0 = time.time()
            passed, _ = run_tests(root, build_dir, [t], args.timeout)
            if not passed:
                sys.exit("the unmutated test %s fails" % t)
            times.append((time.time() - t0, t))
        order[d] = [t for _, t in sorted(times)]
        print("%s: %s" % (d, ", ".join("%s %.1fs" % (t, s) for s, t in sorted(times))), flush=True)

    results = dict(done)
    mode = "a" if args.resume else "w"
    with open(out, mode) as log:
        if not args.resume or not done:
            log.write("# mutation run: seed %d, sample %d of %d points, base %s, dirs %s\n" %
                      (args.seed, len(picked), len(allm), BASE_COMMIT, " ".join(dirs) or "all"))
        for i, m in enumerate(chosen):
            if m["id"] in done:
                continue
            path = os.path.join(root, m["file"])
            base = git(repo, "show", BASE_COMMIT + ":" + m["file"]).split("\n")
            m["orig_line"] = base[m["line"] - 1]
            t0 = time.time()
            try:
                text = open(path).read()
            except FileNotFoundError:
                text = None
            mutated, at = apply(text, m) if text is not None else (None, 0)
            if mutated is None:
                status, detail = "skipped", "source line changed"
            else:
                restorer.set(path, text)
                with open(path, "w") as f:
                    f.write(mutated)
                # Each test program is linked just before it runs, so that a mutant killed by
                # the first (fastest) one costs one link only.
                status, detail = "survived", ""
                for n, t in enumerate(order[module_dir(m["file"])]):
                    ok, blog = build(build_dir, [t], args.jobs, True)
                    if not ok:
                        status, detail = "nocompile", t
                        break
                    passed, failing = run_tests(root, build_dir, [t], args.timeout)
                    if not passed:
                        status, detail = "killed", failing
                        break
                restorer.restore()
            line = "%-9s %s %s%s" % (status, m["id"], describe(m),
                                     (" (" + detail + ")") if detail else "")
            results[m["id"]] = line
            log.write(line + "\n")
            log.flush()
            print("[%d/%d %.0fs] %s" % (i + 1, len(chosen), time.time() - t0, line), flush=True)
        # Leave the build matching the sources again.
        for d in sorted(order):
            build(build_dir, order[d], args.jobs, False)

        counts = {}
        for line in results.values():
            s = line.split()[0]
            counts[s] = counts.get(s, 0) + 1
        killed, survived = counts.get("killed", 0), counts.get("survived", 0)
        score = 100.0 * killed / (killed + survived) if killed + survived else 0.0
        summary = ["", "# score %.1f%% (%d killed of %d compiled; %d did not compile, %d skipped)" %
                   (score, killed, killed + survived, counts.get("nocompile", 0),
                    counts.get("skipped", 0)), "# survivors:"]
        summary += ["#   " + l.split(None, 2)[2] for l in sorted(results.values())
                    if l.startswith("survived")]
        log.write("\n".join(summary) + "\n")
    print("\n".join(summary))
    return 0


if __name__ == "__main__":
    sys.exit(main())
