#!/usr/bin/python3
"""tql-plot: PNG plots of what the controller commanded the arm.

Inputs (--kind auto tells them apart by content):
  record      the simulated bus's flight-recorder CSV (time,id,mode,command,value);
              position set-points in actuator revolutions, per actuator
  trajectory  a trajectory file: one row of joint angles [deg] every 4 ms
  excitation  an identification run's output: per row the joints' currents [A],
              velocities [rad/s] and positions [rad], one row every 4 ms

Figures: joint position / speed / acceleration / jerk over time with the
database's limits dashed; the flange path from the forward kinematics; for a
recording, the set-point period statistics of tql-pacing and, when the
collision monitor stopped the arm, the impact: the joint's measured torque
and the observer's residual against its threshold, the contact forces and
the joint's set-points around the detection.

Joint angles are the controller's: revolutions * direction / reduction * 360
degrees. Derivatives are finite differences of the set-points over the
nominal period: what the arm was told to do, not what it did.
"""
import argparse
import glob
import math
import os
import sqlite3
import sys

import numpy as np

PERIOD = 0.004            # s, the controller's set-point period
PAUSE = 0.05              # s, a gap this long ends a set-point stream (as tql-pacing)
DEG_TO_RAD = 0.017453292222222222  # the controller's degrees to radians (short pi)
RAD_TO_DEG = 180.0 / 3.1415926
RECORD_HEADER = "time,id,mode,command,value"
WIDTH_IN, HEIGHT_IN, DPI = 16, 10, 100    # 1600 x 1000 pixels
COLOURS = ["#1f77b4", "#ff7f0e", "#2ca02c", "#d62728", "#9467bd", "#8c564b"]


class PlotError(Exception):
    pass


# ---------------------------------------------------------------- module tql

def import_tql():
    """The tql module: on the path, else installed or built beside this script."""
    try:
        import tql
        return tql
    except ImportError:
        pass
    here = os.path.dirname(os.path.realpath(__file__))
    candidates = [os.path.join(here, "python"), os.path.join(here, "..", "python"),
                  os.path.join(here, "..", "lib", "python3", "dist-packages")]
    candidates += sorted(glob.glob(os.path.join(here, "..", "lib", "*", "python3", "dist-packages")))
    for path in candidates:
        if glob.glob(os.path.join(path, "tql*.so")):
            sys.path.insert(0, os.path.abspath(path))
            try:
                import tql
                return tql
            except ImportError:
                sys.path.pop(0)
    return None


# ---------------------------------------------------------------- parameters

# Actuator reduction ratio per joint of each robot type (the library's
# actuator types per type); FREE_COMBINATION joints are direct (ratio 1).
REDUCTION = {"GL_4L3": [36] * 4, "GL_6L3": [36] * 6, "GL_2P8_P6_3P3": [101, 101, 81, 51, 51, 51],
             "GL_6L6": [36] * 6, "GL_2L6_4L3": [36] * 6}


def parse_list(text):
    text = (text or "").strip().strip("[]")
    return [float(v) for v in text.split(",") if v.strip()] if text else []


def sim_position_limits(db_path, n, ratio, direction):
    """Joint position limits [deg] of the simulated actuators beside the
    database: their saved settings (sim_state.txt), else their factory range
    (sim.conf, revolutions; default +-17)."""
    lo, hi = [-17.0] * n, [17.0] * n
    here = os.path.dirname(os.path.abspath(db_path))
    conf = os.path.join(here, "sim.conf")
    if os.path.exists(conf):
        with open(conf) as f:
            for line in f:
                key, _, value = line.split("#")[0].partition("=")
                name, _, ident = key.strip().partition(".")
                if name not in ("min_position", "max_position") or not value.strip():
                    continue
                target = lo if name == "min_position" else hi
                ids = [int(ident)] if ident else range(1, n + 1)
                for i in ids:
                    if 1 <= i <= n:
                        target[i - 1] = float(value)
    state = os.path.join(here, "sim_state.txt")
    if os.path.exists(state):
        with open(state) as f:
            for line in f:
                words = dict(w.split("=", 1) for w in line.split()[1:] if "=" in w)
                i = int(words.get("id", 0))
                if line.startswith("actuator ") and 1 <= i <= n:
                    lo[i - 1] = float(words.get("min_position", lo[i - 1]))
                    hi[i - 1] = float(words.get("max_position", hi[i - 1]))
    deg = [(sorted((lo[j] * direction[j] / ratio[j] * 360, hi[j] * direction[j] / ratio[j] * 360)))
           for j in range(n)]
    return [d[0] for d in deg], [d[1] for d in deg]


def read_parameters_sqlite(db_path):
    """The database read directly: used when the tql module is not available."""
    db = sqlite3.connect("file:%s?mode=ro" % db_path, uri=True)
    try:
        system = dict(db.execute("SELECT ID, VALUE FROM system_parameters"))
        robot_type = system.get(1, "")
        if robot_type not in REDUCTION and robot_type != "FREE_COMBINATION":
            raise PlotError("%s: unknown robot type '%s'" % (db_path, robot_type))
        rows = dict(db.execute('SELECT ID, VALUE FROM "%s"' % robot_type))
    finally:
        db.close()
    speed = parse_list(rows.get(1))
    n = len(REDUCTION.get(robot_type, speed))
    p = {"type": robot_type, "n": n, "speed": speed[:n], "acc": parse_list(rows.get(2))[:n],
         "jerk": parse_list(rows.get(3))[:n], "direction": parse_list(rows.get(11))[:n],
         "L": parse_list(rows.get(12))[:6], "ratio": REDUCTION.get(robot_type, [1.0] * n)}
    if robot_type == "FREE_COMBINATION":
        p.update(speed=[360.0] * n, acc=[1800.0] * n, jerk=[9000.0] * n, direction=[1.0] * n)
    p["pos_lo"], p["pos_hi"] = sim_position_limits(db_path, n, p["ratio"], p["direction"])
    return p


def read_parameters(db_path, tql):
    if not os.path.isfile(db_path):
        raise PlotError("no parameter database %s (give one with --db)" % db_path)
    try:
        p = None
        if tql is not None:
            try:
                p = normalise(tql.read_robot_parameters(db_path), db_path)
            except ValueError:
                # A free combination takes its joint count from the bus: read
                # the database directly; anything else is refused as it is.
                if read_parameters_sqlite(db_path)["type"] != "FREE_COMBINATION":
                    raise
        if p is None:
            p = read_parameters_sqlite(db_path)
    except (sqlite3.Error, ValueError, OSError, RuntimeError, KeyError, TypeError) as e:
        raise PlotError("%s: %s" % (db_path, e))
    for key in ("speed", "acc", "jerk", "direction", "ratio", "pos_lo", "pos_hi"):
        if len(p[key]) != p["n"] or not all(math.isfinite(v) for v in p[key]):
            raise PlotError("%s: %s of %d joints is incomplete" % (db_path, key, p["n"]))
    return p


def normalise(d, db_path):
    """The module's parameter dict in this script's keys."""
    n = int(d["joints"])
    p = {"type": d["robot_type"], "n": n, "L": [float(v) for v in d["L"]],
         "speed": [float(v) for v in d["joint_speed_deg_s"]],
         "acc": [float(v) for v in d["joint_acceleration_deg_s2"]],
         "jerk": [float(v) for v in d["joint_jerk_deg_s3"]],
         "direction": [float(v) for v in d["direction"]], "ratio": [float(v) for v in d["reduction_ratio"]]}
    limits = d.get("position_limits_deg")
    if limits is None:  # held by the actuators, not the database
        p["pos_lo"], p["pos_hi"] = sim_position_limits(db_path, n, p["ratio"], p["direction"])
    else:
        limits = np.asarray(limits, dtype=float).reshape(n, 2)
        p["pos_lo"], p["pos_hi"] = list(limits[:, 0]), list(limits[:, 1])
    return p


# ---------------------------------------------------------------- inputs

def sniff(path):
    try:
        with open(path, "r", errors="replace") as f:
            first = f.readline()
    except OSError as e:
        raise PlotError("cannot open %s: %s" % (path, e.strerror))
    return first.strip()


def read_record(path, params):
    """Set-point streams per joint: list of (times [s], angles [deg], the
    angle it stood at before its first set-point or None)."""
    setpoints, start = {}, {}
    with open(path, "r", errors="replace") as f:
        if f.readline().strip() != RECORD_HEADER:
            raise PlotError("%s: not a flight recording (header %s expected)" % (path, RECORD_HEADER))
        for number, line in enumerate(f, start=2):
            fields = line.strip().split(",")
            if len(fields) != 5:
                if line.strip():
                    raise PlotError("%s: line %d: 5 fields expected" % (path, number))
                continue
            if fields[3] not in ("setPosition", "position"):
                continue
            try:
                t, ident, value = float(fields[0]), int(fields[1]), float(fields[4])
            except ValueError:
                raise PlotError("%s: line %d: not a number" % (path, number))
            if not (math.isfinite(t) and math.isfinite(value)):
                raise PlotError("%s: line %d: not a finite number" % (path, number))
            if fields[3] == "position":  # where the actuator stood before its first set-point
                if ident not in setpoints:
                    start[ident] = value
                continue
            setpoints.setdefault(ident, []).append((t, value))
    if not setpoints:
        raise PlotError("%s: no position set-points" % path)
    ids = sorted(setpoints)
    if len(ids) != params["n"]:
        raise PlotError("%s: set-points for %d actuators, the robot has %d joints" % (path, len(ids), params["n"]))
    streams = []
    for j, ident in enumerate(ids):  # the k-th actuator in id order drives joint k
        a = np.array(setpoints[ident])
        scale = params["direction"][j] / params["ratio"][j] * 360.0
        streams.append((a[:, 0], a[:, 1] * scale, start[ident] * scale if ident in start else None))
    return ids, streams


def read_table(path):
    rows = []
    with open(path, "r", errors="replace") as f:
        for number, line in enumerate(f, start=1):
            if not line.strip():
                continue
            try:
                rows.append([float(v) for v in line.split(",")])
            except ValueError:
                raise PlotError("%s: line %d: not a row of numbers" % (path, number))
            if len(rows[-1]) != len(rows[0]):
                raise PlotError("%s: line %d: %d values, line 1 has %d" % (path, number, len(rows[-1]), len(rows[0])))
    if len(rows) < 2:
        raise PlotError("%s: fewer than two samples" % path)
    table = np.array(rows)
    if not np.all(np.isfinite(table)):
        raise PlotError("%s: a value is not a finite number" % path)
    return table


def detect_kind(path, params):
    if sniff(path) == RECORD_HEADER:
        return "record"
    columns = len(sniff(path).split(","))
    n = params["n"]
    if columns == n:
        return "trajectory"
    if columns == 3 * n:
        return "excitation"
    raise PlotError("%s: %d columns: neither a trajectory (%d) nor an excitation output (%d) of this robot"
                    % (path, columns, n, 3 * n))


# ---------------------------------------------------------------- derivatives

def differentiate(q, dt):
    """Position, speed, acceleration, jerk of samples dt apart (backward
    differences; the first difference repeats so that all four have q's length)."""
    out = [q]
    for _ in range(3):
        d = np.diff(out[-1]) / dt
        out.append(np.concatenate([d[:1], d]))
    return out


def record_series(times, degrees, dt, before=None):
    """One joint's recording as a 4 ms series: each stream of set-points held
    for 3 periods before (the previous set-point; for the first, where the
    joint stood, `before`, when known) and after (its last), so a move's
    start and stop show in the derivatives; pauses hold still."""
    breaks = np.flatnonzero(np.diff(times) >= PAUSE) + 1
    t_out, q_out = [], []
    previous = degrees[0] if before is None else before
    for t, q in zip(np.split(times, breaks), np.split(degrees, breaks)):
        pad = np.arange(1, 4) * dt
        t_out.append(np.concatenate([t[0] - pad[::-1], t[0] + np.arange(len(t)) * dt, t[0] + (len(t) - 1) * dt + pad]))
        q_out.append(np.concatenate([[previous] * 3, q, [q[-1]] * 3]))
        previous = q[-1]
    t = np.concatenate(t_out)
    series = [np.concatenate(parts) for parts in zip(*[differentiate(q, dt) for q in q_out])]
    return t, series


def pacing(times):
    """tql-pacing's statistics of one actuator's set-point times: periods,
    mean, median, p99, worst [s] and overruns (periods over twice the median)."""
    d = np.diff(times)
    p = np.sort(d[d < PAUSE])
    if len(p) == 0:
        return None
    median = p[len(p) // 2]
    return {"periods": p, "mean": p.mean(), "median": median, "p99": p[min(len(p) - 1, int(0.99 * len(p)))],
            "worst": p[-1], "overruns": int(np.sum(p > 2.0 * median))}


def joint_samples(ids, streams):
    """Every joint's angle [deg] at each of joint 1's set-points (the latest
    set-point of each actuator within half a period), for the kinematics."""
    t0 = streams[0][0]
    rows = []
    for t, q in streams:
        k = np.searchsorted(t, t0 + PERIOD / 2, side="right") - 1
        rows.append(q[np.clip(k, 0, len(q) - 1)])
    return np.stack(rows, axis=1)


# ---------------------------------------------------------------- figures

def limit_lines(ax, limits, symmetric, unit):
    """Dashed lines at the joints' limits: one per distinct value, labelled
    with the joints it belongs to."""
    groups = {}
    for j, value in enumerate(limits):
        groups.setdefault(value, []).append(j + 1)
    for value, joints in groups.items():
        name = "J%d" % joints[0] if len(joints) == 1 else "J%d-%d" % (joints[0], joints[-1]) \
            if joints == list(range(joints[0], joints[-1] + 1)) else "J" + ",".join(map(str, joints))
        colour = COLOURS[joints[0] - 1] if len(joints) == 1 else "0.35"
        for v in ([value, -value] if symmetric else [value]):
            ax.axhline(v, color=colour, linestyle="--", linewidth=1.2)
            ax.annotate("%s %g %s" % (name, v, unit), xy=(1.0, v), xycoords=("axes fraction", "data"),
                        xytext=(4, 0), textcoords="offset points", va="center", fontsize=8, color=colour)


def figure_joints(title, t, series, params, n, noise):
    import matplotlib.pyplot as plt
    from matplotlib.lines import Line2D
    fig, axes = plt.subplots(4, 1, sharex=True, figsize=(WIDTH_IN, HEIGHT_IN), dpi=DPI)
    rows = [("position [deg]", None), ("speed [deg/s]", params["speed"]),
            ("acceleration [deg/s²]", params["acc"]), ("jerk [deg/s³]", params["jerk"])]
    for r, (ax, (label, limits)) in enumerate(zip(axes, rows)):
        peak = 0.0
        for j in range(n):
            ax.plot(t[j], series[j][r], color=COLOURS[j % 6], linewidth=1.0)
            peak = max(peak, float(np.max(np.abs(series[j][r]))))
        if limits is None:
            limit_lines(ax, params["pos_lo"], False, "deg")
            limit_lines(ax, params["pos_hi"], False, "deg")
            top = max(max(abs(v) for v in params["pos_lo"] + params["pos_hi"]), peak)
        else:
            limit_lines(ax, limits, True, "")
            top = max(max(limits), peak)
        if noise > 0 and r >= 2:
            # Worst case of the rounding errors through the 2nd / 3rd difference.
            bound = noise * (4.0 / PERIOD ** 2 if r == 2 else 8.0 / PERIOD ** 3)
            ax.axhspan(-bound, bound, color="0.85", zorder=0,
                       label="rounding of the file's 6 digits: +-%.4g" % bound)
            ax.legend(loc="upper left", fontsize=8)
        ax.set_ylim(-1.1 * top, 1.1 * top)
        ax.set_ylabel(label)
        ax.grid(True, alpha=0.3)
    axes[-1].set_xlabel("time [s]")
    handles = [Line2D([], [], color=COLOURS[j % 6], label="joint %d" % (j + 1)) for j in range(n)]
    handles.append(Line2D([], [], color="0.35", linestyle="--", label="limit (database)"))
    fig.legend(handles=handles, loc="upper center", ncol=n + 1, bbox_to_anchor=(0.5, 0.955), frameon=False)
    fig.suptitle(title, fontsize=14)
    fig.subplots_adjust(left=0.07, right=0.9, top=0.9, bottom=0.06, hspace=0.12)
    return fig


def figure_path(title, q_deg, params, tql):
    import matplotlib.pyplot as plt
    step = max(1, len(q_deg) // 4000)
    rows = q_deg[::step]
    p = np.array([tql.fk_ur(np.asarray(q, dtype=float) * DEG_TO_RAD, np.asarray(params["L"], dtype=float))[:3, 3]
                  for q in rows])
    time = np.arange(len(p)) * step * PERIOD
    fig = plt.figure(figsize=(WIDTH_IN, HEIGHT_IN), dpi=DPI)
    grid = fig.add_gridspec(2, 3, width_ratios=[1.6, 1, 0.04], left=0.02, right=0.95, top=0.9, bottom=0.07,
                            wspace=0.25, hspace=0.3)
    ax = fig.add_subplot(grid[:, 0], projection="3d")
    ax.plot(p[:, 0], p[:, 1], p[:, 2], color="0.6", linewidth=0.8)
    sc = ax.scatter(p[:, 0], p[:, 1], p[:, 2], c=time, cmap="viridis", s=3)
    start = dict(s=160, facecolors="none", edgecolors="green", linewidths=2, label="start")
    end = dict(s=40, color="red", marker="s", label="end")
    ax.scatter(*p[0], **start)
    ax.scatter(*p[-1], **end)
    span = np.ptp(p, axis=0).max() / 2 or 1.0
    centre = (p.max(axis=0) + p.min(axis=0)) / 2
    ax.set_xlim(centre[0] - span, centre[0] + span)
    ax.set_ylim(centre[1] - span, centre[1] + span)
    ax.set_zlim(centre[2] - span, centre[2] + span)
    ax.set_box_aspect((1, 1, 1), zoom=1.1)
    ax.set_xlabel("x [mm]")
    ax.set_ylabel("y [mm]")
    ax.set_zlabel("z [mm]")
    ax.legend(loc="upper left")
    ax.set_title("flange path in the base frame")
    for k, (a, b, name) in enumerate([(0, 1, "top view (x-y)"), (0, 2, "side view (x-z)")]):
        side = fig.add_subplot(grid[k, 1])
        side.plot(p[:, a], p[:, b], color="0.6", linewidth=0.8)
        side.scatter(p[:, a], p[:, b], c=time, cmap="viridis", s=3)
        side.scatter(*p[0, [a, b]], **start)
        side.scatter(*p[-1, [a, b]], **end)
        side.set_aspect("equal", adjustable="datalim")
        side.set_xlabel("xyz"[a] + " [mm]")
        side.set_ylabel("xyz"[b] + " [mm]")
        side.set_title(name)
        side.grid(True, alpha=0.3)
    fig.colorbar(sc, cax=fig.add_subplot(grid[:, 2]), label="time [s]")
    fig.suptitle(title, fontsize=14)
    return fig


def figure_pacing(title, ids, stats):
    import matplotlib.pyplot as plt
    cols = 3
    rows = (len(ids) + cols - 1) // cols
    fig, axes = plt.subplots(rows, cols, figsize=(WIDTH_IN, HEIGHT_IN), dpi=DPI, squeeze=False)
    for k, ax in enumerate(axes.flat):
        if k >= len(ids):
            ax.set_visible(False)
            continue
        s = stats[k]
        ax.set_title("actuator %d (joint %d)" % (ids[k], k + 1))
        ax.set_xlabel("set-point period [ms]")
        ax.set_ylabel("periods")
        if s is None:
            ax.text(0.5, 0.5, "no set-point stream", ha="center", transform=ax.transAxes)
            continue
        ms = s["periods"] * 1e3
        # From 0 to past the overrun threshold, so that an exact 4 ms stream
        # (the virtual clock) shows as one bar and late periods stand apart.
        top = max(2.2e3 * s["median"], 1.05 * ms[-1])
        ax.hist(ms, bins=np.linspace(0, top, 89), color=COLOURS[k % 6], log=True)
        ax.set_xlim(0, top)
        for value, style, name in [(s["mean"], "-", "mean"), (s["p99"], "--", "p99"), (s["worst"], ":", "worst")]:
            ax.axvline(value * 1e3, color="k", linestyle=style, linewidth=1, label="%s %.3f ms" % (name, value * 1e3))
        ax.axvline(2e3 * s["median"], color="red", linestyle="-.", linewidth=1,
                   label="overruns > %.3f ms: %d of %d" % (2e3 * s["median"], s["overruns"], len(ms)))
        ax.legend(fontsize=8, loc="upper right")
        ax.grid(True, alpha=0.3)
    fig.suptitle(title, fontsize=14)
    fig.tight_layout(rect=(0, 0, 1, 0.95))
    return fig


def read_monitor(path):
    """The collision monitor's notes and the world's contacts in a flight
    recording: {"torque"|"residual": {joint: (times, N*m)}, "threshold":
    {joint: N*m}, "collision": (time, joint) or None, "contact": {link:
    (times, N)}}."""
    series = {"torque": {}, "residual": {}, "contact": {}}
    monitor = {"threshold": {}, "collision": None}
    with open(path, "r", errors="replace") as f:
        f.readline()
        for line in f:
            fields = line.strip().split(",")
            if len(fields) != 5 or fields[3] not in ("torque", "residual", "contact", "threshold", "collision"):
                continue
            t, ident, value = float(fields[0]), int(fields[1]), float(fields[4])
            if fields[3] == "threshold":
                monitor["threshold"][ident] = value
            elif fields[3] == "collision":
                monitor["collision"] = monitor["collision"] or (t, ident)
            else:
                series[fields[3]].setdefault(ident, []).append((t, value))
    for name, by_id in series.items():
        monitor[name] = {k: tuple(np.array(v).T) for k, v in by_id.items()}
    return monitor


def figure_impact(title, monitor, streams):
    """The joint the collision monitor stopped for, around the detection:
    its measured torque and the observer's residual against the threshold,
    the contact forces, and its set-points."""
    import matplotlib.pyplot as plt
    t_hit, joint = monitor["collision"]
    lo, hi = t_hit - 0.3, t_hit + 0.6
    fig, axes = plt.subplots(3, 1, figsize=(WIDTH_IN, HEIGHT_IN), dpi=DPI, sharex=True)
    ax = axes[0]
    for name, style in (("torque", "-"), ("residual", "-")):
        if joint in monitor[name]:
            t, v = monitor[name][joint]
            keep = (t >= lo) & (t <= hi)
            ax.plot(t[keep], v[keep], style, label="%s, joint %d" % ("measured torque" if name == "torque"
                                                                      else "observer residual", joint))
    limit = monitor["threshold"].get(joint)
    if limit is not None:
        for sign in (1, -1):
            ax.axhline(sign * limit, color="red", linestyle="--", linewidth=1,
                       label="threshold ±%.2f N·m" % limit if sign > 0 else None)
    ax.set_ylabel("N·m")
    ax = axes[1]
    for link, (t, v) in sorted(monitor["contact"].items()):
        keep = (t >= lo) & (t <= hi)
        ax.plot(t[keep], v[keep], label="contact on link %d" % link)
    ax.axhline(30.0, color="grey", linestyle=":", linewidth=1, label="30 N")
    ax.set_ylabel("N")
    ax = axes[2]
    t, q = streams[joint - 1]
    keep = (t >= lo) & (t <= hi)
    ax.plot(t[keep], q[keep], ".", markersize=2, label="set-points, joint %d" % joint)
    ax.set_ylabel("deg")
    ax.set_xlabel("time [s]")
    for ax in axes:
        ax.axvline(t_hit, color="k", linewidth=1)
        ax.grid(True, alpha=0.3)
        ax.legend(fontsize=8, loc="upper left")
    axes[0].set_title("detection at %.3f s (vertical line)" % t_hit, fontsize=10)
    fig.suptitle(title, fontsize=14)
    fig.tight_layout(rect=(0, 0, 1, 0.95))
    return fig


# ---------------------------------------------------------------- main

def output_prefix(out, input_path):
    stem = os.path.splitext(os.path.basename(input_path))[0]
    if out is None:
        return stem
    if out.endswith(os.sep):
        os.makedirs(out, exist_ok=True)
    if os.path.isdir(out):
        return os.path.join(out, stem)
    return out


def default_db(input_path):
    for directory in (".", os.path.dirname(os.path.abspath(input_path))):
        for candidate in (os.path.join(directory, "parameter.db"), os.path.join(directory, "..", "parameter.db")):
            if os.path.isfile(candidate):
                return os.path.normpath(candidate)
    return "parameter.db"


def print_summary(n, series, params, ids, stats):
    print("joint  min deg  max deg  lo limit  hi limit  |speed| deg/s  limit  |acc| deg/s2  limit  |jerk| deg/s3  limit")
    for j in range(n):
        q, v, a, jk = series[j]
        print("%5d  %7.2f  %7.2f  %8.2f  %8.2f  %13.3f  %5g  %12.3f  %5g  %13.2f  %5g" % (
            j + 1, q.min(), q.max(), params["pos_lo"][j], params["pos_hi"][j], np.abs(v).max(), params["speed"][j],
            np.abs(a).max(), params["acc"][j], np.abs(jk).max(), params["jerk"][j]))
    if stats:
        print("actuator  periods   mean ms  median ms   p99 ms  worst ms  overruns")
        for ident, s in zip(ids, stats):
            if s is not None:
                print("%8d  %7d  %8.4f  %9.4f  %7.4f  %8.4f  %8d" % (ident, len(s["periods"]), s["mean"] * 1e3,
                      s["median"] * 1e3, s["p99"] * 1e3, s["worst"] * 1e3, s["overruns"]))


def run(args):
    tql = import_tql()
    db = args.db or default_db(args.input)
    sniff(args.input)  # a missing or unreadable input is reported before the database
    params = read_parameters(db, tql)
    n = params["n"]
    kind = detect_kind(args.input, params) if args.kind == "auto" else args.kind
    name = os.path.basename(args.input)
    ids, stats, noise = [], [], 0.0
    if kind == "record":
        ids, streams = read_record(args.input, params)
        stats = [pacing(t) for t, _, _ in streams]
        periods = np.concatenate([s["periods"] for s in stats if s is not None] or [np.array([PERIOD])])
        dt = float(np.median(periods))
        t, series = zip(*[record_series(tt, q, dt, before) for tt, q, before in streams])
        streams = [(tt, q) for tt, q, _ in streams]
        q_path = joint_samples(ids, streams)
    else:
        table = read_table(args.input)
        if table.shape[1] != (n if kind == "trajectory" else 3 * n):
            raise PlotError("%s: %d columns, %s of this robot has %d" % (
                args.input, table.shape[1], "a trajectory" if kind == "trajectory" else "an excitation output",
                n if kind == "trajectory" else 3 * n))
        q_path = table if kind == "trajectory" else table[:, 2 * n:] * RAD_TO_DEG
        time = np.arange(len(q_path)) * PERIOD
        if kind == "trajectory":  # the replay reaches the first sample at rest and holds the last one
            t, series = zip(*[record_series(time, q_path[:, j], PERIOD) for j in range(n)])
        else:  # measured positions, repetition after repetition
            t, series = [time] * n, [differentiate(q_path[:, j], PERIOD) for j in range(n)]
        # The file's six significant digits: half a unit of the last digit of
        # its largest value, in degrees, bounds each sample's rounding error.
        top = float(np.max(np.abs(table[:, -n:])))
        rounding = 0.5 * 10.0 ** (math.floor(math.log10(top)) - 5) if top > 0 else 0.0
        noise = rounding * (1.0 if kind == "trajectory" else RAD_TO_DEG)
    if args.summary:
        print_summary(n, series, params, ids, stats)

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    what = {"record": "flight recording", "trajectory": "trajectory", "excitation": "excitation run"}[kind]
    figures = [("joints", figure_joints("%s %s: joint set-points (%s, %d joints)" % (what, name, params["type"], n),
                                        t, series, params, n, noise))]
    if tql is None:
        print("tql-plot: module tql not found; flange path skipped", file=sys.stderr)
    elif n != 6 or len(params["L"]) < 6:
        print("tql-plot: no six-joint kinematics for %s; flange path skipped" % params["type"], file=sys.stderr)
    else:
        figures.append(("path", figure_path("%s %s: flange path" % (what, name), q_path, params, tql)))
    if kind == "record":
        figures.append(("pacing", figure_pacing("%s %s: set-point periods" % (what, name), ids, stats)))
        monitor = read_monitor(args.input)
        if monitor["collision"] is not None:
            figures.append(("impact", figure_impact("%s %s: collision" % (what, name), monitor, streams)))

    try:
        prefix = output_prefix(args.out, args.input)
    except OSError as e:
        raise PlotError("cannot create %s: %s" % (args.out, e.strerror))
    targets = ["%s-%s.png" % (prefix, suffix) for suffix, _ in figures]
    try:
        # Every figure is drawn to NAME.part first and flushed to the disk: a
        # failure or a power cut leaves no PNG of this run, whole or partial.
        for target, (_, fig) in zip(targets, figures):
            with open(target + ".part", "wb") as f:
                fig.savefig(f, format="png", dpi=DPI)
                f.flush()
                os.fsync(f.fileno())  # on the disk before it takes the name
            plt.close(fig)
        for target in targets:
            os.replace(target + ".part", target)
        directory = os.open(os.path.dirname(os.path.abspath(prefix)), os.O_RDONLY)
        try:
            os.fsync(directory)  # and the new names with it
        finally:
            os.close(directory)
    except OSError as e:
        raise PlotError("cannot write %s: %s" % (e.filename or prefix + "-*.png", e.strerror))
    finally:
        for target in targets:
            if os.path.exists(target + ".part"):
                os.remove(target + ".part")
    written = targets
    for target in written:
        print(target)


def main():
    parser = argparse.ArgumentParser(prog="tql-plot", description="PNG plots of a flight recording, "
                                     "a trajectory file or an excitation output.")
    parser.add_argument("input", help="recording CSV, trajectory file or excitation output")
    parser.add_argument("--db", help="parameter database (default: parameter.db of the working directory, "
                        "else beside the input or its file/ directory)")
    parser.add_argument("--out", help="output directory or file name prefix (default: the input's name, "
                        "in the working directory); writes PREFIX-joints.png, -path.png, -pacing.png")
    parser.add_argument("--kind", choices=["auto", "record", "trajectory", "excitation"], default="auto")
    parser.add_argument("--summary", action="store_true",
                        help="print per joint the range and peak |speed|, |acc|, |jerk| with their limits "
                        "(and, for a recording, tql-pacing's period table)")
    args = parser.parse_args()
    try:
        run(args)
    except PlotError as e:
        print("tql-plot: %s" % e, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
