#!/usr/bin/env python3
"""Holds what rvd-report --json prints of real runs against its schema.

    check_schema.py SCHEMA RVD-LAB RVD-REPORT SCENARIOS...
"""
import json
import subprocess
import sys
import tempfile

import jsonschema


def main():
    schema_path, lab, report, *scenarios = sys.argv[1:]
    with open(schema_path, encoding="ascii") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    for scenario in scenarios:
        path, case = scenario.split("#")
        with tempfile.TemporaryDirectory() as root:
            subprocess.run([lab, "run", "--quiet", "--root", root, "--case", case, path],
                           check=True, stdout=subprocess.DEVNULL)
            run = subprocess.run([report, "--json", root], capture_output=True, check=False)
        if run.returncode not in (0, 1):
            sys.exit(f"{scenario}: exit status {run.returncode}: {run.stderr}")
        found = json.loads(run.stdout)
        validator.validate(found)
        if not found["incidents"] or found["anything_lost"] != (run.returncode == 1):
            sys.exit(f"{scenario}: {run.returncode}, {found['anything_lost']}")


if __name__ == "__main__":
    main()
