#!/usr/bin/env python3
"""moskgen: turns a model declaration (.mosk) into a C++ header and source.

A declaration names value types, enumerations and entities with their attributes; the
generator spells out the getters, the notifying setters, the collection operations, the
notifiee interface, the factories, the text forms, parsers and hashes. The behaviour behind
them lives in the runtime's templates (runtime/Mosk); the generated code only names things.

Usage: moskgen.py DECL.mosk --header OUT.h --source OUT.gen.cpp --include-name DIR/NAME.h

The declaration language is described in docs/moskgen.md.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys

from model import parse_file, MoskError
from emit import emit_header, emit_source


def clang_format(text, path):
    tool = shutil.which("clang-format") or shutil.which("clang-format-14")
    if tool is None:
        return text
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    style = os.path.join(root, ".clang-format")
    args = [tool, "--assume-filename=" + path]
    if os.path.exists(style):
        args.append("--style=file:" + style)
    try:
        return subprocess.run(args, input=text, capture_output=True, text=True,
                              check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return text


def write_if_changed(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.exists(path):
        with open(path) as f:
            if f.read() == text:
                return
    with open(path, "w") as f:
        f.write(text)


def main(argv):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("decl")
    ap.add_argument("--header", required=True)
    ap.add_argument("--source", required=True)
    ap.add_argument("--include-name", required=True)
    ap.add_argument("--no-format", action="store_true")
    args = ap.parse_args(argv)
    try:
        with open(args.decl) as f:
            text = f.read()
        model = parse_file(text, args.decl)
        header = emit_header(model, args.decl)
        source = emit_source(model, args.decl, args.include_name)
    except MoskError as e:
        print(f"moskgen: {e}", file=sys.stderr)
        return 1
    if not args.no_format:
        header = clang_format(header, args.header)
        source = clang_format(source, args.source)
    write_if_changed(args.header, header)
    write_if_changed(args.source, source)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
