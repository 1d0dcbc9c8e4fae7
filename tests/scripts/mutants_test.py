"""The mutation operators of scripts/mutate: what they must not touch and
what each one makes. A fault here turns into mutants that do not compile (the
score then says nothing) or into faults that are never tried."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts"))
import mutants  # noqa: E402


def changes(text, operator=None):
    return [(m.line, m.original, m.replacement) for m in mutants.generate(text)
            if operator is None or m.operator == operator]


class OperatorTest(unittest.TestCase):
    def test_literals_comments_and_directives_are_left_alone(self):
        text = ('#include <map>\n#define LIMIT 10 + 2\n'
                'const char *s = "a < b && 1";  // x == y - 1\n'
                '/* if (a) f(); */ char c = \'<\';\n')
        self.assertEqual(changes(text), [])

    def test_template_brackets_are_not_comparisons(self):
        text = ('std::map<int, std::vector<int>> m;\n'
                'auto n = static_cast<long>(x);\n'
                'bool b = a < c && d > e;\n')
        self.assertEqual(changes(text, "RelationalOperatorReplacement"),
                         [(3, "<", "<="), (3, "<", ">="), (3, ">", ">="), (3, ">", "<=")])

    def test_only_whole_call_statements_are_removed(self):
        text = ('void f() {\n'
                '    CAutoLock lock(m_Lock);\n'
                '    LUMORA_LOG(EXT_LOG_DEBUG,\n               "two lines");\n'
                '    x = g();\n'
                '    return h();\n'
                '    switch (n) { case 1: m_p->Stop(); break; }\n'
                '    if (ok) ns::Go(1);\n'
                '}\n')
        removed = [m for m in mutants.generate(text) if m.operator == "RemoveCallStatement"]
        self.assertEqual([m.original for m in removed],
                         ['LUMORA_LOG(EXT_LOG_DEBUG,\n               "two lines")', "m_p->Stop()", "ns::Go(1)"])
        for m in removed:
            # __LINE__ of the lines below must not move.
            self.assertEqual(m.apply(text).count("\n"), text.count("\n"))

    def test_constants_and_conditions(self):
        text = ('static_assert(sizeof(int) == 4, "x");\n'
                'int a = 0, b = 1, c = 7, d = 2u, e = 0x10;\n'
                'bool t = true;\n'
                'if (p && q) {}\n'
                'if (n == 1) {}\n'
                'if (const char *v = Get()) {}\n')
        self.assertEqual(changes(text, "ConstantReplacement"),
                         [(2, "0", "1"), (2, "1", "0"), (2, "7", "8"), (2, "7", "6"), (2, "2u", "3u"),
                          (2, "2u", "1u"), (3, "true", "false"), (5, "1", "0")])
        self.assertEqual(changes(text, "NegateCondition"), [(4, "p && q", "!(p && q)")])

    def test_arithmetic_only_between_operands(self):
        text = 'int r = a - b + -1; char *p = q; int s = n * 2; i++;\n'
        self.assertEqual(changes(text, "ArithmeticOperatorReplacement"),
                         [(1, "-", "+"), (1, "+", "-"), (1, "*", "/")])
        self.assertEqual(changes(text, "UpdateOperatorReplacement"), [(1, "++", "--")])

    def test_locations_are_one_based_and_cover_the_original(self):
        text = 'x;\n  if (a < b) {}\n'
        m = next(m for m in mutants.generate(text) if m.replacement == "<=")
        self.assertEqual((m.line, m.column, m.end_line, m.end_column), (2, 9, 2, 10))
        self.assertEqual(text[m.start:m.end], "<")
        self.assertEqual(m.apply(text), 'x;\n  if (a <= b) {}\n')

    def test_changed_lines_of_a_diff(self):
        diff = ('diff --git a/src/A.cpp b/src/A.cpp\n--- a/src/A.cpp\n+++ b/src/A.cpp\n'
                '@@ -3,0 +4,2 @@\n+x\n+y\n@@ -10 +12 @@\n-a\n+b\n'
                'diff --git a/src/B.cpp b/src/B.cpp\n--- a/src/B.cpp\n+++ /dev/null\n@@ -1 +0,0 @@\n-z\n')
        self.assertEqual(mutants.changed_lines(diff), {"src/A.cpp": {4, 5, 12}})


if __name__ == "__main__":
    unittest.main()
