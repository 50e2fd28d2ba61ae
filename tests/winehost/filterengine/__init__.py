"""The bench's Windows Filtering Platform: keeps filters, judges by them, and has the kernel enforce the judgement."""
