#!/usr/bin/env python3
"""Writes docs/operations.md from the operation lists of Imaging.

The lists are include/kestrelyn/ops/*.inc, in the order of ops/all.inc. Each
operation is a line KY_OP(result, Name, (parameters), (arguments)) with its
one-line contract on a "///" line directly above it; "//" comment lines are
notes that head the operations after them.

usage: gen_operations.py [--root REPO]              write docs/operations.md
       gen_operations.py --check [--root REPO]      exit 1 when it is not current
       gen_operations.py --self-test [--root REPO]  prove, on a copy of the lists, that
                                                    the check refuses a missing contract,
                                                    a hand edit and misordered arguments
"""
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile

ALL_LIST = os.path.join("include", "kestrelyn", "ops", "all.inc")
INCLUDE_DIR = "include"
DOC = os.path.join("docs", "operations.md")
FAMILY_INCLUDE = re.compile(r'^\s*#\s*include\s+"(kestrelyn/ops/([A-Za-z0-9_]+)\.inc)"')
# The first comment of every list names its family; the document says that itself.
FAMILY_BANNER = re.compile(r"^Imaging operations: .* family\b")
REGENERATE = "/usr/bin/python3 tools/gen_operations.py"


class ListError(Exception):
    pass


class Operation:
    def __init__(self, result, name, params, contract, where):
        self.result = result
        self.name = name
        self.params = params
        self.contract = contract
        self.where = where

    def signature(self):
        return f"{self.result} {self.name}({', '.join(render_param(p) for p in self.params)})"


def split_top_level(text, where):
    """Splits at the commas that are outside brackets and string literals."""
    parts, depth, current, quote, i = [], 0, [], None, 0
    while i < len(text):
        c = text[i]
        current.append(c)
        if quote:
            if c == "\\" and i + 1 < len(text):
                current.append(text[i + 1])
                i += 1
            elif c == quote:
                quote = None
        elif c in "\"'":
            quote = c
        elif c in "([{<":
            depth += 1
        elif c in ")]}>":
            depth -= 1
            if depth < 0:
                raise ListError(f"{where}: unbalanced '{c}'")
        elif c == "," and depth == 0:
            current.pop()
            parts.append("".join(current).strip())
            current = []
        i += 1
    if quote or depth != 0:
        raise ListError(f"{where}: unbalanced brackets or quotes")
    last = "".join(current).strip()
    if last or parts:
        parts.append(last)
    return parts


def unwrap(text, where, what):
    text = text.strip()
    if not (text.startswith("(") and text.endswith(")")):
        raise ListError(f"{where}: the {what} of KY_OP must be in parentheses")
    return text[1:-1]


def macro_call(text, name):
    """(inside, rest) of text that starts with name(...), brackets balanced."""
    head = text[len(name):].lstrip()
    if not text.startswith(name) or not head.startswith("("):
        return None
    depth, quote = 0, None
    for i, c in enumerate(head):
        if quote:
            if c == quote and head[i - 1] != "\\":
                quote = None
        elif c in "\"'":
            quote = c
        elif c == "(":
            depth += 1
        elif c == ")":
            depth -= 1
            if depth == 0:
                return head[1:i], head[i + 1:]
    return None


def render_param(param):
    """'std::int32_t n KY_DEFAULT(75)' -> 'std::int32_t n = 75'."""
    at = param.find("KY_DEFAULT")
    if at < 0:
        return " ".join(param.split())
    call = macro_call(param[at:], "KY_DEFAULT")
    if call is None:
        return " ".join(param.split())
    value, rest = call
    return " ".join(param[:at].split()) + " = " + value.strip() + rest


def param_name(param):
    declared = param.split("KY_DEFAULT", 1)[0]
    m = re.search(r"([A-Za-z_][A-Za-z0-9_]*)\s*$", declared)
    return m.group(1) if m else ""


def parse_operation(text, contract, where):
    call = macro_call(text.strip(), "KY_OP")
    if call is None or call[1].strip():
        raise ListError(f"{where}: cannot read KY_OP")
    fields = split_top_level(call[0], where)
    if len(fields) != 4:
        raise ListError(f"{where}: KY_OP needs 4 fields (result, name, parameters, arguments)")
    result, name, params, args = fields
    params = split_top_level(unwrap(params, where, "parameters"), where)
    args = split_top_level(unwrap(args, where, "arguments"), where)
    op = Operation(" ".join(result.split()), name.strip(), params, contract, where)
    if not re.fullmatch(r"[A-Za-z_][A-Za-z0-9_]*", op.name):
        raise ListError(f"{where}: '{op.name}' is not an operation name")
    # The forwarding passes the arguments as listed: they must be the
    # parameters, in order, or an operation forwards the wrong values.
    names = [param_name(p) for p in params]
    if [a.strip() for a in args] != names:
        raise ListError(f"{where}: {op.name} forwards ({', '.join(args)}) "
                        f"but declares ({', '.join(names)})")
    return op


def parse_family(path, rel):
    """[(notes, [Operation])] of one list, and the problems found in it."""
    groups, problems = [], []
    notes, paragraph = [], []
    pending, pending_where = None, None
    text, text_where = None, None

    def close_notes():
        if paragraph:
            notes.append(" ".join(paragraph))
            paragraph.clear()

    def orphan_contract():
        nonlocal pending
        if pending is not None:
            problems.append(f"{pending_where}: '///' contract line is not directly above a KY_OP "
                            "(a contract is one line)")
            pending = None

    with open(path, encoding="utf-8") as lines:
        for number, raw in enumerate(lines, 1):
            line = raw.strip()
            where = f"{rel}:{number}"
            # A KY_OP may run over several lines until its brackets close.
            if text is not None:
                text += " " + line
                if macro_call(text, "KY_OP") is None:
                    continue
                line, where, text = text, text_where, None
            elif line.startswith("KY_OP") and macro_call(line, "KY_OP") is None:
                text, text_where = line, where
                continue
            if line.startswith("KY_OP"):
                if pending is None:
                    problems.append(f"{where}: KY_OP without a '///' contract line above it")
                try:
                    op = parse_operation(line, pending or "", where)
                except ListError as error:
                    problems.append(str(error))
                    op = None
                pending = None
                close_notes()
                if notes or not groups:
                    groups.append((list(notes), []))
                    notes.clear()
                if op:
                    groups[-1][1].append(op)
            elif line.startswith("///"):
                orphan_contract()
                pending, pending_where = line[3:].strip(), where
                if not pending:
                    problems.append(f"{where}: empty '///' contract line")
                    pending = ""
            elif line.startswith("//"):
                orphan_contract()
                note = line[2:].strip()
                if FAMILY_BANNER.match(note):
                    continue
                if note:
                    paragraph.append(note)
                else:
                    close_notes()
            elif not line:
                orphan_contract()
                close_notes()
            else:
                problems.append(f"{where}: unexpected line (only KY_OP, '///' and '//' lines)")
    if text is not None:
        problems.append(f"{text_where}: KY_OP is not closed")
    orphan_contract()
    close_notes()
    if notes:
        groups.append((list(notes), []))
    return groups, problems


def read_lists(root):
    """[(family, list path, groups)] in the order of all.inc, and the problems."""
    families, problems = [], []
    all_path = os.path.join(root, ALL_LIST)
    with open(all_path, encoding="utf-8") as lines:
        for raw in lines:
            m = FAMILY_INCLUDE.match(raw)
            if not m:
                continue
            rel = os.path.join(INCLUDE_DIR, m.group(1)).replace(os.sep, "/")
            groups, found = parse_family(os.path.join(root, rel), rel)
            families.append((m.group(2), rel, groups))
            problems.extend(found)
    if not families:
        problems.append(f"{ALL_LIST}: no operation list is included")
    seen = {}
    for _, _, groups in families:
        for _, ops in groups:
            for op in ops:
                if op.name in seen:
                    problems.append(f"{op.where}: {op.name} is also declared at {seen[op.name]}")
                seen.setdefault(op.name, op.where)
    return families, problems


def cell(text):
    """Plain text in a table or a paragraph: a "*" would start emphasis."""
    return text.replace("\\", "\\\\").replace("|", "\\|").replace("*", "\\*")


def code(text):
    return "`" + text.replace("|", "\\|") + "`"


def title(family):
    return family[:1].upper() + family[1:]


def render(families):
    total = sum(len(ops) for _, _, groups in families for _, ops in groups)
    out = [
        "# Imaging operations",
        "",
        "Every public operation of `kestrelyn::Imaging`, family by family, with its",
        "signature and its contract.",
        "",
        "This file is generated by `tools/gen_operations.py` from the operation lists",
        "`include/kestrelyn/ops/*.inc` (the `///` line above each `KY_OP` is its",
        "contract). Do not edit it by hand: change the lists, then run",
        "",
        f"    {REGENERATE}",
        "",
        "from the repository root. The test `operations_doc_current` runs the script",
        "with `--check` and fails while this file is out of date or an operation has",
        "no contract.",
        "",
        "Reading the contracts: statuses are the numbers of `KestrelynStatus`",
        "(`include/kestrelyn/KestrelynStatus.h`). `GetStat` returns the last one",
        "stored, and an operation that returns a status also stores it",
        "(`ForceImageValidation` excepted). The native image is the image that",
        "operations without an image id act on; an image id of 0 means it where a",
        "contract says so. Anything thrown inside an operation becomes status 3 when",
        "memory ran out, else 1.",
        "",
        f"{total} operations:",
        "",
    ]
    for family, rel, groups in families:
        count = sum(len(ops) for _, ops in groups)
        out.append(f"- [{title(family)}](#{family.lower()}) ({count})")
    for family, rel, groups in families:
        out += ["", f"## {title(family)}", "", f"From `{rel}`."]
        for notes, ops in groups:
            for note in notes:
                out += ["", cell(note)]
            if not ops:
                continue
            out += ["", "| Operation | Signature | Contract |", "|---|---|---|"]
            for op in ops:
                out.append(f"| {code(op.name)} | {code(op.signature())} | {cell(op.contract)} |")
    return "\n".join(out) + "\n"


def differences(old, new):
    diff = difflib.unified_diff(old.splitlines(), new.splitlines(), DOC + " (checked in)",
                                DOC + " (from the lists)", n=0, lineterm="")
    return [line for line in diff]


def check(root):
    families, problems = read_lists(root)
    doc_path = os.path.join(root, DOC)
    current = None
    if os.path.exists(doc_path):
        with open(doc_path, encoding="utf-8") as doc:
            current = doc.read()
    for problem in problems:
        print(problem)
    if current is None:
        print(f"{DOC} is missing. Run {REGENERATE} and commit it.")
        return 1
    changed = differences(current, render(families))
    if changed:
        print(f"{DOC} is not current with the operation lists. Lines that differ:")
        shown = changed[:40]
        print("\n".join(shown))
        if len(changed) > len(shown):
            print(f"... and {len(changed) - len(shown)} more")
        print(f"Do not edit {DOC} by hand: change include/kestrelyn/ops/*.inc, "
              f"then run {REGENERATE} and commit the result.")
    if problems:
        print(f"{len(problems)} problem(s) in the operation lists: each KY_OP needs one "
              "'///' contract line directly above it.")
    return 1 if problems or changed else 0


def write(root):
    families, problems = read_lists(root)
    for problem in problems:
        print(problem)
    with open(os.path.join(root, DOC), "w", encoding="utf-8") as doc:
        doc.write(render(families))
    print(f"wrote {DOC}: {sum(len(o) for _, _, g in families for _, o in g)} operations")
    return 1 if problems else 0


def self_test(root):
    """Runs the check on a copy of the lists and a fresh document, spoiled on purpose."""
    failures = []

    def run(where):
        result = subprocess.run([sys.executable, os.path.abspath(__file__), "--check",
                                 "--root", where], capture_output=True, text=True)
        return result.returncode, result.stdout

    def expect(case, where, code_wanted, *needles):
        code_got, output = run(where)
        missing = [n for n in needles if n not in output]
        if code_got != code_wanted or missing:
            failures.append(f"{case}: exit {code_got} (wanted {code_wanted}), "
                            f"missing {missing} in:\n{output}")

    def fresh_copy(base):
        shutil.rmtree(base, ignore_errors=True)
        shutil.copytree(os.path.join(root, "include", "kestrelyn", "ops"),
                        os.path.join(base, "include", "kestrelyn", "ops"))
        os.makedirs(os.path.join(base, "docs"))
        # The document is made afresh, so that the self-test does not hang on
        # whether the checked-in one is current (operations_doc_current tells).
        with open(os.path.join(base, DOC), "w", encoding="utf-8") as doc:
            doc.write(render(read_lists(base)[0]))

    def edit(base, rel, fn):
        path = os.path.join(base, rel)
        with open(path, encoding="utf-8") as f:
            text = f.read()
        with open(path, "w", encoding="utf-8") as f:
            f.write(fn(text))

    facade = os.path.join("include", "kestrelyn", "ops", "facade.inc")
    with tempfile.TemporaryDirectory() as tmp:
        base = os.path.join(tmp, "repo")
        fresh_copy(base)
        expect("the tree as it stands", base, 0)

        # A contract line taken away: named by file and line, even though the
        # document still holds the old text.
        edit(base, facade, lambda t: re.sub(r"^///[^\n]*\n(KY_OP\(double, GetVersion)", r"\1",
                                            t, count=1, flags=re.M))
        expect("removed contract", base, 1, "facade.inc:", "without a '///' contract line")

        fresh_copy(base)
        edit(base, DOC, lambda t: t.replace("the constant 5.9901309", "the constant 6", 1))
        expect("hand edit of the document", base, 1, "is not current", "the constant 5.9901309",
               REGENERATE)

        fresh_copy(base)
        edit(base, facade, lambda t: t.replace("/// Returns the stored status",
                                               "/// Returns the status kept", 1))
        expect("contract changed, document not regenerated", base, 1, "Returns the status kept")
        subprocess.run([sys.executable, os.path.abspath(__file__), "--root", base],
                       capture_output=True)
        expect("regenerated after the change", base, 0)

        fresh_copy(base)
        edit(base, facade, lambda t: t.replace("KY_OP(KestrelynStatus, GetStat, (), ())",
                                               "// a note\nKY_OP(KestrelynStatus, GetStat, (), ())",
                                               1))
        expect("contract separated from its KY_OP", base, 1, "not directly above a KY_OP")

        fresh_copy(base)
        edit(base, facade, lambda t: t.replace("(nX1, nY1, nX2, nY2))", "(nX1, nY2, nX2, nY1))",
                                               1))
        expect("arguments out of order", base, 1, "GetDistance forwards")

    rendered = render_param('const std::string& sTitle KY_DEFAULT("a, (b)")')
    if rendered != 'const std::string& sTitle = "a, (b)"':
        failures.append(f"KY_DEFAULT rendering: {rendered}")
    fields = split_top_level('std::pair<int, int>, Name, (int a KY_DEFAULT(f(1, 2))), (a)', "x")
    if len(fields) != 4 or fields[0] != "std::pair<int, int>":
        failures.append(f"top-level split: {fields}")

    for failure in failures:
        print("self-test: " + failure)
    if not failures:
        print("self-test: missing contracts, hand edits, stale documents, separated contracts "
              "and misordered arguments are refused")
    return 1 if failures else 0


def main(argv):
    mode = "write"
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    args = list(argv)
    while args:
        arg = args.pop(0)
        if arg in ("--check", "--self-test"):
            mode = arg[2:]
        elif arg == "--root" and args:
            root = os.path.abspath(args.pop(0))
        else:
            print(__doc__)
            return 2
    if mode == "check":
        return check(root)
    if mode == "self-test":
        return self_test(root)
    return write(root)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
