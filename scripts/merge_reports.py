#!/usr/bin/env python3
"""Merges the --report documents of the shards of one tree (vertexmill --shard K/N) into one.

Usage: scripts/merge_reports.py OUT.json SHARD1.json SHARD2.json ...

The models of all shards are listed in the order of their source paths (a shard's walk order
cannot be interleaved with another's), and the totals are summed again. The documents must come
from the same tool version; the merged document is written whole (a temporary file renamed
over OUT.json).
"""
import json
import os
import sys

TOTALS = ("vertices", "triangles", "rawBytes", "storedBytes", "outputBytes")


def main(argv):
    if len(argv) < 3:
        sys.stderr.write(__doc__)
        return 1
    out, inputs = argv[1], argv[2:]
    documents = []
    for path in inputs:
        try:
            with open(path, encoding="utf-8") as stream:
                document = json.load(stream)
        except (OSError, ValueError) as error:
            sys.stderr.write(f"ERROR: cannot read report '{path}': {error}\n")
            return 2
        if document.get("schema") != "vertexmill-report":
            sys.stderr.write(f"ERROR: '{path}' is not a vertexmill report\n")
            return 2
        documents.append(document)
    if len({json.dumps(d["tool"], sort_keys=True) for d in documents}) != 1 or len(
            {d["schemaVersion"] for d in documents}) != 1:
        sys.stderr.write("ERROR: the reports come from different tool versions\n")
        return 2

    models = sorted((m for d in documents for m in d["models"]), key=lambda m: m["source"])
    totals = {"models": len(models),
              "converted": sum(m["status"] == "converted" for m in models),
              "convertedWithErrors": sum(m["status"] == "converted-with-errors" for m in models),
              "failed": sum(m["status"] == "failed" for m in models),
              "upToDate": sum(m["status"] == "up-to-date" for m in models)}
    for key in TOTALS:
        totals[key] = sum(m["totals"][key] for m in models)
    totals["seconds"] = sum(m["seconds"] for m in models)
    merged = {"schema": documents[0]["schema"], "schemaVersion": documents[0]["schemaVersion"],
              "tool": documents[0]["tool"], "models": models, "totals": totals}

    temporary = f"{out}.{os.getpid()}.tmp"
    try:
        with open(temporary, "w", encoding="utf-8") as stream:
            json.dump(merged, stream, indent=2, ensure_ascii=False)
            stream.write("\n")
        os.replace(temporary, out)
    except OSError as error:
        if os.path.exists(temporary):
            os.remove(temporary)
        sys.stderr.write(f"ERROR: cannot write report '{out}': {error}\n")
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
