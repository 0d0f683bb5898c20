#!/usr/bin/env python3
"""Checks that each library folder includes only folders below it. Usage: check_layers.py SRC"""
import os
import re
import sys

# Top to bottom; folders on one row are peers that must not include each other.
LAYERS = [["api"], ["port"], ["link"], ["queues"], ["diag"], ["tables"], ["codec", "platform"]]
RANK = {folder: rank for rank, row in enumerate(LAYERS) for folder in row}
INCLUDE = re.compile(r'#\s*include\s*"([A-Za-z0-9_]+)/')

src = sys.argv[1] if len(sys.argv) > 1 else "."
bad = 0
for folder, rank in RANK.items():
    for root, _, files in os.walk(os.path.join(src, folder)):
        for name in sorted(files):
            if not name.endswith((".cpp", ".h")):
                continue
            path = os.path.join(root, name)
            for number, line in enumerate(open(path, errors="replace"), 1):
                match = INCLUDE.search(line)
                if match and match.group(1) in RANK and match.group(1) != folder and RANK[match.group(1)] <= rank:
                    print(f"{os.path.relpath(path, src)}:{number}: {folder}/ includes {match.group(1)}/, not below it")
                    bad += 1
print(f"layers: {bad} include(s) against the order")
sys.exit(1 if bad else 0)
