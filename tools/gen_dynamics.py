#!/usr/bin/python3
"""Derives the six-axis arm's dynamics regressor, its base-parameter map and
the flange Jacobian symbolically (SymPy) and writes them as straight-line C++:

  src/dynamics_regressor.cpp   parameter_linearization, calculate_gravity,
                               calculate_cg, calculate_moment,
                               calculate_torque_matrix,
                               standard_to_base_parameters
  src/jacobian_generated.cpp   calculate_jacobian_ur

Run from anywhere:  /usr/bin/python3 tools/gen_dynamics.py
Before writing, it checks the derivation numerically (plain floats and
mpmath, no numpy): the regressor times the mapped base parameters against an
independent numeric Newton-Euler pass at random states and parameters (and
the 60-column regressor of that pass times the standard parameters), the rank
of the stacked regressor at the demo geometry (36 of 36 columns, and 36 for
all 60 standard columns), the flange position of the modified-DH chain
against fk_ur's closed form, and the Jacobian against central differences.
It stops without writing if any check fails.

Model (see src/dynamics.h): modified DH, frame i = frame(i-1) Rx(alpha_i)
Tx(a_i) Rz(theta_i) Tz(d_i); joint i turns about z_i; gravity is an upward
base acceleration (0, 0, g0). Standard parameters per link, in link frame i
about its origin: XX XY XZ YY YZ ZZ MX MY MZ M (inertia tensor entries, first
moments, mass).
"""
import math
import os
import random
import sys
import time

import mpmath
import sympy as sp
from sympy.printing.c import C99CodePrinter
from sympy.printing.str import StrPrinter

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
COMMAND = "/usr/bin/python3 tools/gen_dynamics.py"
N = 6
GRAVITY = 9.80665
STD_NAMES = ["XX", "XY", "XZ", "YY", "YZ", "ZZ", "MX", "MY", "MZ", "M"]
# Standard-parameter columns each link keeps in the base set (the YY, MZ and M
# columns are regrouped into the previous link; link 1 keeps ZZ only).
KEPT = [0, 1, 2, 4, 5, 6, 7]
KEPT_LINK1 = [5]
BASE_NAMES = ["XXR", "XY", "XZ", "YZ", "ZZR", "MXR", "MYR"]

# Demo arm (metres, radians), as in the parameter database.
DEMO_A = [0, 0, 0.244, 0.213, 0, 0]
DEMO_D = [0.152, 0, 0, 0.112, 0.085, 0.082]
DEMO_ALPHA = [0, 1.5707963, 0, 0, -1.5707963, 1.5707963]
# Fixed twist angles of the Jacobian, evaluated as doubles (cos(pi/2) is then
# 6.123233995736766e-17, as std::cos gives it).
JAC_ALPHA = [0.0, math.pi / 2, 0.0, 0.0, -math.pi / 2, math.pi / 2]
HALF_PI = math.pi / 2  # joint 2/4 zero shift of the Jacobian, as fk_ur's


# ---------------------------------------------------------------- printing

class Var:
    """Symbol registry: each symbol has a Python name and a C++ spelling."""
    c_names = {}

    @classmethod
    def make(cls, py_name, c_name=None):
        s = sp.Symbol(py_name, real=True)
        cls.c_names[s] = c_name if c_name is not None else py_name
        return s


def _float_text(x):
    return repr(float(x))  # shortest text that reads back as the same double


class CxxPrinter(C99CodePrinter):
    def _print_Symbol(self, expr):
        return Var.c_names.get(expr, expr.name)

    def _print_Float(self, expr):
        return _float_text(expr)

    def _print_Rational(self, expr):
        return "(%d.0 / %d.0)" % (expr.p, expr.q)

    def _print_Pow(self, expr):
        b, e = expr.args
        if e.is_Integer and 2 <= int(e) <= 4:
            base = self.parenthesize(b, 100)
            return "*".join([base] * int(e))
        raise ValueError("unexpected power in generated code: %s" % expr)


class PyPrinter(StrPrinter):
    def _print_Float(self, expr):
        return _float_text(expr)


CXX = CxxPrinter()
PY = PyPrinter()


class Block:
    """Straight-line code: declared temporaries and array stores, in order."""

    def __init__(self, tmp_prefix):
        self.lines = []  # (kind, lhs, expr): kind 'let' (const double) or 'set' (store)
        self.prefix = tmp_prefix
        self.count = 0

    def comment(self, text):
        self.lines.append(("comment", text, None))

    def let(self, sym, expr):
        self.lines.append(("let", sym, expr))

    def set(self, sym, expr):
        self.lines.append(("set", sym, expr))

    def group(self, exprs, names, store):
        """Emits exprs (sympy expressions) into the symbols `names`, with common
        subexpressions shared. Zeros are not emitted: the returned list holds
        0 for them and the symbol for the others. store: array element
        stores (True) or local constants (False)."""
        # Locals that would only rename a number or a symbol are not emitted.
        inline = lambda e: e == 0 or (not store and e.is_Atom)
        live = [(e, n) for e, n in zip(exprs, names) if not inline(e)]
        out = [e if inline(e) else n for e, n in zip(exprs, names)]
        if not live:
            return out
        tmps = (Var.make("%s%d" % (self.prefix, k)) for k in range(self.count, 10 ** 9))
        repl, reduced = sp.cse([e for e, _ in live], symbols=tmps, order="none")
        self.count += len(repl)
        for s, e in repl:
            self.let(s, e)
        for (_, n), e in zip(live, reduced):
            (self.set if store else self.let)(n, e)
        return out

    def cxx(self, indent="    "):
        text = []
        for kind, lhs, e in self.lines:
            if kind == "comment":
                text.append(indent + "// " + lhs)
            elif kind == "let":
                text.append("%sconst double %s = %s;" % (indent, CXX.doprint(lhs), CXX.doprint(e)))
            else:
                text.append("%s%s = %s;" % (indent, CXX.doprint(lhs), CXX.doprint(e)))
        return "\n".join(text)

    def python(self):
        return "\n".join("%s = %s" % (lhs.name, PY.doprint(e)) for kind, lhs, e in self.lines if kind != "comment")

    def used(self):
        """Names of the symbols the block reads."""
        names = set()
        for kind, _, e in self.lines:
            if kind != "comment":
                names |= {x.name for x in e.free_symbols}
        return names

    def ops(self):
        return sum(sp.count_ops(e) for kind, _, e in self.lines if kind != "comment")


def cross(u, v):
    return sp.Matrix([u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]])


# ---------------------------------------------------------------- symbols

def arr(name, *dims):
    """Symbols for the C array name[dims...] (Python name name_i_j...)."""
    def build(prefix_py, prefix_c, rest):
        if not rest:
            return Var.make(prefix_py, prefix_c)
        return [build("%s_%d" % (prefix_py, i), "%s[%d]" % (prefix_c, i), rest[1:]) for i in range(rest[0])]
    return build(name, name, list(dims))


q_c = [Var.make("c%d" % j) for j in range(N)]   # cos(theta_j)
q_s = [Var.make("s%d" % j) for j in range(N)]   # sin(theta_j)
ca = [Var.make("ca%d" % j) for j in range(N)]   # cos(alpha_j)
sa = [Var.make("sa%d" % j) for j in range(N)]   # sin(alpha_j)
a_s = arr("a", N)
d_s = arr("d", N)
dq_s = arr("dq", N)
ddq_s = arr("ddq", N)
g0 = Var.make("g0")
R_s = arr("R", N, 3, 3)
p_s = arr("p", N, 3)
A_s = arr("A", N, 6, 7)
D_s = arr("D", N, N, 6)
Y_s = arr("Y", N, 36)
std_s = arr("standard", 10 * N)
P_s = arr("P", 36)


def base_column(j, k):
    """Column of Y for link j (0-based) and kept index k (0..6)."""
    return 0 if j == 0 else 1 + 7 * (j - 1) + k


def link_rotation(c, s, cal, sal):
    """Rotation of link frame j in frame j-1: Rx(alpha_j) Rz(theta_j)."""
    return sp.Matrix([[c, -s, 0], [cal * s, cal * c, -sal], [sal * s, sal * c, cal]])


# ---------------------------------------------------------------- regressor

def derive_regressor():
    """Blocks of the three stages of the regressor (Newton-Euler in regressor form)."""
    # Stage 1: outward pass. Link j's rotation R_j and origin p_j in frame j-1,
    # its angular velocity w, angular acceleration dw and the linear
    # acceleration dv of its origin (all in frame j), and its wrench per unit
    # parameter A_j (6 x 10; the kept columns only).
    ta = Block("t")
    w = sp.zeros(3, 1)
    dw = sp.zeros(3, 1)
    dv = sp.Matrix([0, 0, g0])
    phi = sp.symbols("XX XY XZ YY YZ ZZ MX MY MZ M", real=True)
    inertia = sp.Matrix([[phi[0], phi[1], phi[2]], [phi[1], phi[3], phi[4]], [phi[2], phi[4], phi[5]]])
    ms = sp.Matrix(phi[6:9])
    z = sp.Matrix([0, 0, 1])
    kept_cols = {}
    for j in range(N):
        ta.comment("link %d" % (j + 1))
        R = link_rotation(q_c[j], q_s[j], ca[j], sa[j])
        Rsym = ta.group(list(R), [R_s[j][r][c] for r in range(3) for c in range(3)], store=True)
        R = sp.Matrix(3, 3, Rsym)
        p = ta.group([a_s[j], -sa[j] * d_s[j], ca[j] * d_s[j]], p_s[j], store=True)
        p = sp.Matrix(p)
        Rt = R.T
        wr = Rt * w
        w_new = wr + dq_s[j] * z
        dw_new = Rt * dw + ddq_s[j] * z + cross(wr, dq_s[j] * z)
        dv_new = Rt * (dv + cross(dw, p) + cross(w, cross(w, p)))
        names = lambda base: [Var.make("%s%d%s" % (base, j + 1, ax)) for ax in "xyz"]
        w = sp.Matrix(ta.group(list(w_new), names("w"), store=False))
        dw = sp.Matrix(ta.group(list(dw_new), names("dw"), store=False))
        dv = sp.Matrix(ta.group(list(dv_new), names("dv"), store=False))
        f = phi[9] * dv + cross(dw, ms) + cross(w, cross(w, ms))
        n = inertia * dw + cross(w, inertia * w) + cross(ms, dv)
        wrench = sp.Matrix([f, n]).jacobian(sp.Matrix(phi))
        cols = KEPT_LINK1 if j == 0 else KEPT
        exprs, targets = [], []
        for k, col in enumerate(cols):
            for r in range(6):
                exprs.append(sp.expand(wrench[r, col]))
                targets.append(A_s[j][r][k])
        vals = ta.group(exprs, targets, store=True)
        kept_cols[j] = [sp.Matrix(vals[6 * k:6 * k + 6]) for k in range(len(cols))]

    # Stage 2: z-moment rows of the chained wrench transforms. D[i][j] (6,
    # force part then moment part) maps a wrench at link j's origin in frame j
    # to the moment about joint i's axis; for i = j it is (0,0,0, 0,0,1).
    dd = Block("u")
    rows = {}
    for i in range(N):
        r = sp.Matrix([0, 0, 0, 0, 0, 1])
        rows[(i, i)] = r
        if i < N - 1:
            dd.comment("joint %d" % (i + 1))
        for j in range(i + 1, N):
            R = sp.Matrix(3, 3, [R_s[j][a][b] if (a, b) != (0, 2) else 0 for a in range(3) for b in range(3)])
            p = sp.Matrix(p_s[j])
            rf, rn = r[:3, 0], r[3:, 0]
            new = list(R.T * (rf + cross(rn, p))) + list(R.T * rn)
            r = sp.Matrix(dd.group(new, D_s[i][j], store=True))
            rows[(i, j)] = r

    # Stage 3: row i of Y: the z-moment rows applied to the blocks of links i..6.
    yy = Block("v")
    for i in range(N):
        yy.comment("joint %d" % (i + 1))
        exprs, targets = [], []
        for j in range(N):
            for k in range(len(kept_cols[j])):
                col = base_column(j, k)
                e = (rows[(i, j)].T * kept_cols[j][k])[0, 0] if j >= i else sp.Integer(0)
                exprs.append(e)
                targets.append(Y_s[i][col])
        for e, t in zip(exprs, targets):
            yy.set(t, e)
    return ta, dd, yy


def derive_base_map():
    """Regrouping of the 60 standard parameters into the 36 base ones.

    For j = 6 down to 2, the part of link j made of YY_j (as the inertia
    diag(YY_j, YY_j, 0)), MZ_j and M_j is symmetric about joint j's axis and
    has no inertia about it: it moves exactly like a body fixed to link j-1 at
    theta_j = 0, so it is transferred to link j-1 (rotation Rx(alpha_j),
    origin p_j, parallel-axis terms), leaving XXR_j = XX_j - YY_j. Link 1
    turns about the vertical: only ZZR1 acts on the torques. Link j-1's
    accumulated parameters become locals (XX5, ..., M5 for link 5) before
    they are moved on in turn."""
    blk = Block("t")
    params = [[std_s[10 * j + k] for k in range(10)] for j in range(N)]
    for j in range(N - 1, 0, -1):
        blk.comment("link %d's YY, MZ, M into link %d" % (j + 1, j))
        XX, XY, XZ, YY, YZ, ZZ, MX, MY, MZ, M = params[j]
        Jm = sp.diag(YY, YY, 0)
        msm = sp.Matrix([0, 0, MZ])
        Rx = sp.Matrix([[1, 0, 0], [0, ca[j], -sa[j]], [0, sa[j], ca[j]]])
        p = sp.Matrix([a_s[j], -sa[j] * d_s[j], ca[j] * d_s[j]])
        c = Rx * msm
        E = sp.eye(3)
        Jp = Rx * Jm * Rx.T + M * ((p.T * p)[0] * E - p * p.T) + 2 * (p.T * c)[0] * E - p * c.T - c * p.T
        msp = c + M * p
        prev = params[j - 1]
        add = [Jp[0, 0], Jp[0, 1], Jp[0, 2], Jp[1, 1], Jp[1, 2], Jp[2, 2], msp[0], msp[1], msp[2], M]
        new = [prev[k] + add[k] for k in range(10)]
        keep = [5] if j == 1 else range(10)  # link 1: ZZR1 only
        names = [Var.make("%s%d" % (STD_NAMES[k], j)) for k in range(10)]
        vals = blk.group([sp.expand(new[k]) for k in keep], [names[k] for k in keep], store=False)
        params[j - 1] = [None] * 10
        for k, v in zip(keep, vals):
            params[j - 1][k] = v
        params[j] = [XX - YY, XY, XZ, 0, YZ, ZZ, MX, MY, 0, 0]
    out = [params[0][5]]
    for j in range(1, N):
        out += [params[j][k] for k in KEPT]
    blk.comment("ZZR1, then for links 2..6: " + ", ".join(BASE_NAMES))
    for sym, e in zip(P_s, out):
        blk.set(sym, e)
    return blk


# ---------------------------------------------------------------- Jacobian

def derive_jacobian():
    blk = Block("t")
    T_R = sp.eye(3)
    T_p = sp.zeros(3, 1)
    z_axes, origins = [], []
    for j in range(N):
        cal, sal = math.cos(JAC_ALPHA[j]), math.sin(JAC_ALPHA[j])
        num = lambda v: sp.Integer(int(v)) if v == int(v) else sp.Float(v)
        R = link_rotation(q_c[j], q_s[j], num(cal), num(sal))
        p = sp.Matrix([a_s[j], -num(sal) * d_s[j], num(cal) * d_s[j]])
        new_p = T_p + T_R * p
        new_R = T_R * R
        names_R = [Var.make("R%d%d%d" % (j + 1, r, c)) for r in range(3) for c in range(3)]
        names_p = [Var.make("o%d%s" % (j + 1, ax)) for ax in "xyz"]
        # Only the z column of the intermediate frames and the origins matter;
        # the full rotation is needed to continue the chain.
        need_R = j < N - 1
        vals = blk.group([sp.expand(e) for e in (list(new_R) if need_R else list(new_R[:, 2]))],
                         names_R if need_R else [names_R[2], names_R[5], names_R[8]], store=False)
        if need_R:
            T_R = sp.Matrix(3, 3, vals)
        else:
            T_R = sp.Matrix(3, 3, [0, 0, vals[0], 0, 0, vals[1], 0, 0, vals[2]])
        T_p = sp.Matrix(blk.group([sp.expand(e) for e in new_p], names_p, store=False))
        z_axes.append(T_R[:, 2])
        origins.append(T_p)
    J = arr("J", 36)
    entries = [None] * 36
    for j in range(N):
        lin = cross(z_axes[j], origins[-1] - origins[j])
        for r in range(3):
            entries[6 * r + j] = lin[r]
            entries[6 * (r + 3) + j] = z_axes[j][r]
    vals = blk.group(entries, J, store=True)
    for v, t in zip(vals, J):
        if v == 0:
            blk.set(t, sp.Integer(0))
    return blk


# ---------------------------------------------------------------- checks

def compile_blocks(blocks):
    return compile("\n".join(b.python() for b in blocks), "<generated>", "exec")


def regressor_env(code, theta, dq, ddq, a, alpha, d, g, m=math):
    env = {}
    for j in range(N):
        env["c%d" % j], env["s%d" % j] = m.cos(theta[j]), m.sin(theta[j])
        env["ca%d" % j], env["sa%d" % j] = m.cos(alpha[j]), m.sin(alpha[j])
        env["a_%d" % j], env["d_%d" % j] = a[j], d[j]
        env["dq_%d" % j], env["ddq_%d" % j] = dq[j], ddq[j]
    env["g0"] = g
    exec(code, env)
    return [[env.get("Y_%d_%d" % (i, c), 0) for c in range(36)] for i in range(N)]


def base_params(code, a, alpha, d, std):
    env = {"standard_%d" % k: std[k] for k in range(60)}
    for j in range(N):
        env["ca%d" % j], env["sa%d" % j] = math.cos(alpha[j]), math.sin(alpha[j])
        env["a_%d" % j], env["d_%d" % j] = a[j], d[j]
    exec(code, env)
    return [env["P_%d" % k] for k in range(36)]


def mat3(rows):
    return [list(r) for r in rows]


def mv(M, v):
    return [sum(M[i][k] * v[k] for k in range(3)) for i in range(3)]


def mtv(M, v):
    return [sum(M[k][i] * v[k] for k in range(3)) for i in range(3)]


def vcross(u, v):
    return [u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]]


def vadd(*vs):
    return [sum(x) for x in zip(*vs)]


def numeric_rnea(theta, dq, ddq, a, alpha, d, g, std):
    """Plain Newton-Euler (independent of the symbolic code): joint torques."""
    w, dw, dv = [0.0] * 3, [0.0] * 3, [0.0, 0.0, g]
    Rs, ps, fs, ns = [], [], [], []
    for j in range(N):
        c, s, cal, sal = math.cos(theta[j]), math.sin(theta[j]), math.cos(alpha[j]), math.sin(alpha[j])
        R = mat3([[c, -s, 0], [cal * s, cal * c, -sal], [sal * s, sal * c, cal]])
        p = [a[j], -sal * d[j], cal * d[j]]
        z = [0.0, 0.0, 1.0]
        wr = mtv(R, w)
        dv = mtv(R, vadd(dv, vcross(dw, p), vcross(w, vcross(w, p))))
        dw = vadd(mtv(R, dw), [0, 0, ddq[j]], vcross(wr, [0, 0, dq[j]]))
        w = vadd(wr, [x * dq[j] for x in z])
        XX, XY, XZ, YY, YZ, ZZ, MX, MY, MZ, M = std[10 * j:10 * j + 10]
        I = [[XX, XY, XZ], [XY, YY, YZ], [XZ, YZ, ZZ]]
        msv = [MX, MY, MZ]
        f = vadd([M * x for x in dv], vcross(dw, msv), vcross(w, vcross(w, msv)))
        n = vadd(mv(I, dw), vcross(w, mv(I, w)), vcross(msv, dv))
        Rs.append(R)
        ps.append(p)
        fs.append(f)
        ns.append(n)
    tau = [0.0] * N
    f_next, n_next = [0.0] * 3, [0.0] * 3
    for j in range(N - 1, -1, -1):
        if j < N - 1:
            Rf = mv(Rs[j + 1], f_next)
            n = vadd(ns[j], mv(Rs[j + 1], n_next), vcross(ps[j + 1], Rf))
            f = vadd(fs[j], Rf)
        else:
            f, n = fs[j], ns[j]
        tau[j] = n[2]
        f_next, n_next = f, n
    return tau


def fk_ur_position(q, L):
    """fk_ur's closed-form flange position (src/kinematics.cpp), mm."""
    d1, d4, d5, d6, a2, a3 = L
    t2 = q[1] + HALF_PI
    t4 = q[3] - HALF_PI
    c1, s1 = math.cos(q[0]), math.sin(q[0])
    c2, s2 = math.cos(t2), math.sin(t2)
    c5, s5 = math.cos(q[4]), math.sin(q[4])
    s23, c23 = math.sin(t2 + q[2]), math.cos(t2 + q[2])
    s234, c234 = math.sin(t2 + q[2] + t4), math.cos(t2 + q[2] + t4)
    ax = s1 * c5 + c1 * c234 * s5
    ay = -c1 * c5 + s1 * c234 * s5
    return [d4 * s1 - d5 * c1 * s234 + d6 * ax + a3 * c1 * c23 + a2 * c1 * c2,
            -d4 * c1 - d5 * s1 * s234 + d6 * ay + a3 * s1 * c23 + a2 * s1 * c2,
            d1 + a2 * s2 + a3 * s23 + d5 * c234 + d6 * s5 * s234]


def mdh_flange(theta, a, alpha, d):
    R = [[1.0, 0, 0], [0, 1.0, 0], [0, 0, 1.0]]
    o = [0.0] * 3
    for j in range(N):
        c, s, cal, sal = math.cos(theta[j]), math.sin(theta[j]), math.cos(alpha[j]), math.sin(alpha[j])
        Rj = [[c, -s, 0], [cal * s, cal * c, -sal], [sal * s, sal * c, cal]]
        o = vadd(o, mv(R, [a[j], -sal * d[j], cal * d[j]]))
        R = [[sum(R[r][k] * Rj[k][cc] for k in range(3)) for cc in range(3)] for r in range(3)]
    return o, R


def jacobian_env(code, a, d, q):
    theta = [q[0], q[1] + HALF_PI, q[2], q[3] - HALF_PI, q[4], q[5]]
    env = {}
    for j in range(N):
        env["c%d" % j], env["s%d" % j] = math.cos(theta[j]), math.sin(theta[j])
        env["a_%d" % j], env["d_%d" % j] = a[j], d[j]
    exec(code, env)
    return [env["J_%d" % k] for k in range(36)]


def verify(regressor_blocks, base_blk, jac_blk):
    rng = random.Random(20240607)
    reg_code = compile_blocks(regressor_blocks)
    map_code = compile_blocks([base_blk])
    unif = lambda lo, hi: rng.uniform(lo, hi)

    # Y60 p == Y36 map(p) and the independent Newton-Euler torques, at random
    # geometry (vertical joint 1) and the demo arm.
    worst_reg, worst_tau = 0.0, 0.0
    for trial in range(40):
        if trial % 2:
            a, d, alpha = DEMO_A, DEMO_D, DEMO_ALPHA
        else:
            a = [unif(-0.3, 0.3) for _ in range(N)]
            d = [unif(-0.3, 0.3) for _ in range(N)]
            alpha = [0.0] + [unif(-math.pi, math.pi) for _ in range(N - 1)]
        theta = [unif(-math.pi, math.pi) for _ in range(N)]
        dq = [unif(-3, 3) for _ in range(N)]
        ddq = [unif(-10, 10) for _ in range(N)]
        std = [unif(-1, 1) for _ in range(60)]
        Y = regressor_env(reg_code, theta, dq, ddq, a, alpha, d, GRAVITY)
        P = base_params(map_code, a, alpha, d, std)
        tau36 = [sum(Y[i][c] * P[c] for c in range(36)) for i in range(N)]
        Y60 = [[0.0] * 60 for _ in range(N)]
        for k in range(60):
            unit = [0.0] * 60
            unit[k] = 1.0
            col = numeric_rnea(theta, dq, ddq, a, alpha, d, GRAVITY, unit)
            for i in range(N):
                Y60[i][k] = col[i]
        tau60 = [sum(Y60[i][k] * std[k] for k in range(60)) for i in range(N)]
        tau = numeric_rnea(theta, dq, ddq, a, alpha, d, GRAVITY, std)
        scale = max(1.0, max(abs(x) for x in tau))
        worst_reg = max(worst_reg, max(abs(x - y) for x, y in zip(tau60, tau36)) / scale)
        worst_tau = max(worst_tau, max(abs(x - y) for x, y in zip(tau, tau36)) / scale)
    print("regrouping: max |Y60 p - Y36 map(p)| / max|tau| = %.2e over 40 states" % worst_reg)
    print("regressor:  max |tau(Newton-Euler) - Y36 map(p)| / max|tau| = %.2e" % worst_tau)
    if worst_reg > 1e-10 or worst_tau > 1e-10:
        sys.exit("gen_dynamics: the regressor or the regrouping does not reproduce the torques")

    # Rank of the stacked regressor at the demo geometry (mpmath, 30 digits).
    mpmath.mp.dps = 30
    rows, states = [], []
    for _ in range(20):
        theta = [mpmath.mpf(unif(-math.pi, math.pi)) for _ in range(N)]
        dq = [mpmath.mpf(unif(-3, 3)) for _ in range(N)]
        ddq = [mpmath.mpf(unif(-10, 10)) for _ in range(N)]
        alpha = [mpmath.mpf(x) for x in DEMO_ALPHA]
        Y = regressor_env(reg_code, theta, dq, ddq, [mpmath.mpf(x) for x in DEMO_A], alpha,
                          [mpmath.mpf(x) for x in DEMO_D], mpmath.mpf(GRAVITY), m=mpmath)
        rows += Y
        states.append((theta, dq, ddq))
    S = mpmath.svd_r(mpmath.matrix(rows), compute_uv=False)
    sv = sorted((S[k] for k in range(S.rows)), reverse=True)
    tol = sv[0] * mpmath.mpf(10) ** -20
    rank = sum(1 for s in sv if s > tol)
    print("rank of the stacked regressor (20 states, 120 x 36, demo geometry): %d; "
          "singular values %.3e .. %.3e (ratio %.2e)" % (rank, sv[0], sv[-1], sv[-1] / sv[0]))
    if rank != 36:
        sys.exit("gen_dynamics: the base-parameter columns are not independent (rank %d)" % rank)
    mpmath.mp.dps = 15

    # The same states with all 60 standard columns (numeric Newton-Euler, one
    # unit parameter at a time): rank 36 too, so no dependency is left over.
    rows60 = []
    for t in range(20):
        theta = [float(x) for x in states[t][0]]
        dq, ddq = [float(x) for x in states[t][1]], [float(x) for x in states[t][2]]
        cols = [numeric_rnea(theta, dq, ddq, DEMO_A, DEMO_ALPHA, DEMO_D, GRAVITY,
                             [1.0 if k == c else 0.0 for k in range(60)]) for c in range(60)]
        rows60 += [[cols[c][i] for c in range(60)] for i in range(N)]
    S60 = mpmath.svd_r(mpmath.matrix(rows60), compute_uv=False)
    sv60 = sorted((S60[k] for k in range(S60.rows)), reverse=True)
    rank60 = sum(1 for s in sv60 if s > sv60[0] * 1e-10)
    print("rank of the stacked 60-column regressor (same states): %d; singular value 36 / 37: %.2e / %.2e"
          % (rank60, sv60[35] / sv60[0], sv60[36] / sv60[0]))
    if rank60 != 36:
        sys.exit("gen_dynamics: the standard regressor has rank %d, not 36" % rank60)

    # Flange position of the modified-DH chain vs fk_ur, and the generated
    # Jacobian vs central differences of that chain (demo geometry, mm).
    jac_code = compile_blocks([jac_blk])
    a_mm = [1000 * x for x in DEMO_A]
    d_mm = [1000 * x for x in DEMO_D]
    L = [d_mm[0], d_mm[3], d_mm[4], d_mm[5], a_mm[2], a_mm[3]]
    worst_fk, worst_jac = 0.0, 0.0
    for _ in range(200):
        q = [unif(-2 * math.pi, 2 * math.pi) for _ in range(N)]
        theta = lambda v: [v[0], v[1] + HALF_PI, v[2], v[3] - HALF_PI, v[4], v[5]]
        o, _ = mdh_flange(theta(q), a_mm, JAC_ALPHA, d_mm)
        worst_fk = max(worst_fk, max(abs(x - y) for x, y in zip(o, fk_ur_position(q, L))))
        J = jacobian_env(jac_code, a_mm, d_mm, q)
        h = 1e-6
        for j in range(N):
            qp, qm = list(q), list(q)
            qp[j] += h
            qm[j] -= h
            op, Rp = mdh_flange(theta(qp), a_mm, JAC_ALPHA, d_mm)
            om, Rm = mdh_flange(theta(qm), a_mm, JAC_ALPHA, d_mm)
            _, R0 = mdh_flange(theta(q), a_mm, JAC_ALPHA, d_mm)
            dR = [[(Rp[r][c] - Rm[r][c]) / (2 * h) for c in range(3)] for r in range(3)]
            W = [[sum(dR[r][k] * R0[c][k] for k in range(3)) for c in range(3)] for r in range(3)]
            fd = [(op[r] - om[r]) / (2 * h) for r in range(3)] + [W[2][1], W[0][2], W[1][0]]
            for r in range(6):
                worst_jac = max(worst_jac, abs(J[6 * r + j] - fd[r]) / (1000.0 if r < 3 else 1.0))
    print("flange: max |MDH chain - fk_ur| = %.2e mm over 200 joint vectors" % worst_fk)
    print("jacobian: max |J - central differences| = %.2e (rad/rad; mm/rad / 1000)" % worst_jac)
    if worst_fk > 1e-9 or worst_jac > 1e-7:
        sys.exit("gen_dynamics: the Jacobian's frames do not agree with fk_ur")


# ---------------------------------------------------------------- emission

def header(what):
    return ("// Generated by %s (SymPy %s). Do not edit:\n"
            "// this file is generated; change tools/gen_dynamics.py and regenerate.\n"
            "// %s.\n" % (COMMAND, sp.__version__, what[0].upper() + what[1:]))


def trig_prologue(indent, pairs, used):
    """const double cos/sin pairs of the given arguments, those the code reads."""
    lines = []
    for cname, sname, arg in pairs:
        decl = ["%s = std::%s(%s)" % (name, fn, arg)
                for name, fn in ((cname, "cos"), (sname, "sin")) if name in used]
        if decl:
            lines.append("%sconst double %s;" % (indent, ", ".join(decl)))
    return "\n".join(lines)


def joint_pairs(args):
    return [("c%d" % j, "s%d" % j, args[j]) for j in range(N)]


def alpha_pairs():
    return [("ca%d" % j, "sa%d" % j, "alpha[%d]" % j) for j in range(N)]


def emit_regressor(ta, dd, yy, base_blk):
    q_names = ["q[%d]" % j for j in range(N)]
    parts = [header("rigid-body dynamics regressor and base-parameter map of the six-axis arm"), """\
//
// Newton-Euler in the form linear in the inertial parameters (modified DH,
// see dynamics.h for the model and the parameter order), split in three
// stages of straight-line code with fixed local storage:
//   calculate_T_A   outward pass: link j's rotation R[j] and origin p[j] in
//                   frame j-1; its angular velocity, angular acceleration and
//                   origin acceleration (frame j); its wrench per unit
//                   parameter A[j] (force rows 0..2, moment rows 3..5 about
//                   origin j, frame j), of the columns kept in the base set
//                   only (XX, XY, XZ, YZ, ZZ, MX, MY; ZZ for link 1; the YY,
//                   MZ and M columns are regrouped into the previous link).
//   calculate_d     D[i][j]: the z-moment row of the chained 6 x 6 wrench
//                   transform from link j to link i (j > i): the torque about
//                   joint i's axis of a unit wrench at link j's origin.
//   assemble_Y      Y[i][col of link j] = D[i][j] . A[j] column (j > i),
//                   A[i]'s z-moment row (j = i), 0 (j < i).
// The base parameters assume joint 1 turns about the vertical
// (sin(alpha[0]) = 0): link 1 then contributes ZZR1 only.
#include <cmath>

#include "dynamics.h"

namespace {

// R[j][r][c], p[j][r]: link j's frame in frame j-1 (R[j][0][2] = 0 is not
// stored); A[j][row][k]: wrench of link j per unit of its k-th kept parameter
// (zero entries are not stored). g0: upward base acceleration, m/s^2.
void calculate_T_A(double g0, const double* q, const double* dq, const double* ddq, const double* a,
                   const double* alpha, const double* d, double (*R)[3][3], double (*p)[3],
                   double (*A)[6][7]) {
""", trig_prologue("    ", joint_pairs(q_names) + alpha_pairs(), ta.used()), ta.cxx(), """}

// D[i][j][0..5], j > i (zero entries are not stored).
void calculate_d(const double (*R)[3][3], const double (*p)[3], double (*D)[6][6]) {
""", dd.cxx(), """}

void assemble_Y(const double (*A)[6][7], const double (*D)[6][6], double (*Y)[36]) {
""", yy.cxx(), """}

void regressor(double g0, const double* q, const double* dq, const double* ddq, const double* a,
               const double* alpha, const double* d, double (*Y)[36]) {
    double R[6][3][3], p[6][3], A[6][6][7], D[6][6][6];
    calculate_T_A(g0, q, dq, ddq, a, alpha, d, R, p, A);
    calculate_d(R, p, D);
    assemble_Y(A, D, Y);
}

constexpr double kZero[6] = {0, 0, 0, 0, 0, 0};

}  // namespace

void parameter_linearization(const double* q, const double* dq, const double* ddq, const double* a,
                             const double* alpha, const double* d, double (*Y)[36]) {
    regressor(kGravity, q, dq, ddq, a, alpha, d, Y);
}

void calculate_gravity(const double* geometry, const double* q, double (*Y)[36]) {
    regressor(kGravity, q, kZero, kZero, geometry, geometry + 6, geometry + 12, Y);
}

void calculate_cg(const double* geometry, const double* q, const double* dq, double (*Y)[36]) {
    regressor(kGravity, q, dq, kZero, geometry, geometry + 6, geometry + 12, Y);
}

void calculate_moment(const double* geometry, const double* q, const double* ddq, double (*Y)[36]) {
    regressor(0.0, q, kZero, ddq, geometry, geometry + 6, geometry + 12, Y);
}

void calculate_torque_matrix(const double* geometry, const double* q, const double* dq, const double* ddq,
                             double (*Y)[36]) {
    regressor(kGravity, q, dq, ddq, geometry, geometry + 6, geometry + 12, Y);
}

// For j = 6 down to 2, link j's YY (as the inertia diag(YY, YY, 0)), MZ and M
// form a body symmetric about joint j's axis with no inertia about it; it
// moves as if fixed to link j-1 (at theta_j = 0) and is transferred there,
// leaving XXR_j = XX_j - YY_j. Link 1 keeps ZZR1 only.
void standard_to_base_parameters(const double* a, const double* alpha, const double* d, const double* standard,
                                 double* P) {
""", trig_prologue("    ", alpha_pairs(), base_blk.used()), base_blk.cxx(), "}\n"]
    return "\n".join(x.rstrip("\n") for x in parts) + "\n"


def emit_jacobian(blk):
    joints = ["q[0]", "q[1] + kHalfPi", "q[2]", "q[3] - kHalfPi", "q[4]", "q[5]"]
    return "\n".join([header("geometric Jacobian of the six-axis arm's flange").rstrip("\n"), """\
//
// Modified-DH chain with the twist angles fixed at (0, pi/2, 0, 0, -pi/2,
// pi/2), evaluated as doubles (hence the cos(pi/2) = 6.123233995736766e-17
// terms); joints 2 and 4 are shifted by the full-precision pi/2 as in fk_ur.
// Column j = z_j x (o_6 - o_j) (linear, rows 0..2) and z_j (angular, rows
// 3..5), base frame, o_6 the flange origin.
#include <cmath>

#include "kinematics.h"

namespace {
constexpr double kHalfPi = %s;
}  // namespace

void calculate_jacobian_ur(const double* a, const double* d, const double* q, double* J) {""" % repr(HALF_PI),
        trig_prologue("    ", joint_pairs(joints), blk.used()), blk.cxx(), "}"]) + "\n"


def main():
    t0 = time.time()
    ta, dd, yy = derive_regressor()
    base_blk = derive_base_map()
    jac_blk = derive_jacobian()
    t1 = time.time()
    print("derived in %.1f s: outward pass %d ops, chained rows %d ops, assembly %d ops, "
          "base map %d ops, Jacobian %d ops" % (t1 - t0, ta.ops(), dd.ops(), yy.ops(), base_blk.ops(), jac_blk.ops()))
    verify([ta, dd, yy], base_blk, jac_blk)
    t2 = time.time()
    print("verified in %.1f s" % (t2 - t1))
    files = {
        os.path.join(ROOT, "src", "dynamics_regressor.cpp"): emit_regressor(ta, dd, yy, base_blk),
        os.path.join(ROOT, "src", "jacobian_generated.cpp"): emit_jacobian(jac_blk),
    }
    for path, text in files.items():
        with open(path, "w") as f:
            f.write(text)
        print("wrote %s (%d lines)" % (os.path.relpath(path, ROOT), text.count("\n")))
    print("total %.1f s" % (time.time() - t0))


if __name__ == "__main__":
    main()
