#!/usr/bin/python3
"""The README and docs/ name only what exists.

    check_docs.py SOURCE_DIR BUILD_DIR

Checks that the README stays short (at most 260 lines) and reaches every page
of docs/ through its links (directly or from page to page), that every link
between them and every picture points at a file, and that what the pages
name in backticks exists:
  - tools and programs (`tql`, `tql-...`): built into BUILD_DIR or installed
    by the build (a Python tool's source under tools/);
  - repository paths (`tools/...`, `src/...`, `docs/...`, ...);
  - environment variables (`TQL_...`): read by the sources;
  - switches: each `..._switch` named, and each `system_parameters` row N,
    is in the demo database's SQL (a table's row numbers as there);
  - a command line option of one of our tools (`tql-x --opt`) in a shell
    block: in that tool's source.
Exit status 1 with one line per problem.
"""
import os
import re
import sys

ROOTS = ("app/", "bench/", "cmake/", "demo/", "docs/", "examples/", "fuzz/", "pendant/", "python/", "sdk/", "sim/",
         "src/", "tests/", "tools/", "web/")
SOURCES = ("src", "sim", "app", "pendant", "tools", "tests", "python", "examples", "web", "bench", "cmake", "fuzz")
MAX_README_LINES = 260


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def source_text(src):
    chunks = []
    for top in SOURCES + (".ci",):
        for base, dirs, files in os.walk(os.path.join(src, top)):
            dirs[:] = [d for d in dirs if d != "node_modules"]
            for name in files:
                if name.endswith((".cpp", ".h", ".py", ".sh", ".mjs", ".js", ".txt", ".cmake", ".in")) or name == "run":
                    try:
                        chunks.append(read(os.path.join(base, name)))
                    except (UnicodeDecodeError, OSError):
                        pass
    return "\n".join(chunks)


def tool_sources(src):
    """tool name -> its source text (C++ or Python), from the CMake files."""
    tools = {}
    cmake = read(os.path.join(src, "CMakeLists.txt")) + read(os.path.join(src, "pendant", "CMakeLists.txt"))
    for target, output in re.findall(r"set_target_properties\((\w+) PROPERTIES OUTPUT_NAME ([\w-]+)", cmake):
        sources = re.search(r"add_executable\(%s ([^)]*)\)" % target, cmake)
        text = ""
        for s in (sources.group(1).split() if sources else []):
            for base in (src, os.path.join(src, "pendant")):
                if os.path.isfile(os.path.join(base, s)):
                    text += read(os.path.join(base, s))
        tools[output] = text
    for script, output in re.findall(r"install\(PROGRAMS (\S+) DESTINATION \S+ RENAME ([\w-]+)", cmake):
        tools[output] = read(os.path.join(src, script))
    return tools


def main():
    src, build = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    problems = []
    readme = os.path.join(src, "README.md")
    pages = [readme] + sorted(os.path.join(src, "docs", p) for p in os.listdir(os.path.join(src, "docs"))
                              if p.endswith(".md"))
    lines = read(readme).count("\n")
    if lines > MAX_README_LINES:
        problems.append(f"README.md: {lines} lines, more than {MAX_README_LINES}")

    # Links and pictures; the pages reached from the README.
    reached, todo = {readme}, [readme]
    while todo:
        page = todo.pop()
        for target in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", read(page)):
            if re.match(r"[a-z]+://", target):
                continue
            path = os.path.normpath(os.path.join(os.path.dirname(page), target))
            if not os.path.exists(path):
                problems.append(f"{os.path.relpath(page, src)}: link to missing {target}")
            elif path.endswith(".md") and path not in reached:
                reached.add(path)
                todo.append(path)
    for page in pages:
        if page not in reached:
            problems.append(f"{os.path.relpath(page, src)}: not reachable from README.md")

    code = source_text(src)
    tools = tool_sources(src)
    sql = read(os.path.join(src, "demo", "parameter.sql"))
    switches = {name: int(row) for row, name in
                re.findall(r"INSERT INTO system_parameters VALUES \((\d+), '(\w+)'", sql)}
    rows = set(switches.values())
    for page in pages:
        text = read(page)
        name = os.path.relpath(page, src)
        for word in set(re.findall(r"`([^`\n]+)`", text)):
            first = word.split()[0] if word.split() else ""
            if re.fullmatch(r"tql(-[a-z]+)+", first) and first not in tools and first != "tql-sim":
                problems.append(f"{name}: names the tool {first}, which the build does not make")
            path = first.rstrip(".,:;")
            if path.startswith(ROOTS) and "*" not in path and "<" not in path and "..." not in path:
                if not os.path.exists(os.path.join(src, path.split("#")[0])):
                    problems.append(f"{name}: names {path}, which is not in the repository")
            for var in re.findall(r"\bTQL_[A-Z0-9_]+", word):
                if var not in code:
                    problems.append(f"{name}: names {var}, which nothing reads")
        for word in set(re.findall(r"`(\w+_switch)`", text)):
            if word not in switches:
                problems.append(f"{name}: names the switch {word}, which the demo database lacks")
        for row, word in re.findall(r"^\| (\d+) \| `(\w+)` \|", text, re.M):
            if switches.get(word, -1) != int(row) and word in switches:
                problems.append(f"{name}: puts {word} in row {row}, the demo database in row {switches[word]}")
        for row in re.findall(r"system_parameters`? row (\d+)", text):
            if int(row) not in rows:
                problems.append(f"{name}: names system_parameters row {row}, which the demo database lacks")
        for block in re.findall(r"```sh\n(.*?)```", text, re.S):
            for tool, option in re.findall(r"\b(tql(?:-[a-z]+)+) [^\n#]*?(--[a-z][a-z-]*)", block):
                if tool in tools and option not in tools[tool]:
                    problems.append(f"{name}: {tool} has no option {option}")
    for p in problems:
        print(p)
    print(f"{len(pages)} pages, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
