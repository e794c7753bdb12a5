"""tql-plot end to end: the demo program flown on the simulated arm (virtual
clock), its recording, the demo trajectory and a made-up excitation output
plotted; the numbers behind the plots checked against the program's own
joint targets, tql-pacing and a known sinusoid.

Environment: TQL_BIN_DIR (tql, tql-pacing; its demo/ is the working dir
unless TQL_DEMO_DIR), TQL_PLOT (the script), PYTHONPATH (the tql module)."""
import glob, os, shutil, subprocess, sys, tempfile, unittest
import numpy as np
import matplotlib
matplotlib.use("Agg")
import matplotlib.image

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PLOT = os.path.abspath(os.environ.get("TQL_PLOT", os.path.join(ROOT, "tools", "tql_plot.py")))
BIN = os.environ.get("TQL_BIN_DIR", "")
DEMO = os.environ.get("TQL_DEMO_DIR", os.path.join(BIN, "demo"))
try:
    import tql  # noqa: F401
    HAS_TQL = True
except ImportError:
    HAS_TQL = False


def plot(*args, script=PLOT, env=None):
    return subprocess.run([sys.executable, script] + list(args), capture_output=True, text=True, env=env)


def summary(stdout):
    """Rows of the joint table (joint, min, max, lo, hi, speed, limit, ...) and of the pacing table."""
    rows = [line.split() for line in stdout.splitlines()]
    table = [[float(v) for v in r] for r in rows if len(r) == 11 and r[0].isdigit()]
    return np.array(table), [r for r in rows if len(r) == 7 and r[0].isdigit()]


@unittest.skipUnless(os.path.exists(os.path.join(BIN, "tql")), "no built tql (set TQL_BIN_DIR)")
class TqlPlot(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="tql-plot-")
        shutil.copytree(DEMO, cls.dir, dirs_exist_ok=True)
        if os.path.exists(os.path.join(cls.dir, "sim_state.txt")):
            os.remove(os.path.join(cls.dir, "sim_state.txt"))
        env = dict(os.environ, TQL_SIM_CLOCK="virtual", TQL_SIM_RECORD="rec.csv")
        run = subprocess.run([os.path.join(BIN, "tql"), "mode4"], input="1\nCYCLE\nNO\n", cwd=cls.dir, env=env,
                             capture_output=True, text=True, timeout=120)
        assert run.returncode == 0, run.stdout + run.stderr
        os.chdir(cls.dir)
        # 2 s of joint 1 swinging +-10 deg at 1 Hz; currents and velocities 99 (not positions).
        t = np.arange(500) * 0.004
        q = np.outer(np.sin(2 * np.pi * t), np.radians([10, 0, 0, 0, 0, 0]))
        np.savetxt("exc.txt", np.hstack([np.full((500, 12), 99.0), q]), delimiter=",", fmt="%.6g")

    @classmethod
    def tearDownClass(cls):
        os.chdir("/")
        shutil.rmtree(cls.dir)

    def test_figures_and_numbers(self):
        for source, figures in [("rec.csv", ["joints", "path", "pacing"]), ("file/trajectory.txt", ["joints", "path"]),
                                ("exc.txt", ["joints", "path"])]:
            out = os.path.join(self.dir, "out-" + os.path.basename(source) + "/")
            run = plot(source, "--out", out, "--summary")
            self.assertEqual(run.returncode, 0, run.stderr)
            stem = os.path.splitext(os.path.basename(source))[0]
            expected = [out + stem + "-" + f + ".png" for f in figures if f != "path" or HAS_TQL]
            self.assertEqual([l for l in run.stdout.splitlines() if l.endswith(".png")], expected)
            self.assertEqual(sorted(glob.glob(out + "*")), sorted(expected))
            for png in expected:
                image = matplotlib.image.imread(png)
                self.assertEqual(image.shape[:2], (1000, 1600), png)
                self.assertGreater(np.mean(image[:, :, :3] < 0.5), 0.005, png)  # ink on it
            joints, pacing = summary(run.stdout)
            self.assertTrue(np.all(joints[:, 5] <= joints[:, 6]), source)  # peak |speed| within its limit
            self.assertTrue(np.all(joints[:, 1] >= joints[:, 3]) and np.all(joints[:, 2] <= joints[:, 4]), source)
            if source == "rec.csv":
                # The demo program's joint targets, back from actuator revolutions (joints 3, 5 reversed).
                np.testing.assert_allclose(joints[:, 1], [-40, 0, 0, -10, -90, 0], atol=0.01)
                np.testing.assert_allclose(joints[:, 2], [0, 25, 75, 10, 0, 0], atol=0.01)
                self.assertTrue(np.all(joints[:5, 5] > 1))
                pacing_tool = os.path.join(BIN, "tql-pacing")
                if os.path.exists(pacing_tool):
                    reference = subprocess.run([pacing_tool, "rec.csv"], capture_output=True, text=True).stdout
                    self.assertEqual(pacing, [l.split() for l in reference.splitlines()[1:]])
            if source == "exc.txt":  # 10 deg * 2 pi / s on joint 1, within the differences' error
                self.assertAlmostEqual(joints[0, 5], 20 * np.pi, delta=0.1)
                np.testing.assert_allclose(joints[1:, 5], 0)

    def test_module_and_database_agree(self):
        if not HAS_TQL:
            self.skipTest("no tql module")
        alone = os.path.join(self.dir, "alone-tql-plot")
        shutil.copy(PLOT, alone)  # no module beside it: parameters read from the database directly
        env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
        direct = plot("rec.csv", "--summary", "--out", "alone/", script=alone, env=env)
        self.assertIn("flange path skipped", direct.stderr)
        self.assertEqual(direct.stdout.split("\n")[:7], plot("rec.csv", "--summary", "--out", "mod/").stdout.split("\n")[:7])

    def test_bad_input(self):
        cases = [("empty.txt", ""), ("header.csv", "time,id,mode,command,value\n"), ("words.txt", "hello world\n"),
                 ("short.txt", "1,2,3,4,5,6\n1,2,3\n"), ("nan.csv", "time,id,mode,command,value\nx,1,3,setPosition,0\n"),
                 ("missing.txt", None)]
        for name, text in cases:
            if text is not None:
                with open(name, "w") as f:
                    f.write(text)
            run = plot(name, "--out", "bad/")
            self.assertEqual((run.returncode, run.stdout), (1, ""), name)
            self.assertTrue(run.stderr.startswith("tql-plot: ") and run.stderr.count("\n") == 1, run.stderr)
        self.assertEqual(glob.glob("bad/*"), [])
        self.assertEqual(plot("rec.csv", "--db", "nowhere.db").returncode, 1)


if __name__ == "__main__":
    unittest.main()
