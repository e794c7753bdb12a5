#!/usr/bin/env python3
"""tql-collision-sweep: how the collision reflex meets an obstacle, measured.

    tql-collision-sweep [--demo DIR] [--tql PATH] [--overrides 0.1,0.5,1]
                        [--radius MM] [--stiffness N_PER_MM] [--check] [--keep DIR]

For each move type (a joint move, a line and an arc, all carrying the flange
around the base as the demo program does) and each speed override, runs
`tql mode4` in a scratch copy of the demo working directory on the simulated
arm (virtual clock, noisy currents, the collision switch on) with a sphere
on the move's path: its centre is where the flange passes half-way. From the
flight recorder it reports

  - the contact force when the monitor noticed (N) and the periods from the
    first contact to the detection;
  - the periods from the contact force reaching 30 N to the detection
    ("-": noticed before 30 N);
  - the peak contact force while the arm stopped (N); how it stopped (braked
    along its path, or yielded: floated, damped, where braking would have
    overloaded a drive) and whether it came to rest; whether a drive
    tripped; and whether every set-point kept the limits.

as a Markdown table on standard output. With --check it exits 1 unless
every case was noticed within 3 periods of 30 N, ended with result -1 and
"N  CollisionDetection.", and sent no set-point beyond the limits; and a
run of every move with no obstacle notices nothing.
"""

import argparse
import importlib.machinery
import importlib.util
import os
import shutil
import subprocess
import sys
import tempfile

import numpy as np

PERIOD = 0.004  # s
FORCE_MARK = 30.0  # N
WITHIN_PERIODS = 3

# Joint angles (degrees) of the demo program's carrying arc: start, via, end.
START = [0, 20, 60, 10, -90, 0]
VIA = [-20, 20, 60, 10, -90, 0]
END = [-40, 20, 60, 10, -90, 0]


def deg(values):
    return ",".join("%g" % v for v in values)


MOVES = {
    "MOVJ": "MOVJ VJ=50 z0 %s\n" % deg(END),
    "MOVL": "MOVL V=150 z0 %s\n" % deg(END),
    "MOVC": "MOVC V=150 z0 %s,%s\n" % (deg(VIA), deg(END)),
}


def here():
    return os.path.dirname(os.path.realpath(__file__))


def load_plot():
    """tql-plot's helpers (it sits beside this script, built or installed)."""
    for name in ("tql-plot", "tql_plot.py"):
        path = os.path.join(here(), name)
        if os.path.isfile(path):
            loader = importlib.machinery.SourceFileLoader("tql_plot", path)
            found = importlib.util.spec_from_loader("tql_plot", loader)
            module = importlib.util.module_from_spec(found)
            loader.exec_module(module)
            return module
    sys.exit("tql-collision-sweep: tql-plot not found beside this script")


def flange_mm(tql, L, q_deg):
    return np.asarray(tql.fk_ur(np.radians(np.asarray(q_deg, float)), L))[:3, 3]


def obstacle_centre(tql, L, move):
    """Where the flange passes half-way along the move (mm, base frame)."""
    if move == "MOVJ":
        return flange_mm(tql, L, (np.asarray(START, float) + np.asarray(END, float)) / 2)
    if move == "MOVL":
        return (flange_mm(tql, L, START) + flange_mm(tql, L, END)) / 2
    return flange_mm(tql, L, VIA)


def read_recording(path):
    contacts, collision, last = [], None, {}
    with open(path) as f:
        next(f, None)
        for line in f:
            t, ident, _mode, what, value = line.rstrip("\n").split(",")[:5]
            if what == "contact":
                contacts.append((float(t), float(value)))
            elif what == "collision" and collision is None:
                collision = (float(t), int(ident))
            elif what == "setPosition":
                last[ident] = (last.get(ident, (None, None))[1], float(value))
    # At rest: every actuator's last step under 1e-6 revolution (under 1e-5 deg/s at the joint).
    at_rest = bool(last) and all(a is not None and abs(a - b) < 1e-6 for a, b in last.values())
    return contacts, collision, at_rest


def run_case(tql_path, demo, move, override, obstacle, conf_line=None, keep=None):
    """Runs one case; the obstacle as TQL_SIM_OBSTACLE, or as a sim.conf line."""
    work = tempfile.mkdtemp(prefix="tql-sweep-")
    try:
        shutil.copytree(demo, work, dirs_exist_ok=True)
        for stale in ("sim_state.txt", "rec.csv"):
            if os.path.exists(os.path.join(work, stale)):
                os.remove(os.path.join(work, stale))
        with open(os.path.join(work, "file", "data.txt"), "w") as f:
            f.write("MOVJ VJ=50 z0 %s\n" % deg(START) + MOVES[move])
        if conf_line:
            with open(os.path.join(work, "sim.conf"), "a") as f:
                f.write(conf_line + "\n")
        env = dict(os.environ, TQL_SIM_CLOCK="virtual", TQL_SIM_RECORD="rec.csv", TQL_SIM_OBSTACLE=obstacle)
        if conf_line:
            del env["TQL_SIM_OBSTACLE"]
        run = subprocess.run([tql_path, "mode4"], cwd=work, env=env, input="%g\nCYCLE\nNO\n" % override,
                             capture_output=True, text=True, timeout=600)
        contacts, collision, at_rest = read_recording(os.path.join(work, "rec.csv"))
        if keep:
            dest = os.path.join(keep, "%s-%g" % (move, override))
            shutil.rmtree(dest, ignore_errors=True)
            shutil.copytree(work, dest)
        return run, contacts, collision, at_rest
    finally:
        shutil.rmtree(work, ignore_errors=True)


def measure(run, contacts, collision, at_rest):
    # At rest: the brake's last set-points, or the yield's own word.
    yielded = "collision: the brake would overload a drive" in run.stderr
    r = {"exit": run.returncode, "limits_kept": ", 0 beyond limits" in run.stderr, "yielded": yielded,
         "rest": "came to rest" in run.stderr if yielded else at_rest,
         "tripped": " error : " in run.stdout, "said": None, "first": None, "at_detection": None,
         "periods": None, "after_mark": None, "peak": max((f for _, f in contacts), default=0.0)}
    for line in run.stdout.splitlines():
        if line.endswith("  CollisionDetection."):
            r["said"] = line[: -len("  CollisionDetection.")].split()[-1]
    if contacts:
        r["first"] = contacts[0][0]
    if collision is not None and contacts:
        t = collision[0]
        before = [f for tc, f in contacts if tc <= t + 1e-9]
        r["at_detection"] = before[-1] if before else 0.0
        r["periods"] = round((t - contacts[0][0]) / PERIOD)
        mark = next((tc for tc, f in contacts if f >= FORCE_MARK), None)
        r["after_mark"] = None if mark is None or mark > t else round((t - mark) / PERIOD)
    return r


def passes(r):
    in_time = r["periods"] is not None and (r["after_mark"] is None or r["after_mark"] <= WITHIN_PERIODS)
    return (in_time and r["exit"] == 255 and r["said"] is not None and r["limits_kept"] and r["rest"] and
            not r["tripped"])


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--demo", default=os.path.join(here(), "demo"), help="working directory to copy (the demo)")
    ap.add_argument("--tql", default=os.path.join(here(), "tql"), help="the tql host program")
    ap.add_argument("--overrides", default="0.1,0.5,1")
    ap.add_argument("--radius", type=float, default=30.0, help="sphere radius, mm")
    ap.add_argument("--stiffness", type=float, default=None,
                    help="contact stiffness N/mm (default: the simulated world's)")
    ap.add_argument("--check", action="store_true", help="exit 1 unless every case passes")
    ap.add_argument("--keep", help="keep each case's working directory under this one")
    a = ap.parse_args()

    plot = load_plot()
    tql = plot.import_tql()
    if tql is None:
        sys.exit("tql-collision-sweep: the tql Python module is not found")
    params = plot.read_parameters(os.path.join(a.demo, "parameter.db"), tql)
    L = np.asarray(params["L"], float)
    overrides = [float(v) for v in a.overrides.split(",")]
    if a.keep:
        os.makedirs(a.keep, exist_ok=True)

    ok = True
    print("| move | override | first contact to detection (periods) | force at detection (N) | "
          "periods after 30 N | peak force (N) | joint | stop | drive tripped | limits kept |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for move in MOVES:
        centre = obstacle_centre(tql, L, move)
        sphere = "%.1f,%.1f,%.1f,%g" % (centre[0], centre[1], centre[2], a.radius)
        conf_line = None
        if a.stiffness is not None:
            conf_line = "obstacle = sphere %s %g %g" % (sphere.replace(",", " "), a.stiffness, a.stiffness / 100)
            sphere = "none"
        for override in overrides:
            r = measure(*run_case(a.tql, a.demo, move, override, sphere, conf_line, a.keep))
            ok = ok and passes(r)
            fmt = lambda v, form: "-" if v is None else form % v
            yes = lambda v: "yes" if v else "no"
            print("| %s | %g | %s | %s | %s | %.1f | %s | %s | %s | %s |" % (
                move, override, fmt(r["periods"], "%d"), fmt(r["at_detection"], "%.1f"),
                fmt(r["after_mark"], "%d"), r["peak"], r["said"] or "none",
                ("yielded" if r["yielded"] else "braked") + (" to rest" if r["rest"] and not r["tripped"] else
                                                            ", not at rest"),
                yes(r["tripped"]), yes(r["limits_kept"])))
        # No obstacle: nothing noticed, the move completes.
        run, contacts, collision, _ = run_case(a.tql, a.demo, move, 1.0, "none")
        quiet = run.returncode == 0 and collision is None and not contacts
        ok = ok and quiet
        if not quiet:
            print("%s without an obstacle: exit %d, %s" % (move, run.returncode, run.stdout[-300:]), file=sys.stderr)
    if a.check and not ok:
        print("tql-collision-sweep: a case failed (see the table)", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
