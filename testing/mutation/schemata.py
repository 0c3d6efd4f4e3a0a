"""Writes a source file that holds many of its mutants at once, each switched on by its number (mutant_switch.h).

Where none is on, the file does what the original does, and its lines have the same numbers.
"""

from mutants import on_one_line


class Group:
    """The mutants that are written around the same piece of text."""

    def __init__(self, form, start, end):
        self.form, self.start, self.end = form, start, end
        self.mutants, self.inside, self.afterwards = [], [], []


def groups_of(mutants):
    """The groups as a forest: each lies within its parent, and none overlaps another in part."""
    groups = {}

    def group(form, start, end):
        return groups.setdefault((start, end, form), Group(form, start, end))

    for mutant in mutants:
        if mutant.form in ("expression", "condition"):
            group("expression", mutant.start, mutant.end).mutants.append(mutant)
        elif mutant.form in ("statement", "leave"):
            group("statement", mutant.start, mutant.end).mutants.append(mutant)
        elif mutant.form == "swap":
            first, second = mutant.edits
            group("statement", *first[:2]).mutants.append(mutant)
            group("statement", *second[:2]).afterwards.append(mutant)
        elif mutant.form == "rethrow":
            group("rethrow", mutant.start, mutant.end).mutants.append(mutant)
    roots, open_ = [], []
    order = {"statement": 0, "expression": 1, "rethrow": 2}
    for each in sorted(groups.values(), key=lambda g: (g.start, -g.end, order[g.form])):
        while open_ and open_[-1].end <= each.start and not (each.start == each.end == open_[-1].end):
            open_.pop()
        if open_ and each.end > open_[-1].end:
            continue # crosses another one: its mutants are missing in the file, and are made on their own
        (open_[-1].inside if open_ else roots).append(each)
        if each.form != "rethrow":
            open_.append(each)
    return roots


class Writer:
    def __init__(self, text):
        self.text = text
        self.out, self.length = [], 0
        self.regions = []   # (start, end, mutants) in what is written, inner ones first
        self.written = set()

    def put(self, text):
        self.out.append(text)
        self.length += len(text)

    def between(self, start, end, groups):
        at = start
        for group in groups:
            self.put(self.text[at:group.start])
            self.group(group)
            at = group.end
        self.put(self.text[at:end])

    def group(self, group):
        begin = self.length
        getattr(self, group.form)(group)
        members = group.mutants + group.afterwards
        self.regions.append((begin, self.length, members))
        self.written.update(id(mutant) for mutant in members)

    def alternative(self, mutant, text):
        begin = self.length
        self.put(text)
        self.regions.append((begin, self.length, [mutant]))

    def expression(self, group):
        self.put("(")
        for mutant in group.mutants:
            self.alternative(mutant, f"mutant_({mutant.number}) ? ({on_one_line(mutant.edits[0][2])}) : ")
        self.put("static_cast<bool>(" if any(m.form == "condition" for m in group.mutants) else "(")
        self.between(group.start, group.end, group.inside)
        self.put("))")

    def statement(self, group):
        self.put("{ ")
        for mutant in group.mutants:
            if mutant.form == "statement":
                self.alternative(mutant, f"if (mutant_({mutant.number})) {{ {on_one_line(mutant.edits[0][2])} }} ")
        left_out = [f"mutant_({mutant.number})" for mutant in group.mutants if mutant.form in ("leave", "swap")]
        if left_out:
            self.put(f"if (!({' || '.join(left_out)})) {{ ")
        self.between(group.start, group.end, group.inside)
        if left_out:
            self.put(" }")
        for mutant in group.afterwards:
            self.alternative(mutant, f" if (mutant_({mutant.number})) {{ {on_one_line(mutant.edits[1][2])} }}")
        self.put(" }")

    def rethrow(self, group):
        for mutant in group.mutants:
            self.alternative(mutant, f" if (mutant_({mutant.number})) throw;")


def write(text, mutants):
    """(the file's text with those mutants in it, regions, the mutants that it has no room for)"""
    writer = Writer(text)
    writer.between(0, len(text), groups_of(mutants))
    out = "".join(writer.out)
    missing = [mutant for mutant in mutants if id(mutant) not in writer.written]
    return out, writer.regions, missing


def blamed(out, regions, line, column):
    """The mutants that an error at a place of the written file comes from: those of the smallest region around it."""
    at = 0
    for _ in range(line - 1):
        at = out.index("\n", at) + 1
    at += column - 1
    around = [region for region in regions if region[0] <= at < region[1]]
    if not around:
        begin = out.rfind("\n", 0, at) + 1
        end = out.find("\n", at)
        around = [region for region in regions if region[0] < end and begin < region[1]]
        return [mutant for region in around for mutant in region[2]]
    return min(around, key=lambda region: region[1] - region[0])[2]
