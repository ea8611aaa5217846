#!/usr/bin/python3
"""Checks JSON read from standard input against a JSON Schema file.

json_check.py [--lines] SCHEMA: the input is one document, or with --lines
one document per non-empty line. Prints every problem and exits 1 when
there is one, 0 when the input is valid.
"""
import json
import sys

import jsonschema

args = sys.argv[1:]
lines = args[:1] == ["--lines"]
schema = json.load(open(args[-1]))
text = sys.stdin.read()
docs = [l for l in text.splitlines() if l.strip()] if lines else [text]
validator = jsonschema.Draft202012Validator(schema)
problems = []
for n, doc in enumerate(docs, 1):
    try:
        value = json.loads(doc)
    except ValueError as e:
        problems.append(f"document {n}: not JSON: {e}")
        continue
    for error in validator.iter_errors(value):
        where = "/".join(str(p) for p in error.absolute_path)
        problems.append(f"document {n} at /{where}: {error.message}")
print("\n".join(problems))
sys.exit(1 if problems or not docs else 0)
