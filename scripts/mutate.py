#!/usr/bin/env python3
"""Seeds single-line faults into the core and counts how many the Linux suite catches.

Each fault changes one line of ribbon/, tracing/, accessibility/, pictures/ or platform/: a
comparison flipped, a constant moved by one, a truth value or a logical operator swapped, or a
statement deleted. The linux preset's test binary is rebuilt, ctest runs, and the file is put back
whatever happens. A fault that does not compile is replaced by another and not counted.

    scripts/mutate.py [--count N] [--seed S] [--headers]
"""
import argparse
import pathlib
import random
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDERS = ["ribbon", "tracing", "accessibility", "pictures", "platform"]

# (pattern, replacement) pairs tried on a line; each yields one candidate fault per match.
OPERATORS = [
    (r"==", "!="), (r"!=", "=="), (r"(?<![<>=-])<=", ">"), (r"(?<![<>=-])>=", "<"),
    (r"(?<![<>=-])<(?![<=])(?=\s)", ">="), (r"(?<=\s)>(?![>=])", "<="),
    (r"&&", "||"), (r"\|\|", "&&"), (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\bkTrue\b", "kFalse"), (r"\bkFalse\b", "kTrue"), (r"\+\+", "--"),
    (r"(?<![\w.])(\d+)(?![\w.'])", None),  # a decimal constant plus one
]


def candidates(suffixes):
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix not in suffixes:
                continue
            lines = path.read_text().split("\n")
            in_comment = False
            for number, line in enumerate(lines):
                code = line.strip()
                if code.startswith("/*"):
                    in_comment = "*/" not in code
                    continue
                if in_comment:
                    in_comment = "*/" not in code
                    continue
                if not code or code.startswith(("//", "#", "static_assert")):
                    continue
                if re.search(r'"[^"]*"', code):
                    stripped = re.sub(r'"(?:\\.|[^"\\])*"', '""', code)
                else:
                    stripped = code
                for pattern, replacement in OPERATORS:
                    for match in re.finditer(pattern, stripped):
                        if match.group(0) not in code:
                            continue
                        yield (path, number, pattern, replacement, match.start())
                # A whole statement on one line, not a declaration's only line.
                if code.endswith(";") and not code.startswith(("return", "using", "namespace",
                                                                "}", "case", "default")) \
                        and "(" in code and "=" not in code.split("(")[0]:
                    yield (path, number, "delete", None, 0)


def apply(lines, fault):
    path, number, pattern, replacement, start = fault
    line = lines[number]
    if pattern == "delete":
        return line[: len(line) - len(line.lstrip())] + ";  // deleted"
    indent = len(line) - len(line.lstrip())
    code = line.strip()
    # Find the same match in the original text (strings stripped only for searching).
    matches = list(re.finditer(pattern, code))
    match = next((m for m in matches if m.start() >= start), None)
    if match is None:
        return None
    new = str(int(match.group(0)) + 1) if replacement is None else replacement
    return line[:indent] + code[: match.start()] + new + code[match.end():]


def run(command, timeout):
    try:
        return subprocess.run(command, cwd=ROOT, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def build():
    return run(["cmake", "--build", "--preset", "linux", "-j2", "--target", "tabforge_tests",
                "tabforge"], 900)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--headers", action="store_true",
                        help="fault headers too (each rebuilds much more)")
    args = parser.parse_args()
    rng = random.Random(args.seed)
    pool = list(candidates((".cpp", ".h") if args.headers else (".cpp",)))
    rng.shuffle(pool)
    if build() != 0:
        sys.exit("the unchanged tree does not build")
    caught, tried, missed = 0, 0, []
    for fault in pool:
        if tried == args.count:
            break
        path = fault[0]
        original = path.read_text()
        lines = original.split("\n")
        changed = apply(lines, fault)
        if changed is None or changed == lines[fault[1]]:
            continue
        lines[fault[1]] = changed
        try:
            path.write_text("\n".join(lines))
            if build() != 0:
                continue
            tried += 1
            result = run(["ctest", "--preset", "linux", "--stop-on-failure"], 900)
            where = f"{path.relative_to(ROOT)}:{fault[1] + 1}: {changed.strip()}"
            if result != 0:
                caught += 1
                print(f"caught  {where}", flush=True)
            else:
                missed.append(where)
                print(f"MISSED  {where}", flush=True)
        finally:
            path.write_text(original)
    build()
    print(f"caught {caught} of {tried} ({100 * caught // max(tried, 1)}%)")


if __name__ == "__main__":
    main()
