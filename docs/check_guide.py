#!/usr/bin/env python3
"""Fails when a code block of guide.md is no longer word for word in the
sample it names, so that the guide follows the samples it quotes."""
import pathlib
import re
import sys

docs = pathlib.Path(__file__).resolve().parent
guide = (docs / "guide.md").read_text()
quote = re.compile(r"```cpp\n(.*?)\n```\n\n\(from \[samples/([\w.]+)\]", re.S)
stale = [name for body, name in quote.findall(guide)
         if body not in (docs / "samples" / name).read_text()]
for name in stale:
    print(f"guide.md quotes samples/{name} as it no longer is", file=sys.stderr)
sys.exit(1 if stale else 0)
