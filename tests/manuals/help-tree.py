"""The shapes of help texts that pages and completions are made from."""
import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
import help_tree  # noqa: E402

TEXT = """Does something.
Usage: fw-some do [OPTIONS] FILE

Positionals:
  FILE REQUIRED               The file

Options:
  -h,--help                   Print this help message and exit
  --signing-key FILE REQUIRED The key
  -o,--output FILE            Where to
  --form FORM                 One of: json, html
  --language LANGUAGE         c++ or c; default: c++
  --key FILE Excludes: --keys
                              Only this
  --keys DIR=/usr/share Excludes: --key
                              These

It has a remark.
Example: fw-some do
"""

SHORT = """Does all.
Usage: fw-some [OPTIONS] SUBCOMMAND
  NAME                Which
  --caller NAME       Who asks
  --progress ndjson   As lines

Subcommands:
  do                  Do it
  do-not              Leave it

Callers, and more:
  one                 the first
  two                 the second
Exit codes:
"""


class HelpTree(unittest.TestCase):
    def setUp(self):
        self.command, _ = help_tree.parse(TEXT, ["fw-some", "do"])
        self.options = {option.names[-1]: option for option in self.command.options}

    def test_reads_summary_and_usage(self):
        self.assertEqual(self.command.summary, "Does something.")
        self.assertEqual(self.command.usage, "fw-some do [OPTIONS] FILE")

    def test_reads_arguments(self):
        [argument] = self.command.arguments
        self.assertEqual((argument.value, argument.summary, argument.required), ("FILE", "The file", True))

    def test_reads_short_and_long_names(self):
        self.assertEqual(self.options["--output"].names, ["-o", "--output"])

    def test_reads_a_declaration_that_touches_its_summary(self):
        key = self.options["--signing-key"]
        self.assertEqual((key.value, key.summary, key.required), ("FILE", "The key", True))

    def test_reads_a_summary_on_the_next_line(self):
        self.assertEqual(self.options["--key"].summary, "Only this")
        self.assertEqual(self.options["--keys"].value, "DIR")

    def test_reads_words_to_choose_from(self):
        self.assertEqual(self.options["--form"].choices, ["json", "html"])
        self.assertEqual(self.options["--language"].choices, ["c++", "c"])
        self.assertEqual(self.options["--output"].choices, [])

    def test_keeps_what_follows(self):
        self.assertEqual(self.command.footer, ["It has a remark.", "Example: fw-some do"])

    def test_reads_commands_and_a_table_of_choices(self):
        command, names = help_tree.parse(SHORT, ["fw-some"])
        choices = {option.names[0]: option.choices for option in command.options}
        self.assertEqual(names, ["do", "do-not"])
        self.assertEqual(choices, {"--caller": ["one", "two"], "--progress": ["ndjson"]})
        self.assertEqual(command.arguments[0].value, "NAME")


unittest.main()
