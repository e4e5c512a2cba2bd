"""Validates the JSON reports that the command cases kept against their schemas.

    validate_json.py SCHEMAS FOLDER MINIMUM

FOLDER holds one file per --json run, named after the tool (rpm-verify.*, signing-check.*); each is
checked against SCHEMAS/TOOL.schema.json; a run that printed nothing is a problem too (both tools
print a report on every exit status). Exit status 0 when every report is valid and at least MINIMUM
were checked; otherwise each problem is printed and the status is 1.
"""
import json
import os
import sys

import jsonschema

schemas, folder, minimum = sys.argv[1], sys.argv[2], int(sys.argv[3])
checked, problems = 0, []
for name in sorted(os.listdir(folder)):
    text = open(os.path.join(folder, name), encoding="utf-8").read()
    if not text.strip():
        problems.append(f"{name}: no report")
        continue
    tool = name.split(".")[0]
    schema = json.load(open(os.path.join(schemas, tool + ".schema.json"), encoding="utf-8"))
    try:
        jsonschema.validate(json.loads(text), schema, cls=jsonschema.Draft202012Validator)
        checked += 1
    except (ValueError, jsonschema.ValidationError) as error:
        problems.append(f"{name}: {error}\n{text[:2000]}")
for problem in problems:
    print(problem)
if checked < minimum:
    print(f"only {checked} reports were checked, fewer than {minimum}")
sys.exit(1 if problems or checked < minimum else 0)
