"""The check of a reader library. Each row runs in a process of its own (row_process), which makes the
calls (library) that the row asks for (rows); the parent (parent, check) looks at what comes of it, asks
the person, and keeps and restores the reader's configuration (configuration).
"""


class Failed(Exception):
    """The library does not behave as the agent expects; the text says how."""


class Skipped(Exception):
    """The row could not be checked; the text says why."""
