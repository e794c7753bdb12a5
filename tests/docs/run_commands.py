#!/usr/bin/python3
"""Runs the shell commands and Python examples of the README and docs/, so
none goes stale.

    run_commands.py SOURCE_DIR BUILD_DIR [PAGE ...]

Every ```sh block of the README and of docs/*.md is run with bash (errexit,
pipefail), from the root of a scratch copy of the repository, as a reader
runs it from theirs, in page order and in a fresh shell per block. The copy
differs from a reader's checkout in what a test cannot do:
  - build/release, build/tests, build/bench and build/soak are BUILD_DIR, which the test
    command has built already: `cmake -S . -B` and `cmake --build` of them
    (and of BUILD_DIR) are skipped; every other cmake call runs;
  - /opt/tql is a scratch prefix where BUILD_DIR is installed first, its bin/
    first on PATH (the pages name installed tools bare); HOME is scratch;
  - port 8765 is a free port (one for each of the two queues the blocks run
    in side by side: those that use the run command's run/, and the others);
  - a few commands are run with smaller figures (SCALED), a server for a few
    seconds and then interrupted (SERVERS), and a few that need root or are
    the test command itself are run elsewhere (ELSEWHERE: the file named must
    hold the evidence, so the claim cannot go stale either).
A block passes when it exits 0 (or N, where a comment says `exit status N`)
and its output holds each `# prints: TEXT` of its lines. A ```python block runs with the installed modules, against a
pendant of its own where it connects to one. Generated sources the pages regenerate must come out as they
are in SOURCE_DIR. Exit status 1 with the failing blocks' output.
"""
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

# command -> (what runs it, file under SOURCE_DIR, text that file holds)
ELSEWHERE = {
    "tools/test.sh": ("the test command itself (CI's entry)", ".ci/run", "exec tools/test.sh"),
    "(cd build/release && cpack -G DEB -B packages)": ("InstallDeb", "tests/install/check_deb.sh", "-G DEB"),
    "sudo apt install ./build/release/packages/*.deb":
        ("InstallDeb, with dpkg into a scratch root", "tests/install/check_deb.sh", "dpkg --root"),
    "mkdir -p ~/arm && cp -r /usr/share/tql/demo/. ~/arm && cd ~/arm && tql mode4":
        ("InstallDeb, the packaged tql on a copy of the packaged demo", "tests/install/check_deb.sh", "mode4"),
    "tools/fuzz.sh": ("the test command", "tools/test.sh", "tools/fuzz.sh 20"),
    "tools/fuzz.sh 600": ("the test command, 20 s a target", "tools/test.sh", "tools/fuzz.sh 20"),
    "tools/fuzz.sh 3600 fuzz_run": ("the test command, 20 s a target", "tools/test.sh", "tools/fuzz.sh 20"),
}
# command -> the command run instead (the same tool and options, less work)
SCALED = {
    "tools/soak.sh": "tools/soak.sh 40",
    "tools/soak.sh 50000 7": "tools/soak.sh 40 7",
    "build/bench/bench/tql_bench": "build/bench/bench/tql_bench --benchmark_filter=BM_PreflightLinearMove "
                                   "--benchmark_min_time=0.01 --benchmark_repetitions=1",
}
# a command that serves until interrupted -> seconds it serves here
SERVERS = {"cd run && tql-pendant --port 8765": 6}
GENERATED = ("src/dynamics_regressor.cpp", "src/jacobian_generated.cpp")
BUILD_ALIASES = ("build/release", "build/tests", "build/bench", "build/soak")

CMAKE_SHIM = r"""#!/bin/bash
# The test command built these trees: configuring or building them is done.
for a in "$@"; do
  case "$a" in
    -B*|--build) next_is_dir=1; d=${a#-B}; [ -n "$d" ] && [ "$d" != "$a" ] && dir=$d ;;
    *) [ -n "${next_is_dir:-}" ] && [ -z "${dir:-}" ] && dir=$a ;;
  esac
done
if [ -n "${dir:-}" ] && [ "$(realpath -m "$dir")" = "$(realpath -m "$TQL_DOCS_BUILD")" ]; then
  echo "cmake $*: built already"
  exit 0
fi
exec /usr/bin/env -u TQL_DOCS_BUILD PATH="$TQL_DOCS_PATH" cmake "$@"
"""


def command_of(line):
    """The line without its trailing comment."""
    return re.sub(r"\s+#.*$", "", line).strip()


def copy_repository(src, dest):
    files = subprocess.run(["git", "-C", src, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                           capture_output=True, text=True)
    if files.returncode != 0:
        shutil.copytree(src, dest, symlinks=True, ignore=shutil.ignore_patterns("build", "node_modules", ".git"))
        return
    for rel in filter(None, files.stdout.split("\0")):
        if rel.startswith(("build/", "web/node_modules/")) or not os.path.isfile(os.path.join(src, rel)):
            continue
        os.makedirs(os.path.dirname(os.path.join(dest, rel)), exist_ok=True)
        shutil.copy2(os.path.join(src, rel), os.path.join(dest, rel))


def free_ports(n):
    """n distinct free ports (all held until all are found)."""
    sockets = [socket.socket() for _ in range(n)]
    try:
        for s in sockets:
            s.bind(("127.0.0.1", 0))
        return [s.getsockname()[1] for s in sockets]
    finally:
        for s in sockets:
            s.close()


def blocks_of(page):
    """(language, text) of each sh and python block."""
    with open(page, encoding="utf-8") as f:
        return re.findall(r"```(sh|python)\n(.*?)```", f.read(), re.S)


def run_python(block, root, env, port):
    """A Python block, with the installed modules; one that talks to a pendant
    gets one, in a fresh copy of the demo directory."""
    pendant = None
    if "ws://127.0.0.1:8765" in block:
        work = tempfile.mkdtemp(prefix="pendant-", dir=root)
        shutil.copytree(os.path.join(root, "build", "release", "demo"), work, dirs_exist_ok=True)
        if os.path.exists(os.path.join(work, "sim_state.txt")):
            os.remove(os.path.join(work, "sim_state.txt"))
        err = open(os.path.join(work, "err.txt"), "w")
        pendant = subprocess.Popen(["tql-pendant", "--port", str(port)], cwd=work, env=env,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)
        for _ in range(200):
            with open(os.path.join(work, "err.txt")) as f:
                if "Pendant: " in f.read() or pendant.poll() is not None:
                    break
            time.sleep(0.1)
    try:
        run = subprocess.run(["/usr/bin/python3", "-c", block.replace("8765", str(port))], cwd=root, env=env,
                             stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
        return run.returncode == 0, run.stdout + run.stderr
    finally:
        if pendant is not None:
            pendant.terminate()
            pendant.wait(timeout=30)
            err.close()


def run_block(block, root, env, port):
    """(ok, output) of one block."""
    expected, lines = [], []
    status = int((re.findall(r"#.*\bexit status (\d+)", block) or ["0"])[0])
    for line in block.splitlines():
        for text in re.findall(r"# prints: (.*?)(?: \(exit status \d+\))?$", line):
            expected.append(text.strip().replace("8765", str(port)))
        command = command_of(line)
        if command in ELSEWHERE:
            continue
        lines.append(SCALED.get(command, line))
    script = "\n".join(lines).replace("8765", str(port)).replace("/opt/tql", os.path.join(root, "opt/tql"))
    server = SERVERS.get(command_of(block.strip())) if len(block.strip().splitlines()) == 1 else None
    if not script.strip():
        return True, "(run elsewhere)"
    proc = subprocess.Popen(["bash", "-euo", "pipefail", "-c", script], cwd=root, env=env, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True)
    try:
        out, _ = proc.communicate(timeout=server or 900)
        ok = proc.returncode == status and not server
        if proc.returncode != status:
            out += f"\n(exit status {proc.returncode}, not {status})"
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGINT)
        try:
            out, _ = proc.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            out, _ = proc.communicate()
        ok = bool(server)
    missing = [e for e in expected if e not in out]
    if missing:
        out += "\n(missing from the output: %s)" % "; ".join(missing)
    return ok and not missing, out


def main():
    src, build = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    only = sys.argv[3:]
    problems = []
    for command, (_, path, evidence) in ELSEWHERE.items():
        with open(os.path.join(src, path), encoding="utf-8") as f:
            if evidence not in f.read():
                problems.append(f"{command!r} is said to run in {path}, which lacks {evidence!r}")

    root = tempfile.mkdtemp(prefix="tql-docs-")
    copy_repository(src, root)
    if os.path.isdir(os.path.join(src, "web", "node_modules")):
        os.symlink(os.path.join(src, "web", "node_modules"), os.path.join(root, "web", "node_modules"))
    os.makedirs(os.path.join(root, "build"))
    for alias in BUILD_ALIASES:
        os.symlink(build, os.path.join(root, alias))
    shim = os.path.join(root, ".shim")
    os.makedirs(shim)
    with open(os.path.join(shim, "cmake"), "w") as f:
        f.write(CMAKE_SHIM)
    os.chmod(os.path.join(shim, "cmake"), 0o755)
    os.makedirs(os.path.join(root, "home"))
    prefix = os.path.join(root, "opt", "tql")
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)

    env = {k: v for k, v in os.environ.items() if not k.startswith("TQL_")}
    python_dirs = [os.path.dirname(p) for p in glob.glob(os.path.join(prefix, "lib", "**", "tql_pendant.py"),
                                                          recursive=True)]
    env.update(PATH=os.pathsep.join([shim, os.path.join(prefix, "bin"), os.environ["PATH"]]),
               PYTHONPATH=os.pathsep.join(python_dirs),
               TQL_DOCS_PATH=os.environ["PATH"], TQL_DOCS_BUILD=build, HOME=os.path.join(root, "home"))
    pages = ["README.md"] + sorted(os.path.join("docs", p) for p in os.listdir(os.path.join(src, "docs"))
                                   if p.endswith(".md"))
    # Two queues, each in page order: the blocks that work in the run
    # command's run/ (which the first creates), and the others, each in a
    # directory of its own. They run side by side, each with its own port:
    # most of the time goes to runs on the real clock.
    queues = ([], [])
    for page in pages:
        if not only or page in only:
            for n, (language, block) in enumerate(blocks_of(os.path.join(src, page)), 1):
                shared = "run-demo.sh" in block or re.search(r"\bcd run\b", block)
                queues[0 if shared else 1].append((page, n, language, block))
    results = {}

    def work(queue, port):
        own = dict(env, TQL_PENDANT_PORT=str(port))
        for page, n, language, block in queue:
            start = time.time()
            ok, out = (run_block if language == "sh" else run_python)(block, root, own, port)
            results[(page, n)] = (ok, out, block)
            print(f"{page} block {n}: {'ok' if ok else 'FAILED'} in {time.time() - start:.1f} s", flush=True)

    workers = [threading.Thread(target=work, args=(q, port)) for q, port in zip(queues, free_ports(len(queues)))]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    ran = len(results)
    for (page, n), (ok, out, block) in sorted(results.items(), key=lambda r: (pages.index(r[0][0]), r[0][1])):
        if not ok:
            problems.append(f"{page} block {n} failed:\n{block}--- output (last 40 lines):\n" +
                            "\n".join(out.splitlines()[-40:]))
    for rel in GENERATED:
        with open(os.path.join(src, rel), "rb") as a, open(os.path.join(root, rel), "rb") as b:
            if a.read() != b.read():
                problems.append(f"{rel}: the generator writes something else than the repository holds")
    for p in problems:
        print(p)
    print(f"{ran} blocks, {len(problems)} problems")
    if not problems:
        shutil.rmtree(root, ignore_errors=True)
    else:
        print(f"scratch copy kept: {root}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
