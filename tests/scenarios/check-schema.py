#!/usr/bin/env python3
"""Checks srte-sim's --json output against the JSON Schema of the state document.

    check-schema.py SCHEMA SRTE_SIM SCENARIO...

Runs `SRTE_SIM --json SCENARIO` for every scenario (from the current directory), validates the
document against SCHEMA (python3-jsonschema, draft 2020-12) and checks that the keys of every
object come in the order the schema lists them (the document promises a fixed order). Prints
each problem with its scenario and JSON path; exit status 1 when there is any.
"""
import json
import subprocess
import sys

import jsonschema


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    schema_file, sim, scenarios = sys.argv[1], sys.argv[2], sys.argv[3:]
    with open(schema_file) as f:
        schema = json.load(f)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    defs = schema["$defs"]

    def resolve(node):
        while "$ref" in node:
            node = defs[node["$ref"].rsplit("/", 1)[1]]
        return node

    # Whether `instance` fits the part `node` of the schema (its references resolved in SCHEMA).
    def fits(node, instance):
        return jsonschema.Draft202012Validator({**node, "$defs": defs}).is_valid(instance)

    # Walks `instance` along `node` and reports objects whose keys are out of the listed order.
    def order(node, instance, path, problems):
        node = resolve(node)
        for alternatives in ("oneOf", "anyOf"):
            if alternatives in node:
                for sub in node[alternatives]:
                    if fits(sub, instance):
                        order(sub, instance, path, problems)
                        break
                return
        if isinstance(instance, dict) and "properties" in node:
            listed = list(node["properties"])
            keys = [k for k in instance if k in listed]
            if keys != sorted(keys, key=listed.index):
                problems.append(f"{path}: keys {keys} are not in the order {listed}")
            for k in keys:
                order(node["properties"][k], instance[k], f"{path}.{k}", problems)
        elif isinstance(instance, list) and "items" in node:
            for j, item in enumerate(instance):
                order(node["items"], item, f"{path}[{j}]", problems)

    # Among the alternatives of a oneOf, the error that got furthest into the document says most.
    def deepest(error):
        if not error.context:
            return error
        return max((deepest(c) for c in error.context), key=lambda e: len(e.absolute_path))

    failed = 0
    for scenario in scenarios:
        run = subprocess.run([sim, "--json", scenario], capture_output=True, text=True)
        if run.returncode not in (0, 1):
            print(f"{scenario}: srte-sim exited {run.returncode}: {run.stderr.strip()}")
            failed += 1
            continue
        document = json.loads(run.stdout)
        problems = []
        for error in validator.iter_errors(document):
            error = deepest(error)
            where = "".join(f"[{p}]" if isinstance(p, int) else f".{p}" for p in error.absolute_path)
            problems.append(f"{where or '.'}: {error.message[:300]}")
        if not problems:
            order(schema, document, "", problems)
        for p in problems[:20]:
            print(f"{scenario}: {p}")
        if problems:
            failed += 1
        else:
            print(f"{scenario}: ok")
    if failed:
        print(f"{failed} of {len(scenarios)} documents do not follow {schema_file}")
        sys.exit(1)


if __name__ == "__main__":
    main()
