"""The check of a reader library: see docs/bring-up.md. The rows (rows) run in a process each (row_process),
which makes the library's calls (library). The parent (parent, check) looks at what the process reports and
how it exits, asks the person (person), and saves and restores the reader's configuration.
"""


class Failed(Exception):
    """The library does not behave as the agent expects; the text says how."""


class Skipped(Exception):
    """The row could not be checked; the text says why."""
