// Bad data that a real database or file can hold never moves the arm, through
// the host: dynamic and excitation parameters, trajectories that are spiked,
// too fast or malformed, saves that fail, and interruptions at the prompts of
// teaching. Each run ends with the message that names what is wrong and its
// exit status, the flight recorder shows nothing beyond the actuators' limits
// (nothing at all when refused before motion), and the operator's files are
// as they were.
#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::HostRun;
using tqltest::ReadFile;
using tqltest::ScratchDir;

// The list of a database row ("[v1,v2,...]") as numbers.
std::vector<double> ReadRow(const std::string& db_path, const std::string& table, int id) {
    std::string text;
    sqlite3* db = nullptr;
    sqlite3_open(db_path.c_str(), &db);
    const std::string sql = "SELECT VALUE FROM " + table + " WHERE ID=" + std::to_string(id);
    sqlite3_exec(
        db, sql.c_str(),
        [](void* out, int, char** v, char**) {
            *static_cast<std::string*>(out) = v[0] ? v[0] : "";
            return 0;
        },
        &text, nullptr);
    sqlite3_close(db);
    std::vector<double> values;
    std::istringstream in(text.substr(1));
    for (std::string item; std::getline(in, item, ',');) values.push_back(std::stod(item));
    return values;
}

std::string List(const std::vector<double>& values) {
    std::ostringstream text;
    text.precision(17);
    text << '[';
    for (size_t i = 0; i < values.size(); ++i) text << (i ? "," : "") << values[i];
    return text.str() + ']';
}

// Rewrites row `id` of the demo arm's table with `edit` applied to its values.
void EditRow(const ScratchDir& dir, int id, const std::function<void(std::vector<double>&)>& edit) {
    const std::string db = dir.File("parameter.db");
    std::vector<double> values = ReadRow(db, "GL_6L3", id);
    edit(values);
    ASSERT_TRUE(tqltest::ExecSql(db, "UPDATE GL_6L3 SET VALUE='" + List(values) + "' WHERE ID=" + std::to_string(id)));
}

// A trajectory of `rows` samples, every joint at 20 degrees but where `at`
// gives joint 1's angle of sample k (1 = the first).
std::string Trajectory(int rows, const std::function<double(int)>& at) {
    std::ostringstream text;
    text.precision(10);
    for (int k = 1; k <= rows; ++k) text << at(k) << ",20,20,20,20,20\n";
    return text.str();
}

// Joint 1 from rest to rest at twice its 180 deg/s^2 (50 samples speeding
// up, 50 slowing down): within its speed limit, passing at 4 ms x sqrt(2),
// i.e. 6 ms: the override 4/6 rounded down to 0.66. The first step from rest
// is half that acceleration: sample 3 is the first refused.
double TwiceTheAcceleration(int k) {
    const double t = 0.004 * (k - 1), a = 360.0, half = 0.2;
    return 20.0 + (t <= half ? 0.5 * a * t * t : a * half * half - 0.5 * a * (2 * half - t) * (2 * half - t));
}

// Commands of one kind in a flight recording.
int Commands(const std::string& csv, const std::string& command) {
    return tqltest::CountOf(csv, "," + command + ",");
}

const char kPrompt[] = "Insert MOVJ、MOVL、MOVC or STOP : \n";

}  // namespace

TEST(BadData, RefusedWithItsMessageBeforeAnythingMovesAndFilesKept) {
    const struct {
        const char* name;
        const char* mode;
        std::function<void(const ScratchDir&)> spoil;
        std::string input;
        std::string said;       // on standard output
        int exit_code;
        bool moves;             // sends set-points (else: no position or current command at all)
        std::string kept;       // a file of the working directory that must not change
        tqltest::EnvList env = {};
        std::string interrupt_after = "";
    } cases[] = {
        {"row 13 a hundred times too large", "mode1",
         [](const ScratchDir& d) { EditRow(d, 13, [](std::vector<double>& v) { for (double& x : v) x *= 100; }); },
         "start\n", "Parameter error: table GL_6L3, row 13: joint 2 needs ", 255, false, "file/trajectory.txt"},
        {"row 13 of a run where nothing moved", "mode3",
         [](const ScratchDir& d) { EditRow(d, 13, [](std::vector<double>& v) { for (double& x : v) x = 1e9; }); },
         "MOVJ\n", "Parameter error: table GL_6L3, row 13: joint ", 255,
         false, "file/data.txt"},
        {"row 13 not a number", "mode3",
         [](const ScratchDir& d) { EditRow(d, 13, [](std::vector<double>& v) { v[4] = NAN; }); }, "MOVJ\n",
         "Parameter error: table GL_6L3, row 13, entry 5, value nan: a dynamic parameter must be finite", 255, false,
         "file/data.txt"},
        {"row 13's friction beyond the drive", "mode1",
         [](const ScratchDir& d) { EditRow(d, 13, [](std::vector<double>& v) { v.resize(48), v[36] = 20; }); },
         "start\n", "row 13: joint 1's friction (viscous 20, Coulomb ", 255, false, "file/trajectory.txt"},
        {"row 13 never identified", "mode1",
         [](const ScratchDir& d) { EditRow(d, 13, [](std::vector<double>& v) { for (double& x : v) x = 0; }); },
         "start\n", "row 13: no identified parameters (all zero)", 255, false, "file/trajectory.txt"},
        {"row 13 too large, collision switch on", "mode4",
         [](const ScratchDir& d) {
             EditRow(d, 13, [](std::vector<double>& v) { for (double& x : v) x *= 100; });
             ASSERT_TRUE(tqltest::ExecSql(d.File("parameter.db"), "UPDATE system_parameters SET VALUE='ON' WHERE ID=4"));
         },
         "1\nCYCLE\nNO\n", "Parameter error: table GL_6L3, row 13: joint 2 needs ", 255, false, "file/data.txt"},
        {"row 18 a negative payload", "mode4",
         [](const ScratchDir& d) { ASSERT_TRUE(tqltest::ExecSql(d.File("parameter.db"),
                                                                "UPDATE GL_6L3 SET VALUE='[-1,0,0,0]' WHERE ID=18")); },
         "1\nCYCLE\nNO\n",
         "Parameter error: table GL_6L3, row 18, value -1: the payload is a mass of 0 to 100 kg with its centre "
         "within 1000 mm of the flange", 255, false, "file/data.txt"},
        {"row 18 a payload the drives cannot hold", "mode4",
         [](const ScratchDir& d) { ASSERT_TRUE(tqltest::ExecSql(d.File("parameter.db"),
                                                                "UPDATE GL_6L3 SET VALUE='[2,0,0,50]' WHERE ID=18")); },
         "1\nCYCLE\nNO\n", "beyond its peak torque 10.623 N*m (10 A), carrying the payload of 2 kg", 255, false,
         "file/data.txt"},
        {"row 14's first coefficient 3", "admin",
         [](const ScratchDir& d) { EditRow(d, 14, [](std::vector<double>& v) { v[0] = 3; }); }, "1\n",
         "Parameter error: table GL_6L3, row 14, joint 1: the excitation reaches ", 255, false,
         "file/trajectory.txt"},
        {"row 14's coefficient 50, fourth tutorial", "tutorials",
         [](const ScratchDir& d) { EditRow(d, 14, [](std::vector<double>& v) { v[1] = 50; }); }, "4\n\n",
         "Parameter error: table GL_6L3, row 14, joint 1: the excitation reaches ", 255, false, "file/data.txt"},
        {"row 1 lowered to 20 deg/s", "admin",
         [](const ScratchDir& d) { EditRow(d, 1, [](std::vector<double>& v) { v[0] = 20; }); }, "1\n",
         "the excitation runs at ", 255, false, "file/trajectory.txt"},
        {"a +1 degree spike", "mode2",
         [](const ScratchDir& d) {
             tqltest::WriteFile(d.File("file/trajectory.txt"), Trajectory(1000, [](int k) { return k == 401 ? 21 : 20; }));
         },
         "1\n",
         "Joint 1 speed 250 deg/s beyond its limit 90 deg/s (row 1)\nSample 401 refused before motion.\n"
         "No speed override (0.1 .. 1) lets it pass.\n",
         255, false, "file/trajectory.txt"},
        {"a legal start away from home, then a jump", "mode2",
         [](const ScratchDir& d) {
             tqltest::WriteFile(d.File("file/trajectory.txt"), Trajectory(500, [](int k) { return k < 300 ? 20 : 25; }));
         },
         "1\n", "ID 1 beyond speed limit\nSample 300 refused before motion.\n", 255,
         false, "file/trajectory.txt"},
        {"twice the acceleration limit", "mode2",
         [](const ScratchDir& d) { tqltest::WriteFile(d.File("file/trajectory.txt"), Trajectory(101, TwiceTheAcceleration)); },
         "1\n",
         "Joint 1 acceleration 360 deg/s^2 beyond its limit 180 deg/s^2 (row 2)\nSample 3 refused before motion.\n"
         "It would pass at a speed override of 0.66 or below.\n",
         255, false, "file/trajectory.txt"},
        {"the same at that override", "mode2",
         [](const ScratchDir& d) { tqltest::WriteFile(d.File("file/trajectory.txt"), Trajectory(101, TwiceTheAcceleration)); },
         "0.66\n", "Cycle count : 2\n", 0, true, "file/trajectory.txt", {{"TQL_SIM_INTERRUPT", "8"}}},
        {"separated by ';'", "mode2",
         [](const ScratchDir& d) { tqltest::WriteFile(d.File("file/trajectory.txt"), "20;20;20;20;20;20\n"); }, "1\n",
         "Trajectory format error: file/trajectory.txt line 1: ';' after number 1 where ',' belongs", 255, false,
         "file/trajectory.txt"},
        {"three blank lines first", "mode2",
         [](const ScratchDir& d) {
             tqltest::WriteFile(d.File("file/trajectory.txt"), "\n\n\n" + Trajectory(100, [](int) { return 20; }));
         },
         "1\n", "Trajectory format error: file/trajectory.txt line 1: a blank line (expected 6 numbers", 255, false,
         "file/trajectory.txt"},
        {"a missing value", "mode2",
         [](const ScratchDir& d) { tqltest::WriteFile(d.File("file/trajectory.txt"), "20,20,20,20,20,20\n20,20,20,20,20\n"); },
         "1\n", "line 2: 5 numbers where 6 belong", 255, false, "file/trajectory.txt"},
        {"a save into a directory", "mode1",
         [](const ScratchDir& d) {
             std::filesystem::remove(d.File("file/trajectory.txt"));
             std::filesystem::create_directory(d.File("file/trajectory.txt"));
         },
         "start\n\n", "Open file/trajectory.txt failure! 0-3: Open file/trajectory.txt failure! .\n", 255, true, "",
         {}, "Recording ... "},
        // The demo workspace: the flange and the wrist centre stay above the
        // table (z >= 0), and within half-space 1 (z >= 200) when row 16 says so.
        {"a move below the table", "mode4",
         [](const ScratchDir& d) { tqltest::WriteFile(d.File("file/data.txt"), "MOVJ VJ=50 z5 0,120,30,0,0,0\n"); },
         "1\nCYCLE\nNO\n", "mm is z outside 0 .. 900 mm (row 15)\nLine 1 refused before motion.\n", 255, false,
         "file/data.txt"},
        {"a replay below the table", "mode2",
         [](const ScratchDir& d) {
             tqltest::WriteFile(d.File("file/trajectory.txt"), "0,120,30,0,0,0\n0,120,30,0,0,0\n");
         },
         "1\n", "Workspace: the flange at (", 255, false, "file/trajectory.txt"},
        {"a move beyond a half-space", "mode4",
         [](const ScratchDir& d) {
             ASSERT_TRUE(tqltest::ExecSql(d.File("parameter.db"),
                                          "INSERT INTO GL_6L3 VALUES (16, 'workspace_half_spaces', '[0,0,-1,-200]')"));
             tqltest::WriteFile(d.File("file/data.txt"), "MOVJ VJ=50 z5 0,90,0,0,0,0\n");
         },
         "1\nCYCLE\nNO\n", "is beyond half-space 1 (row 16)\nLine 1 refused before motion.\n", 255, false,
         "file/data.txt"},
        {"an arm found below the table moves back up", "mode4",
         [](const ScratchDir& d) {
             tqltest::WriteFile(d.File("sim_state.txt"),
                                "sim_state 1\nactuator id=1 position=0 homing_offset=0\n"
                                "actuator id=2 position=12 homing_offset=0\nactuator id=3 position=-3 homing_offset=0\n"
                                "actuator id=4 position=0 homing_offset=0\nactuator id=5 position=0 homing_offset=0\n"
                                "actuator id=6 position=0 homing_offset=0\n");
             tqltest::WriteFile(d.File("file/data.txt"), "MOVJ VJ=50 z5 0,0,0,0,0,0\n");
         },
         "1\nCYCLE\nNO\n", "Is smooth (YES/NO) ", 0, true, "file/data.txt"},
        {"Ctrl-C at the start prompt", "mode1", nullptr, "",
         "Recording cancelled: file/trajectory.txt is unchanged.\n", 255, true, "file/trajectory.txt", {},
         "Input 'start' to start ...\n"},
        {"Ctrl-C at the first point", "mode3", nullptr, "",
         std::string(kPrompt) + "Stop recording.\nNothing taught: file/data.txt is unchanged.\n", 0, true,
         "file/data.txt", {}, kPrompt},
        {"the end of input before the first point", "mode3", nullptr, "",
         "No more input.\nStop recording.\nNothing taught: file/data.txt is unchanged.\n", 0, true, "file/data.txt"},
        {"STOP before the first point", "mode3", nullptr, "STOP\n\n",
         "Stop recording.\nNothing taught: file/data.txt is unchanged.\n", 0, true, "file/data.txt"},
    };
    for (const auto& c : cases) {
        ScratchDir dir(false);
        if (c.spoil) c.spoil(dir);
        const std::string before = c.kept.empty() ? "" : ReadFile(dir.File(c.kept));
        tqltest::EnvList env = c.env;
        env.push_back({"TQL_SIM_RECORD", "rec.csv"});
        const bool at_prompt = !c.interrupt_after.empty() && c.input.empty();
        const HostRun run =
            tqltest::RunHostInterrupted(dir.path(), {c.mode}, c.input, env, c.interrupt_after, 120.0, at_prompt);
        EXPECT_EQ(run.exit_code, c.exit_code) << c.name << "\n" << run.out;
        EXPECT_NE(run.out.find(c.said), std::string::npos) << c.name << "\n" << run.out;
        EXPECT_NE(run.err.find(" commands, 0 beyond limits"), std::string::npos) << c.name << "\n" << run.err;
        const std::string rec = ReadFile(dir.File("rec.csv"));
        if (!c.moves) {
            EXPECT_EQ(Commands(rec, "setPosition") + Commands(rec, "setCurrent"), 0) << c.name;
        }
        if (!c.kept.empty()) {
            EXPECT_EQ(ReadFile(dir.File(c.kept)), before) << c.name;
        }
        for (const auto& e : std::filesystem::directory_iterator(dir.File("file")))
            EXPECT_NE(e.path().extension(), ".part") << c.name;
    }
}

// A Ctrl-C while teaching ends the session as STOP does: the points taught are
// saved and the arm is left holding in position mode, not floating.
TEST(BadData, CtrlCWhileTeachingKeepsThePointsAndHoldsTheArm) {
    ScratchDir dir(false);
    const HostRun run = tqltest::RunHostInterrupted(dir.path(), {"mode3"}, "MOVJ\n", {{"TQL_SIM_RECORD", "rec.csv"}},
                                                    std::string(kPrompt) + kPrompt, 120.0, true);
    EXPECT_EQ(run.exit_code, 0) << run.out;
    EXPECT_NE(run.out.find("Stop recording.\nPlease hold the arm"), std::string::npos) << run.out;
    // The one point taught: the arm floating at its power-up pose (zero).
    const std::string taught = ReadFile(dir.File("file/data.txt"));
    ASSERT_EQ(taught.rfind("MOVJ VJ=100 z5 ", 0), 0u) << taught;
    EXPECT_EQ(tqltest::CountOf(taught, "\n"), 1) << taught;
    std::istringstream angles(taught.substr(15));
    int count = 0;
    for (std::string v; std::getline(angles, v, ','); ++count) EXPECT_NEAR(std::stod(v), 0.0, 1e-3) << taught;
    EXPECT_EQ(count, 6);
    // The last mode every actuator was put in: position (3).
    double last_mode[7] = {};
    std::istringstream rec(ReadFile(dir.File("rec.csv")));
    for (std::string line; std::getline(rec, line);) {
        double time = 0, value = 0;
        int id = 0, mode = 0;
        char command[64] = {};
        if (std::sscanf(line.c_str(), "%lf,%d,%d,%63[^,],%lf", &time, &id, &mode, command, &value) == 5 &&
            std::string(command) == "activateActuatorModeInBantch" && id >= 1 && id <= 6)
            last_mode[id] = value;
    }
    for (int id = 1; id <= 6; ++id) EXPECT_EQ(last_mode[id], 3.0) << id;
}
