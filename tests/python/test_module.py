"""The tql module against independent numpy models, invariants and the database read by sqlite3."""
import os
import sqlite3
import tempfile
import unittest

import numpy as np

import tql

# Demo arm (GL_6L3). L in database order d1, a2, a3, d4, d5, d6 (mm); modified DH
# as in demo/arm.urdf's header: frame i = frame(i-1) Rx(alpha) Tx(a) Rz(q + offset) Tz(d).
L = np.array([152.0, 244.0, 213.0, 112.0, 85.0, 82.0])
ALPHA = np.array([0, np.pi / 2, 0, 0, -np.pi / 2, np.pi / 2])
A = np.array([0, 0, 244.0, 213.0, 0, 0])
D = np.array([152.0, 0, 0, 112.0, 85.0, 82.0])
OFFSET = np.array([0, np.pi / 2, 0, -np.pi / 2, 0, 0])


def mdh_pose(q):
    T = np.eye(4)
    for al, a, d, th in zip(ALPHA, A, D, q + OFFSET):
        ca, sa, ct, st = np.cos(al), np.sin(al), np.cos(th), np.sin(th)
        T = T @ np.array([[ct, -st, 0, a], [st * ca, ct * ca, -sa, -d * sa], [st * sa, ct * sa, ca, d * ca], [0, 0, 0, 1]])
    return T


class Kinematics(unittest.TestCase):
    def setUp(self):
        self.qs = np.random.default_rng(7).uniform(-np.pi, np.pi, (200, 6))

    def test_fk_is_the_mdh_product(self):
        for q in self.qs:
            np.testing.assert_allclose(tql.fk_ur(q, L), mdh_pose(q), atol=1e-9)

    def test_ik_returns_the_joints_nearest_the_seed(self):
        rng = np.random.default_rng(8)
        # Away from the wrist and elbow singularities (q5, q3 near 0 or pi), which amplify the
        # 2.7e-8 rad pi/2 truncation between fk and ik on joints 2 and 4.
        for q in self.qs[np.min(np.abs(np.sin(self.qs[:, [2, 4]])), axis=1) > 1e-2]:
            T = tql.fk_ur(q, L)
            sol = tql.ik_ur(T, L, seed=q + rng.normal(0, 1e-3, 6))
            np.testing.assert_allclose(tql.fk_ur(sol, L), T, atol=1e-4)  # pi/2 truncation: 2.7e-8 rad
            np.testing.assert_allclose(sol, q, atol=1e-5)

    def test_ik_refusals(self):
        far = np.eye(4)
        far[:3, 3] = (3000, 0, 500)
        for T, code in ((tql.fk_ur([0.3, 0.2, 0.5, 0.1, 0, 0.4], L), -3), (far, -5), (np.full((4, 4), np.nan), -6)):
            with self.assertRaisesRegex(ValueError, f"code {code}"):
                tql.ik_ur(T, L)
        for args in (([1, 2], L), (np.zeros(6), L[:5]), (np.zeros((6, 1)), L)):
            self.assertRaises(ValueError, tql.fk_ur, *args)

    def test_jacobian_is_the_derivative_of_fk(self):
        h = 1e-6
        for q in self.qs[:20]:
            J = np.empty((6, 6))
            for k in range(6):
                e = np.eye(6)[k] * h
                Tp, Tm = tql.fk_ur(q + e, L), tql.fk_ur(q - e, L)
                W = (Tp[:3, :3] - Tm[:3, :3]) / (2 * h) @ tql.fk_ur(q, L)[:3, :3].T
                J[:, k] = np.r_[(Tp[:3, 3] - Tm[:3, 3]) / (2 * h), W[2, 1], W[0, 2], W[1, 0]]
            np.testing.assert_allclose(tql.jacobian_ur(A, D, q), J, atol=1e-5)


class Profile(unittest.TestCase):
    def test_invariants(self):
        dt = 0.004
        for h, v, a, j in ((2.0, 1.5, 3.0, 15.0), (0.01, 1.5, 3.0, 15.0), (0.2, 1.0, 10.0, 20.0),
                           (500.0, 250.0, 1000.0, 5000.0), (0.0, 1.0, 1.0, 1.0)):
            p = tql.speed_profile(h, v, a, j)
            t, s, vel, acc, jerk = p
            np.testing.assert_allclose(t, dt * np.arange(len(t)), atol=1e-12)
            np.testing.assert_allclose([s[0], vel[0], acc[0], s[-1], vel[-1], acc[-1]], [0, 0, 0, h, 0, 0], atol=1e-9 * max(h, 1))
            self.assertTrue(np.all(np.diff(s) >= -1e-12))
            for x, limit in ((vel, v), (acc, a), (jerk, j)):
                self.assertLessEqual(np.abs(x).max(), limit * (1 + 1e-9))
            # Exact piecewise polynomials: a linear, s cubic between samples (phase ends lie on samples).
            np.testing.assert_allclose(np.diff(acc), jerk[1:] * dt, atol=1e-9 * max(h, 1))
            np.testing.assert_allclose(np.diff(vel), (acc[1:] + acc[:-1]) * dt / 2, atol=1e-9 * max(h, 1))
            np.testing.assert_allclose(np.diff(s), (vel[1:] + vel[:-1]) * dt / 2 - jerk[1:] * dt**3 / 12, atol=1e-9 * max(h, 1))
        for args in ((-1.0, 1, 1, 1), (1.0, 0, 1, 1), (1.0, 1, np.nan, 1), (np.inf, 1, 1, 1)):
            self.assertRaises(ValueError, tql.speed_profile, *args)


class Dynamics(unittest.TestCase):
    def test_inverse_dynamics_is_the_regressor_times_P(self):
        rng = np.random.default_rng(9)
        a, d = A / 1000, D / 1000
        for _ in range(50):
            q, dq, ddq, P = rng.normal(0, 1, 6), rng.normal(0, 1, 6), rng.normal(0, 1, 6), rng.normal(0, 1, 36)
            np.testing.assert_allclose(tql.inverse_dynamics(a, d, q, dq, ddq, P), tql.regressor(a, d, q, dq, ddq) @ P,
                                       rtol=1e-12, atol=1e-12)
        self.assertRaises(ValueError, tql.inverse_dynamics, a, d, q, dq, ddq, P[:35])


class Files(unittest.TestCase):
    def test_trajectory_round_trip_and_refusals(self):
        data = np.random.default_rng(10).uniform(-200, 200, (300, 6))
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "t.txt")
            tql.write_trajectory(path, data)
            np.testing.assert_allclose(tql.read_trajectory(path), data, rtol=5e-6, atol=1e-9)
            self.assertEqual(tql.read_trajectory(path, cols=2, max_rows=7).shape, (7, 2))
            for bad in (data[0], data[:0], np.zeros((2, 0))):
                self.assertRaises(ValueError, tql.write_trajectory, path, bad)
            open(os.path.join(tmp, "empty.txt"), "w").close()
            self.assertRaises(ValueError, tql.read_trajectory, os.path.join(tmp, "empty.txt"))
            self.assertRaises(ValueError, tql.read_trajectory, path, cols=0)
            self.assertRaises(FileNotFoundError, tql.read_trajectory, os.path.join(tmp, "missing.txt"))
            self.assertRaises(OSError, tql.write_trajectory, os.path.join(tmp, "no", "t.txt"), data)
            self.assertEqual(sorted(os.listdir(tmp)), ["empty.txt", "t.txt"])

    @unittest.skipUnless(os.environ.get("TQL_DEMO_DB"), "TQL_DEMO_DB: the build's demo/parameter.db")
    def test_robot_parameters(self):
        db = os.environ["TQL_DEMO_DB"]
        p = tql.read_robot_parameters(db)
        with sqlite3.connect(db) as c:
            row = lambda i: [float(x) for x in c.execute("SELECT VALUE FROM GL_6L3 WHERE ID=?", (i,)).fetchone()[0].strip("[]").split(",")]
            expected = {"joint_speed_deg_s": row(1), "joint_acceleration_deg_s2": row(2), "joint_jerk_deg_s3": row(3),
                        "line_limits": row(4) + row(5) + row(6), "rotate_limits_deg": row(7) + row(8) + row(9),
                        "direction": row(11), "L": row(12), "dynamic_parameters": row(13)[:36]}
        self.assertEqual((p["robot_type"], p["robot_type_code"], p["joints"]), ("GL_6L3", 1, 6))
        for key, value in expected.items():
            np.testing.assert_allclose(p[key], value, rtol=1e-15, err_msg=key)
        np.testing.assert_array_equal(p["reduction_ratio"], np.full(6, 36.0))
        # The demo arm stretched out horizontally holds about 7.36 N*m at joint 2, 2.74 N*m at joint 3.
        tau = tql.inverse_dynamics(A / 1000, D / 1000, [0, np.pi / 2, 0, 0, 0, 0], np.zeros(6), np.zeros(6), p["dynamic_parameters"])
        np.testing.assert_allclose(np.abs(tau[1:3]), [7.36, 2.74], rtol=0.02)
        with tempfile.TemporaryDirectory() as tmp:
            self.assertRaises(FileNotFoundError, tql.read_robot_parameters, os.path.join(tmp, "missing.db"))
            for kind, args, error in (("NOPE", {}, ValueError), ("FREE_COMBINATION", {}, ValueError),
                                      ("FREE_COMBINATION", {"joints": 3}, None)):
                path = os.path.join(tmp, kind + str(len(args)) + ".db")
                with sqlite3.connect(path) as c:
                    for table in ("system_parameters", "FREE_COMBINATION"):
                        c.execute(f"CREATE TABLE {table} (ID INTEGER PRIMARY KEY, NAME TEXT, VALUE TEXT)")
                    c.execute("INSERT INTO system_parameters VALUES (1, 'robot_type', ?)", (kind,))
                if error:
                    self.assertRaises(error, tql.read_robot_parameters, path, **args)
                else:
                    free = tql.read_robot_parameters(path, **args)
                    np.testing.assert_array_equal(free["joint_speed_deg_s"], [360.0] * 3)
                    np.testing.assert_array_equal(free["reduction_ratio"], [1.0] * 3)


if __name__ == "__main__":
    unittest.main()
