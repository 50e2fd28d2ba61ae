"""What the substitutes were called with (tests/winehost/library/journal.h)."""

import json


class Journal:
    """The lines of the journal file, in the order in which they were written."""

    def __init__(self, path):
        self.path = path

    def entries(self):
        if not self.path.exists():
            return []
        # The last line may still be on its way.
        whole = self.path.read_text(encoding="utf-8", errors="replace").rpartition("\n")[0]
        return [json.loads(line) for line in whole.splitlines()]

    def calls(self, name, **fields):
        """The calls of a function, or those with these arguments (hyphens are underscores here)."""
        wanted = {"call": name} | {key.replace("_", "-"): value for key, value in fields.items()}
        return [entry for entry in self.entries() if wanted.items() <= entry.items()]

    def misuse(self):
        """Rules that were broken: a packet released twice, a call after the end of a session …"""
        return [entry for entry in self.entries() if "misuse" in entry]
