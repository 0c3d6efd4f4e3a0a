"""The mutants of a small program: that each kind is found, and that one file holds them all, off and on."""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import generated
import mutants
import schemata

HERE = pathlib.Path(__file__).resolve().parent
SAMPLE = r"""#include <cstdio>
#include <cstdlib>
#include <string>

#define LOG(X) log_line X
enum Priority { LM_DEBUG, LM_INFO, LM_WARNING, LM_ERROR };
constexpr int LIMIT = 3; // needs a value at compile time
static char room[LIMIT];

void log_line(Priority priority, const char* text, int number) { std::printf("%d %s %d\n", priority, text, number); }
void first() { std::puts("first"); }
void second() { std::puts("second"); }
int smaller(int a, int b) { return a < b ? a : b; }

bool checked(const char* text, int count, int least) {
  if (text == nullptr)
    return false;
  first();
  second();
  LOG((LM_ERROR, "a \"text\" of %d", count + 1)); // 'not this'
  try {
    if (count > 5)
      throw std::string("thrown");
  } catch (const std::string& what) {
    std::puts(what.c_str());
  }
  return smaller(count, least) == least;
}

int main(int argc, char**) {
  std::printf("%d %zu\n", checked("x", argc * 6, 9), sizeof room);
  std::printf("%d\n", checked(argc > 1 ? "y" : nullptr, 1, 2));
}
"""


class Mutants_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = pathlib.Path(cls.folder.name) / "sample.cpp"
        cls.path.write_text(SAMPLE)
        cls.found = mutants.find(cls.path, "sample.cpp", ["-std=c++20"])
        for number, mutant in enumerate(cls.found, 1):
            mutant.number = number

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def one(self, kind, old, change):
        matching = [m for m in self.found if (m.kind, m.old, m.change) == (kind, old, change)]
        self.assertEqual(1, len(matching), f"{kind} {old} {change} of {[vars(m) for m in self.found if m.kind == kind]}")
        return matching[0]

    def build(self, name, text):
        """A program of the text with the switch before it."""
        source, program = (pathlib.Path(self.folder.name) / (name + end) for end in (".cc", ""))
        source.write_text("unsigned mutant_on = 0;\nbool mutants_noted = false;\nvoid note_mutant(unsigned) {}\n"
                          "#include <cstdlib>\n"
                          "static int set_mutant = (mutant_on = std::getenv(\"MUTANT\") ? atoi(std::getenv(\"MUTANT\")) : 0);\n"
                          + text)
        done = subprocess.run(["c++", "-std=c++20", "-w", "-include", str(HERE / "mutant_switch.h"), str(source), "-o",
                               str(program)], capture_output=True, text=True)
        return program if done.returncode == 0 else None, done.stderr

    def run_with(self, program, number):
        return subprocess.run([str(program)], env={"MUTANT": str(number)}, capture_output=True).stdout

    def test_each_kind_is_found(self):
        self.one("statement", "first();", "left out")
        self.one("exchange", "first();", "after second();")
        self.one("condition", "text == nullptr", "false")
        self.one("condition", "a < b", "true")
        self.one("operator", "count > 5", "> becomes >=")
        self.one("operator", "count + 1", "+ becomes -")
        self.one("constant", "5", "5 + 1")
        self.one("constant", "false", "true")
        self.one("text", '"a \\"text\\" of %d"', '"b \\"text\\" of %d"')
        self.one("priority", "LM_ERROR", "LM_WARNING")
        self.one("argument", "count", "least")
        self.one("argument", "what.c_str()", "null")
        self.one("return", "smaller(count, least) == least", "!(smaller(count, least) == least)")
        self.one("catch", "catch (const std::string& what)", "removed")

    def test_place_and_operation_are_named(self):
        mutant = self.one("operator", "count > 5", "> becomes >=")
        self.assertEqual((SAMPLE[:SAMPLE.index("count > 5")].count("\n") + 1, "checked"), (mutant.line, mutant.function))

    def test_same_seed_draws_the_same_and_another_one_others(self):
        drawn = [[m.number for m in generated.order_of("sample.cpp", self.found, seed)] for seed in ("1", "1", "2")]
        self.assertEqual(drawn[0], drawn[1])
        self.assertNotEqual(drawn[0], drawn[2])

    def test_files_share_the_number_by_their_size(self):
        self.assertEqual({"a": 6, "b": 3, "c": 1}, generated.shares({"a": 200, "b": 100, "c": 40}, 10))

    def test_only_what_needs_its_value_at_compile_time_is_built_alone(self):
        self.assertEqual({("3", "3 + 1"), ("3", "3 - 1")}, {(m.old, m.change) for m in self.found if m.form == "own"})

    def test_one_file_holds_them_all_and_does_nothing_new_while_none_is_on(self):
        text, regions, missing = schemata.write(SAMPLE, [m for m in self.found if m.form != "own"])
        self.assertEqual([], missing)
        self.assertEqual(SAMPLE.count("\n"), text.count("\n"), "lines have kept their numbers")
        original, errors = self.build("original", SAMPLE)
        self.assertTrue(original, errors)
        program, errors = self.build("mutated", text)
        self.assertTrue(program, errors)
        self.assertEqual(self.run_with(original, 0), self.run_with(program, 0))
        for mutant in (self.one("statement", "first();", "left out"), self.one("exchange", "first();", "after second();"),
                       self.one("operator", "count + 1", "+ becomes -"), self.one("priority", "LM_ERROR", "LM_WARNING"),
                       self.one("argument", "count", "least"), self.one("catch", "catch (const std::string& what)", "removed")):
            alone, errors = self.build("alone", mutant.apply(SAMPLE))
            self.assertTrue(alone, errors)
            self.assertEqual(self.run_with(alone, 0), self.run_with(program, mutant.number), mutant)
            self.assertNotEqual(self.run_with(original, 0), self.run_with(program, mutant.number), mutant)

    def test_error_is_blamed_on_the_mutant_that_it_lies_in(self):
        some = self.one("operator", "count + 1", "+ becomes -")
        text, regions, _ = schemata.write(SAMPLE, [m for m in self.found if m.form != "own"])
        at = text.index(f"mutant_({some.number})") + 20
        line, column = text.count("\n", 0, at) + 1, at - text.rfind("\n", 0, at)
        self.assertEqual([some], schemata.blamed(text, regions, line, column))

    def test_list_names_what_it_has_and_what_is_gone(self):
        path = pathlib.Path(self.folder.name) / "equivalent.toml"

        def listed(old, change, more=""):
            path.write_text(f'[[equivalent]]\nfile = "sample.cpp"\nin = "checked"\nline = "if (count > 5)"\nold = "{old}"\n'
                            f'change = "{change}"\nreason = "because"\n{more}')
            lines = SAMPLE.splitlines()
            return generated.Equivalent(path).stale({"sample.cpp": self.found}, lambda m: lines[m.line - 1].strip())

        self.assertEqual([], listed("count > 5", "> becomes >="))
        self.assertEqual(1, len(listed("count > 6", "> becomes >=")))
        self.assertEqual(1, len(listed("count > 5", "> becomes >=", "times = 2\n")))


if __name__ == "__main__":
    unittest.main()
