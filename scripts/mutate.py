#!/usr/bin/env python3
"""Mutation runner for the library's sources (src/).

Each mutant changes one thing on one line: a relational or logical operator, an off-by-one, an
integer constant, a status constant, an if/while condition negated, a boolean, or a
call's result ignored. Every mutant is built incrementally in a private copy of the tree and
the test programs run against it with a timeout; a mutant is killed when a test fails, crashes
or times out, and survives when the whole suite passes.

A mutant is named by its file, the text of its line, the operator and which match on the line
it is; so a saved sample can be replayed on a later tree whose lines have moved (the line is
found by its text, nearest its old number).

See README.md ("Mutation testing") for the commands.
"""

import argparse
import hashlib
import os
import queue
import random
import re
import shutil
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Status constants of the C interface and SQLite result codes, each swapped for a neighbour a
# careless edit could have written instead.
SWAPS = {
    "DB_STATUS_SUCCESS": "DB_STATUS_FAILURE",
    "DB_STATUS_FAILURE": "DB_STATUS_SUCCESS",
    "DB_STATUS_EMPTY": "DB_STATUS_SUCCESS",
    "DB_STATUS_BUSY": "DB_STATUS_FAILURE",
    "DB_STATUS_CONSTRAINT": "DB_STATUS_FAILURE",
    "DB_STATUS_NO_TABLE": "DB_STATUS_FAILURE",
    "DB_STATUS_OPEN_FAILED": "DB_STATUS_FAILURE",
    "DB_STATUS_QUEUE_FULL": "DB_STATUS_BUSY",
    "SQLITE_OK": "SQLITE_ERROR",
    "SQLITE_ROW": "SQLITE_DONE",
    "SQLITE_DONE": "SQLITE_ROW",
    "SQLITE_BUSY": "SQLITE_LOCKED",
    "SQLITE_CONSTRAINT": "SQLITE_ERROR",
    "true": "false",
    "false": "true",
}

# Binary operators are matched only with a blank on each side, as the house style writes them;
# that keeps template brackets, shifts and arrows out.
OPERATORS = [
    ("ror", re.compile(r"(?<= )(<=|>=|==|!=|<|>)(?= )"),
     {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}),
    ("lcr", re.compile(r"(?<= )(&&|\|\|)(?= )"), {"&&": "||", "||": "&&"}),
]
OFF_BY_ONE = re.compile(r" [+-] 1\b(?!\.)")
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
WORDS = re.compile(r"\b(" + "|".join(SWAPS) + r")\b")
CONDITION = re.compile(r"\b(if|while) \(")
CALL_RESULT = re.compile(r"^(\s*)([A-Za-z_]\w*(?:\.\w+|->\w+)*) = ([A-Za-z_][\w:]*\(.*\));$")


def code_mask(lines):
    """Per line, the text with comments, string and character literals blanked out."""
    masked = []
    in_block = False
    for line in lines:
        out = []
        i = 0
        quote = None
        while i < len(line):
            c = line[i]
            if in_block:
                if line.startswith("*/", i):
                    in_block = False
                    out.append("  ")
                    i += 2
                    continue
                out.append(" ")
            elif quote:
                if c == "\\":
                    out.append("  ")
                    i += 2
                    continue
                out.append(quote if c == quote else " ")
                if c == quote:
                    quote = None
            elif line.startswith("//", i):
                break
            elif line.startswith("/*", i):
                in_block = True
                out.append("  ")
                i += 2
                continue
            elif c in "\"'":
                quote = c
                out.append(c)
            else:
                out.append(c)
            i += 1
        masked.append("".join(out).ljust(len(line)))
    return masked


def matching_paren(text, open_at):
    depth = 0
    for i in range(open_at, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def line_mutations(line, code):
    """(operator, replacement line) for every mutation of one source line."""
    stripped = code.strip()
    if not stripped or stripped.startswith("#") or "static_assert" in code:
        return []
    found = []
    for name, pattern, table in OPERATORS:
        for m in pattern.finditer(code):
            found.append((name, line[:m.start()] + table[m.group(1)] + line[m.end():]))
    for m in OFF_BY_ONE.finditer(code):
        found.append(("off-by-one", line[:m.start()] + line[m.end():]))
    for m in INTEGER.finditer(code):
        value = int(m.group(1))
        if code[:m.start()].rstrip().endswith(("[", "<")) and "]" in code[m.end():]:
            continue  # array and template sizes: mostly a compile error or no change at all
        new = "1" if value == 0 else "0" if value == 1 else str(value + 1)
        found.append(("constant", line[:m.start()] + new + line[m.end():]))
    for m in WORDS.finditer(code):
        kind = "boolean" if m.group(1) in ("true", "false") else "status"
        found.append((kind, line[:m.start()] + SWAPS[m.group(1)] + line[m.end():]))
    for m in CONDITION.finditer(code):
        open_at = m.end() - 1
        close_at = matching_paren(code, open_at)
        if close_at > 0:
            found.append(("condition", line[:open_at + 1] + "!(" + line[open_at + 1:close_at] +
                          ")" + line[close_at:]))
    m = CALL_RESULT.match(code)
    if m and not re.match(r"\s*(return|const|auto|int|unsigned|char|bool)\b", code):
        found.append(("ignore-result", line[:m.start(2)] + "(void)" + line[m.start(3):]))
    return found


def source_files(root):
    files = []
    for base, _, names in os.walk(os.path.join(root, "src")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                files.append(os.path.relpath(os.path.join(base, name), root))
    return sorted(files)


def mutant_id(path, text, twin, op, nth):
    key = "\0".join([path, text.strip(), str(twin), op, str(nth)])
    return hashlib.sha1(key.encode()).hexdigest()[:12]


def enumerate_mutants(root, only=None):
    mutants = []
    for path in source_files(root):
        if only and path != only:
            continue
        with open(os.path.join(root, path), encoding="utf-8") as f:
            lines = f.read().split("\n")
        twins = {}  # earlier lines of the same text, so that each mutant has its own name
        for number, (line, code) in enumerate(zip(lines, code_mask(lines)), start=1):
            twin = twins.get(line.strip(), 0)
            twins[line.strip()] = twin + 1
            seen = {}
            for op, mutated in line_mutations(line, code):
                nth = seen.get(op, 0)
                seen[op] = nth + 1
                mutants.append({"id": mutant_id(path, line, twin, op, nth), "file": path,
                                "line": number, "op": op, "nth": nth,
                                "original": line.strip(), "mutated": mutated.strip()})
    return mutants


def locate(root, mutant):
    """The (line number, mutated line) of a saved mutant in this tree, or None."""
    with open(os.path.join(root, mutant["file"]), encoding="utf-8") as f:
        lines = f.read().split("\n")
    masks = code_mask(lines)
    candidates = [i for i, line in enumerate(lines) if line.strip() == mutant["original"]]
    for i in sorted(candidates, key=lambda i: abs(i + 1 - int(mutant["line"]))):
        same = [m for op, m in line_mutations(lines[i], masks[i]) if op == mutant["op"]]
        if int(mutant["nth"]) < len(same):
            return i + 1, same[int(mutant["nth"])]
    return None


FIELDS = ["id", "file", "line", "op", "nth", "status", "detail", "seconds", "original", "mutated"]


def read_tsv(path):
    rows = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            values = line.rstrip("\n").split("\t")
            if values[0] == "id":
                continue
            rows.append(dict(zip(FIELDS, values)))
    return rows


def sync_tree(root, tree):
    """Makes tree a copy of root's files (tracked or not ignored), touching only what differs so
    that the build stays incremental."""
    listed = subprocess.run(["git", "-C", root, "ls-files", "-co", "--exclude-standard"],
                            capture_output=True, text=True, check=True).stdout.split("\n")
    wanted = {p for p in listed if p and os.path.isfile(os.path.join(root, p))}
    for path in wanted:
        source, target = os.path.join(root, path), os.path.join(tree, path)
        with open(source, "rb") as f:
            content = f.read()
        if os.path.exists(target):
            with open(target, "rb") as f:
                if f.read() == content:
                    continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        # A fresh modification time, so that the build notices: an interrupted run can leave a
        # mutated file whose object is newer than the original's own time.
        shutil.copyfile(source, target)
        shutil.copymode(source, target)
    for base, _, names in os.walk(tree):
        for name in names:
            path = os.path.relpath(os.path.join(base, name), tree)
            if path not in wanted:
                os.remove(os.path.join(base, name))


class Worker:
    """A private copy of the tree with its own incremental build."""

    def __init__(self, root, directory, timeout):
        self.tree = os.path.join(directory, "tree")
        self.build = os.path.join(directory, "build")
        self.timeout = timeout
        sync_tree(root, self.tree)
        configure = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
                     "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -g0",
                     "-DCMAKE_C_FLAGS_DEBUG=-O0 -g0", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                     "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]
        subprocess.run(configure, check=True, stdout=subprocess.DEVNULL)
        if not self.compile():
            sys.exit("the unmutated tree does not build in " + self.build)
        start = time.time()
        status, detail = self.run_suite(timeout=None)
        if status != "survived":
            sys.exit("the suite fails on the unmutated tree: " + detail)
        self.suite_seconds = time.time() - start

    def compile(self):
        return subprocess.run(["ninja", "-C", self.build], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0

    def programs(self):
        return [os.path.join(self.build, p) for p in
                ("tests/analyticsdb_tests", "tests/analyticsdb_fault_tests",
                 "tools/tests/analyticsdb_tool_tests")]

    def run_suite(self, timeout):
        deadline = None if timeout is None else time.time() + timeout
        for program in self.programs():
            left = None if deadline is None else max(1.0, deadline - time.time())
            try:
                done = subprocess.run([program, "--gtest_fail_fast", "--gtest_brief=1"],
                                      cwd=os.path.dirname(program), capture_output=True,
                                      text=True, errors="replace", timeout=left)
            except subprocess.TimeoutExpired:
                return "timeout", os.path.basename(program)
            if done.returncode != 0:
                failed = re.findall(r"\[  FAILED  \] (\S+)", done.stdout)
                return "killed", failed[0] if failed else "%s exit %d" % (
                    os.path.basename(program), done.returncode)
        return "survived", ""

    def try_mutant(self, mutant):
        path = os.path.join(self.tree, mutant["file"])
        place = locate(self.tree, mutant)
        if place is None:
            return "missing", "line not found"
        number, mutated = place
        with open(path, encoding="utf-8") as f:
            original = f.read()
        lines = original.split("\n")
        indent = lines[number - 1][:len(lines[number - 1]) - len(lines[number - 1].lstrip())]
        lines[number - 1] = indent + mutated
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write("\n".join(lines))
            if not self.compile():
                return "uncompilable", ""
            return self.run_suite(self.timeout)
        finally:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original)


def run(mutants, args, header):
    out = open(args.out, "w", encoding="utf-8")
    out.write(header)
    out.write("\t".join(FIELDS) + "\n")
    lock = threading.Lock()
    work = queue.Queue()
    for m in sorted(mutants, key=lambda m: (m["file"], int(m["line"]), m["op"], int(m["nth"]))):
        work.put(m)
    counts = {}
    started = time.time()

    failures = []

    def serve(index):
        try:
            worker = Worker(ROOT, os.path.join(args.workdir, "w%d" % index), args.timeout)
        except SystemExit as stop:  # in a thread it would end only the thread, silently
            with lock:
                failures.append(str(stop))
            return
        while True:
            try:
                m = work.get_nowait()
            except queue.Empty:
                return
            start = time.time()
            status, detail = worker.try_mutant(m)
            row = dict(m, status=status, detail=detail, seconds="%.1f" % (time.time() - start))
            with lock:
                counts[status] = counts.get(status, 0) + 1
                out.write("\t".join(str(row[k]) for k in FIELDS) + "\n")
                out.flush()
                done = sum(counts.values())
                print("[%d/%d %ds] %s %s:%s %s: %s %s" % (
                    done, len(mutants), time.time() - started, status, m["file"], m["line"],
                    m["op"], m["mutated"][:70], detail), flush=True)

    threads = [threading.Thread(target=serve, args=(i,)) for i in range(args.jobs)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    out.close()
    if failures:
        sys.exit("\n".join(sorted(set(failures))))
    report(read_tsv(args.out))


def report(rows):
    counts = {}
    for r in rows:
        counts[r["status"]] = counts.get(r["status"], 0) + 1
    killed = counts.get("killed", 0) + counts.get("timeout", 0)
    scored = killed + counts.get("survived", 0)
    print("\n" + ", ".join("%s %d" % kv for kv in sorted(counts.items())))
    if scored:
        print("score: %d of %d killed, %.1f %%" % (killed, scored, 100.0 * killed / scored))
    for r in rows:
        if r["status"] == "survived":
            print("survivor %s %s:%s %s\n    - %s\n    + %s" % (
                r["id"], r["file"], r["line"], r["op"], r["original"], r["mutated"]))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    pick = parser.add_mutually_exclusive_group(required=True)
    pick.add_argument("--sample", type=int, metavar="COUNT", help="a random sample of COUNT")
    pick.add_argument("--file", help="every mutant of one file, e.g. src/db_queue.cpp")
    pick.add_argument("--replay", metavar="TSV", help="the mutants of an earlier run's file")
    pick.add_argument("--list", action="store_true", help="count the mutants per file and stop")
    pick.add_argument("--report", metavar="TSV", help="print the score and survivors of a run")
    parser.add_argument("--seed", type=int, default=1, help="seed of --sample (default 1)")
    parser.add_argument("--jobs", type=int, default=2, help="parallel builds (default 2)")
    parser.add_argument("--timeout", type=float, default=180,
                        help="seconds the suite may take for one mutant (default 180)")
    parser.add_argument("--out", default="mutation-results.tsv", help="where results go")
    parser.add_argument("--workdir", default=os.path.join(ROOT, "build-mutate"),
                        help="the private trees and builds (default build-mutate)")
    args = parser.parse_args()

    if args.report:
        report(read_tsv(args.report))
        return
    everything = enumerate_mutants(ROOT)
    if args.list:
        per = {}
        for m in everything:
            per[m["file"]] = per.get(m["file"], 0) + 1
        for path, n in sorted(per.items()):
            print("%5d %s" % (n, path))
        print("%5d in all" % len(everything))
        return
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"],
                            capture_output=True, text=True).stdout.strip()
    if args.sample:
        chosen = random.Random(args.seed).sample(everything, min(args.sample, len(everything)))
        how = "--sample %d --seed %d (of %d mutants)" % (args.sample, args.seed, len(everything))
    elif args.file:
        chosen = [m for m in everything if m["file"] == args.file]
        how = "--file " + args.file
    else:
        chosen = read_tsv(args.replay)
        how = "--replay " + args.replay
    header = "# scripts/mutate.sh %s on %s, %s\n" % (how, commit, time.strftime("%Y-%m-%d"))
    os.makedirs(args.workdir, exist_ok=True)
    run(chosen, args, header)


if __name__ == "__main__":
    main()
