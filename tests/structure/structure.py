#!/usr/bin/env python3
"""Checks over the tree and the built library that no compiler makes: structure.py CHECK ARGUMENT...

library SHARED_OBJECT             needs only the C runtime; its soname; every export under the one version node
hardening SHARED_OBJECT ARCHIVE COMMANDS
                                  nothing writable once loaded that need not be, no executable stack, no text relocations; smashed
                                  stacks are noticed (in all that compile_commands.json compiles for the library), and where the
                                  compiler can, jumps land only where one was meant to
exports SHARED_OBJECT INCLUDE...  what is exported is declared in a public header, looked for in the folders INCLUDE, and the reverse
headers SOURCE                    every public header compiles alone as C11 and as C++; every declaration in it is documented
floors SOURCE                     no module includes a higher floor, no includes go in a circle, and ARCHITECTURE.md has a line
                                  for every module
docs SOURCE                       Doxygen has nothing to say against the public headers and the guide, and no page leads to one
                                  that is not there (77 where it is missing)
guide SHARED_OBJECT SOURCE        every page of the guide shows its program as it stands beside it, and what it really prints
names SOURCE                      every name of the library that the guide, README.md and SECURITY.md mention is declared
manual SOURCE PROGRAM...          the manual page of a program tells of the same options as its --help
words SOURCE                      no marks of unfinished work, and no word that leans on a text outside the tree

CC and CXX name the compilers. Prints what is wrong, a line each, and exits 1 if anything is.
"""
import graphlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

NODE = "KESTAL_ULX_0.0.1"
SONAME = "libkestal_ulx.so.0"


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def exported_names(library):
    """The (name, version) pairs of the dynamic symbols defined, but for the version node itself."""
    lines = output_of("nm", "-D", "--defined-only", "--with-symbol-versions", library).splitlines()
    symbols = [line.split()[-1].split("@@") for line in lines]
    return {(symbol[0], symbol[1] if len(symbol) == 2 else None) for symbol in symbols if symbol != [NODE]}


def public_headers(source):
    return [source / "include/kestal_ulx.h", *sorted((source / "include/kestal_ulx").glob("*.h"))]


def declared_names(include_folders):
    """The functions and objects that the preprocessed public header marks as exported."""
    folders = [f"-I{folder}" for folder in include_folders]
    text = subprocess.run([os.environ["CC"], "-std=c11", "-E", "-P", *folders, "-x", "c", "-"], check=True,
                          capture_output=True, text=True, input="#include <kestal_ulx.h>\n").stdout
    mark = r'__attribute__\(\(visibility\("default"\)\)\)'
    return {re.search(r"(\w+)\s*(?:\(|\[|;|$)", re.sub(r"__attribute__\s*\(\(.*?\)\)", "", declaration)).group(1)
            for declaration in re.findall(mark + r"([^;]*)", text)}


def check_library(library):
    dynamic = output_of("readelf", "-dW", library)
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    for name in needed:
        if name != "libc.so.6" and not name.startswith("ld-linux"):
            yield f"needs {name}"
    if f"[{SONAME}]" not in dynamic:
        yield f"soname is not {SONAME}"
    for name, version in sorted(exported_names(library), key=str):
        if version != NODE:
            yield f"{name} is exported under {version}, not {NODE}"


def check_hardening(library, archive, commands):
    segments, dynamic = output_of("readelf", "-lW", library), output_of("readelf", "-dW", library)
    if "GNU_RELRO" not in segments or "NOW" not in dynamic:
        yield "not all relocations are made, and made read-only, at load time"
    if not re.search(r"GNU_STACK .* RW +0x", segments):
        yield "executable stack"
    if re.search(r"LOAD .* RWE ", segments):
        yield "a segment is both writable and executable"
    if "TEXTREL" in dynamic:
        yield "text relocations"
    if "__stack_chk_fail" not in output_of("nm", "-D", "--undefined-only", library):
        yield "no stack protector"
    for command in json.loads(commands.read_text()):
        if "kestal_objects.dir" in command["command"]:
            flags = re.findall(r"-f\S*stack-protector\S*", command["command"])
            if flags[-1:] != ["-fstack-protector-strong"]:
                yield f"no stack protector in {command['file']}"
    if "X86-64" in output_of("readelf", "-hW", library):
        notes = re.split(r"^File: ", output_of("readelf", "-nW", archive), flags=re.MULTILINE)[1:]
        for note in notes:
            if "IBT, SHSTK" not in note:
                yield f"no control-flow protection in {note.splitlines()[0]}"


def check_exports(library, *include_folders):
    exported, declared = {name for name, _ in exported_names(library)}, declared_names(include_folders)
    for name in sorted(exported ^ declared):
        yield f"{name} is {'exported' if name in exported else 'declared'} only"


def check_headers(source):
    strict = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only", "-I", str(source / "include")]
    dialects = [(os.environ["CC"], "c11", "c"), (os.environ["CXX"], "c++11", "c++"), (os.environ["CXX"], "c++20", "c++")]

    def compile_alone(job):
        header, (compiler, standard, language) = job
        name = header.relative_to(source / "include")
        result = subprocess.run([compiler, f"-std={standard}", *strict, "-x", language, "-"], capture_output=True,
                                text=True, input=f"#include <{name}>\n#include <{name}>\n", check=False)
        return f"{name} as {standard}:\n{result.stderr}" if result.returncode != 0 else None

    jobs = [(header, dialect) for header in public_headers(source) for dialect in dialects]
    with ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        yield from filter(None, pool.map(compile_alone, jobs))

    for header in public_headers(source):
        lines = header.read_text().splitlines()
        for number, (before, line) in enumerate(zip(lines, lines[1:]), 2):
            if line.startswith("KESTAL_API") and not before.endswith("*/"):
                yield f"{header.name}:{number}: no comment: {line}"


def floors_of_modules(source):
    text = (source / "cmake/kestal_modules.cmake").read_text()
    return {module: int(floor) for floor, modules in re.findall(r"set\(KESTAL_FLOOR_(\d+)\w* ([^)]*)\)", text)
            for module in modules.split()}


def includes_between_rooms(source):
    """Room -> rooms it includes. A module's header, source and inner header are one room; others are their own."""
    graph = {}
    files = [*public_headers(source)[1:], *(source / "source").glob("*.cpp"), *(source / "source").glob("*.hpp")]
    for file in files:
        included = re.findall(r'^\s*#\s*include\s+(?:<kestal_ulx/(\w+)\.h>|"(\w+)\.hpp")', file.read_text(), re.MULTILINE)
        graph.setdefault(file.stem, set()).update({a or b for a, b in included} - {file.stem})
    return graph


def check_floors(source):
    graph = includes_between_rooms(source)
    try:
        graphlib.TopologicalSorter(graph).prepare()
    except graphlib.CycleError as circle:
        yield "circle: " + " <- ".join(circle.args[1])
        return
    listed = floors_of_modules(source)

    def floor_of(room):
        """A room that is no module (base.h, an inner header) stands as high as the highest that it includes."""
        return listed[room] if room in listed else max(map(floor_of, graph.get(room, ())), default=0)

    for file in (source / "source").glob("*.cpp"):
        if file.stem not in listed:
            yield f"{file.name} stands on no floor of cmake/kestal_modules.cmake"
    described = set(re.findall(r"`(\w+)`", (source / "ARCHITECTURE.md").read_text()))
    for module in sorted(listed.keys() - described):
        yield f"{module} has no line in ARCHITECTURE.md"
    for room in sorted(listed.keys() & graph.keys()):
        for other in sorted(graph[room]):
            if floor_of(other) > listed[room]:
                yield f"{room} (floor {listed[room]}) includes {other} (floor {floor_of(other)})"


def check_docs(source):
    if not shutil.which("doxygen"):
        print("doxygen is missing")
        sys.exit(77)
    with tempfile.TemporaryDirectory() as folder:
        result = subprocess.run(["doxygen", "docs/Doxyfile"], cwd=source, env={**os.environ, "KESTAL_DOCS": folder},
                                stderr=subprocess.PIPE, text=True, check=False)
        yield from result.stderr.splitlines()
        if result.returncode != 0:
            yield f"doxygen ended with {result.returncode}"
        for page in sorted(Path(folder).glob("html/*.html")):
            for target in sorted(set(re.findall(r'(?:href|src)="([^":#]+)["#]', page.read_text()))):
                if not (page.parent / target).exists():
                    yield f"{page.name} leads to {target}, which is not there"


def run_guide_program(library, source, program, folder):
    """What a program of the guide prints, or a text that says why it does not."""
    built = f"{folder}/{program.stem}"
    commands = [[os.environ["CC"], "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-I", source / "include",
                 program, "-o", built, library, f"-Wl,-rpath,{library.parent}"], [built]]
    for command in commands:
        result = subprocess.run([str(part) for part in command], cwd=folder, stdin=subprocess.DEVNULL, timeout=60,
                                capture_output=True, text=True, check=False)
        if result.returncode != 0:
            return f"{Path(command[0]).name} ended with {result.returncode}: {result.stderr}"
    return result.stdout


def check_guide(library, source):
    pages = {page.stem: page for page in (source / "docs/guide").glob("*.md")}
    programs = sorted((source / "docs/guide").glob("*.c"))
    if not programs:
        yield "no program in docs/guide"
    for program in programs:
        page = pages[program.stem].read_text() if program.stem in pages else ""
        if f"```c\n{program.read_text()}```\n" not in page:
            yield f"{program.name}: its page does not show it as it stands"
        with tempfile.TemporaryDirectory() as folder:
            printed = run_guide_program(library, source, program, folder)
        if f"```text\n{printed}```\n" not in page:
            yield f"{program.name}: its page does not show what it prints:\n{printed}"


def check_names(source):
    declared = set()
    for header in public_headers(source):
        declared.update(re.findall(r"\w+", re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.DOTALL)))
    pages = [*(source / "docs").rglob("*.md"), *(source / name for name in ("README.md", "SECURITY.md"))]
    for page in filter(Path.exists, sorted(pages)):
        for name in sorted(set(re.findall(r"\b(?:__)?(?:kestal|KESTAL)_\w+", page.read_text())) - declared):
            if name != "kestal_ulx" and not name.endswith("_"):
                yield f"{page.relative_to(source)}: {name} is declared nowhere"


def check_manual(source, *programs):
    option = re.compile(r"(?<![\w-])--?[a-z46](?:[a-z-]*[a-z])?(?![\w-])")
    for program in programs:
        told = set(option.findall(output_of(program, "--help")))
        page = (source / f"docs/man/{program.name}.1").read_text().replace("\\-", "-")
        options = page.partition(".SH OPTIONS")[2].partition(".SH EXIT STATUS")[0]
        written = set(option.findall("".join(re.findall(r"^\.TP\n(.*)$", options, re.MULTILINE))))
        for name in sorted(told ^ written):
            yield f"{program.name}: {name} is told by {'--help' if name in told else 'the manual page'} only"


def check_words(source):
    marks = r"^(<<<<<<<|>>>>>>>) |\b(TODO|FIXME|XXX|HACK)\b|[Nn]ot (yet )?implemented(?! (!|for type))|WORK IN PROGRESS"
    leaning = r"\b[Pp]art \d+\.\d|\b(as|per|see|the|our) spec(ified|ification)?\b|\bissue #?\d"
    unwanted = re.compile(f"{marks}|{leaning}")
    folders = [".ci", "benchmarks", "cmake", "docs", "examples", "fuzz", "include", "packaging", "script", "source", "tests",
               "tools"]
    files = [file for folder in folders for file in (source / folder).rglob("*")] + list(source.glob("*.*"))
    for file in sorted(files):
        if not file.is_file() or "corpus" in file.parts or file.resolve() == Path(__file__).resolve():
            continue
        for number, line in enumerate(file.read_bytes().decode("utf-8", "replace").splitlines(), 1):
            if found := unwanted.search(line):
                yield f"{file.relative_to(source)}:{number}: {found.group(0)}"


def main():
    check, *arguments = sys.argv[1:]
    problems = list(globals()[f"check_{check}"](*[Path(argument) for argument in arguments]))
    for problem in problems:
        print(problem)
    sys.exit(1 if problems else 0)


main()
