// Identification closes the loop on the simulated arm: "tql admin" records an
// excitation run, tql-identify fits the parameters, and they predict the
// torques of a different run; the tools refuse bad input and fits that are
// not identifications, and write only their own row.
#include <sqlite3.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::ScratchDir;

struct ToolRun {
    int exit_code;
    std::string out;  // standard output and error
};
// Runs one of the dynamics tools in `dir`.
// `command` names a tool of the build; with `shell`, the whole command line.
ToolRun RunTool(const std::string& dir, const std::string& command, const std::string& shell = "") {
    const std::string tool = shell.empty() ? tqltest::HostLauncherPrefix() + TQL_TOOLS_DIR "/" + command : "(" + shell + ")";
    FILE* p = popen(("cd '" + dir + "' && " + tool + " 2>&1 </dev/null").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    return {status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Every row of every table of a database, as "table|column|column|...|".
std::set<std::string> Rows(const std::string& db_path) {
    std::set<std::string> tables, rows;
    auto add = [](void* set, int n, char** v, char**) {
        std::string row;
        for (int i = 0; i < n; ++i) row += std::string(v[i] ? v[i] : "NULL") + "|";
        static_cast<std::set<std::string>*>(set)->insert(row);
        return 0;
    };
    sqlite3* db = nullptr;
    sqlite3_open(db_path.c_str(), &db);
    sqlite3_exec(db, "SELECT name FROM sqlite_master WHERE type='table'", add, &tables, nullptr);
    for (const std::string& t : tables) {
        const std::string name = t.substr(0, t.size() - 1);
        sqlite3_exec(db, ("SELECT '" + name + "', * FROM \"" + name + "\"").c_str(), add, &rows, nullptr);
    }
    sqlite3_close(db);
    return rows;
}

double Percent(const std::string& out, const std::string& title) {
    const size_t at = out.find(title + ": relative RMS error ");
    return at == std::string::npos ? 1e9 : std::atof(out.c_str() + at + title.size() + 21);
}

TEST(Identification, AdminRunIdentifiedParametersPredictAFreshRun) {
    ScratchDir excitation(false), fresh(false);
    const tqltest::HostRun admin =
        tqltest::RunHost(excitation.path(), {"admin"}, "1\n", {{"TQL_SIM_RECORD", "rec.csv"}}, 600);
    ASSERT_EQ(admin.exit_code, 0) << admin.out << admin.err;
    EXPECT_EQ(tqltest::CountOf(admin.out, "Running  iter = "), 16);
    EXPECT_NE(admin.err.find(" commands, 0 beyond limits"), std::string::npos) << admin.err;
    EXPECT_EQ(admin.err.find("excitation period"), std::string::npos) << "progress only on a terminal";
    const std::string data = tqltest::ReadFile(excitation.File("file/excitation_output.txt"));
    EXPECT_EQ(tqltest::CountOf(data, "\n"), 16 * 2500);
    EXPECT_EQ(tqltest::CountOf(data, ","), 16 * 2500 * 17);

    // A different excitation, recorded without measurement noise, is the reference.
    ASSERT_EQ(RunTool(fresh.path(), "tql-excite --seed 7 --iterations 300 --write parameter.db").exit_code, 0);
    // Run on a terminal (script's), where the progress shows on standard error.
    const ToolRun terminal = RunTool(fresh.path(), "", "printf '1\\n' | TQL_SIM_CLOCK=virtual TQL_SIM_NOISE=0 script -qec '" +
                                                        tqltest::HostLauncherPrefix() + TQL_TOOLS_DIR "/tql admin' /dev/null");
    ASSERT_EQ(terminal.exit_code, 0) << terminal.out;
    EXPECT_NE(terminal.out.find("excitation period 16 of 16, 100 %"), std::string::npos) << terminal.out;

    // The demo's rows come from this very run: clear row 13 and drop row 17,
    // which the identification must add.
    ASSERT_TRUE(tqltest::ExecSql(excitation.File("parameter.db"),
                                 "UPDATE GL_6L3 SET VALUE='[]' WHERE ID=13; DELETE FROM GL_6L3 WHERE ID=17;"));
    const std::set<std::string> before = Rows(excitation.File("parameter.db"));
    const ToolRun fit = RunTool(excitation.path(), "tql-identify file/excitation_output.txt --write parameter.db "
                                                "--validate " + fresh.File("file/excitation_output.txt"));
    ASSERT_EQ(fit.exit_code, 0) << fit.out;
    EXPECT_NE(fit.out.find("condition number of the stacked regressor: "), std::string::npos) << fit.out;
    EXPECT_LT(Percent(fit.out, "fit"), 5.0) << fit.out;
    EXPECT_LT(Percent(fit.out, "validation"), 2.0) << fit.out;
    // Rows 13 and 17 of the robot type's table change, and nothing else.
    const std::set<std::string> after = Rows(excitation.File("parameter.db"));
    std::vector<std::string> changed;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(), back_inserter(changed));
    ASSERT_EQ(changed.size(), 3u);
    EXPECT_EQ(std::count(changed.begin(), changed.end(), "GL_6L3|13|dynamic_parameters|[]|"), 1);
    int row13 = 0, row17 = 0;
    for (const std::string& row : changed) {
        row13 += row.rfind("GL_6L3|13|dynamic_parameters|[", 0) == 0;
        row17 += row.rfind("GL_6L3|17|collision_threshold_nm|[", 0) == 0;
    }
    EXPECT_EQ(row13, 2);
    EXPECT_EQ(row17, 1);
}

// Unreadable input exits 1, usage 2; a fit that is not an identification is
// printed with its diagnosis and refused with 255. Nothing is ever written.
TEST(Identification, ToolsRefuseBadInputAndUnidentifiedFitsAndLeaveTheDatabaseWhole) {
    ScratchDir dir(false);
    ASSERT_EQ(tqltest::RunHost(dir.path(), {"admin"}, "1\n", {}, 600).exit_code, 0);
    const std::string run = tqltest::ReadFile(dir.File("file/excitation_output.txt"));
    // The run with each record's 18 values edited by `edit(record, values)`.
    const auto derive = [&](const char* name, const std::function<void(int, double*)>& edit) {
        std::istringstream in(run);
        std::string out, line;
        for (int k = 0; std::getline(in, line); ++k) {
            double v[18];
            char* p = &line[0];
            for (double& x : v) x = std::strtod(p, &p), p += *p == ',';
            edit(k, v);
            for (int i = 0; i < 18; ++i) {
                char text[32];
                std::snprintf(text, sizeof text, "%.17g%c", v[i], i < 17 ? ',' : '\n');
                out += text;
            }
        }
        tqltest::WriteFile(dir.File(name), out);
    };
    derive("run.txt", [](int, double*) {});
    derive("huge.txt", [](int k, double* v) { v[0] = k == 1234 ? 1e300 : v[0]; });
    derive("scaled.txt", [](int, double* v) { for (int j = 0; j < 6; ++j) v[j] *= 1e4; });
    derive("foreign.txt", [](int k, double* v) { for (int j = 0; j < 6; ++j) v[j] = k % 2 ? 1.0 : -1.0; });
    derive("held.txt", [](int, double* v) { v[17] = 0.3; });
    // Joint 6 sits still within each period, at another angle every other one.
    derive("shifted.txt", [](int k, double* v) { v[11] = 0.0, v[17] = 0.3 + 0.1 * (k / 2500 % 2); });
    std::string still;
    for (int k = 0; k < 2500; ++k) still += "0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1,0.1\n";
    tqltest::WriteFile(dir.File("still.txt"), still);
    std::string period;
    for (int k = 0; k < 2500; ++k) period += "0.1,0,0,0,0,0,0,0,0,0,0,0,0,0.2,0.3,0,0,0\n";
    tqltest::WriteFile(dir.File("short.txt"), period.substr(0, period.size() / 2));
    tqltest::WriteFile(dir.File("nan.txt"), "nan" + period.substr(3));
    tqltest::WriteFile(dir.File("columns.txt"), "1,2,3\n" + period.substr(period.find('\n') + 1));
    tqltest::WriteFile(dir.File("empty.txt"), "");
    std::filesystem::copy_file(dir.File("parameter.db"), dir.File("gl4.db"));
    ASSERT_TRUE(tqltest::ExecSql(dir.File("gl4.db"), "UPDATE system_parameters SET VALUE='GL_4L3' WHERE ID=1"));
    const std::set<std::string> before = Rows(dir.File("parameter.db")), gl4 = Rows(dir.File("gl4.db"));
    const std::string not_excited = "condition number inf (at most 1e4): the recorded motion does not excite";
    const std::string too_large = " identified values beyond 1e3 in magnitude (base parameter ";
    const std::string unexplained = "% (at most 25 %): the model does not explain the recorded torques";
    struct Case {
        std::string command;
        int exit_code;
        std::vector<std::string> reasons;  // "the fit is not identified: " lines, in order
        std::string also;                  // more of the output
    };
    for (const Case& c : std::vector<Case>{
             {"tql-identify missing.txt", 1, {}, "cannot read missing.txt"},
             {"tql-identify short.txt", 1, {}, "expected whole periods of 2500"},
             {"tql-identify empty.txt", 1, {}, "expected whole periods of 2500"},
             {"tql-identify nan.txt", 1, {}, "nan.txt:1: expected 18 numbers"},
             {"tql-identify columns.txt", 1, {}, "columns.txt:1: expected 18 numbers"},
             {"tql-identify short.txt --db nowhere/parameter.db", 1, {}, "cannot open nowhere/parameter.db"},
             {"tql-excite --write nowhere/parameter.db", 1, {}, "cannot open nowhere/parameter.db"},
             {"tql-excite --margin 2", 2, {}, "usage: tql-excite"},
             {"tql-identify", 2, {}, "condition number is at most 1e4,\nthe relative RMS residual at most 25 %"},
             {"tql-excite --write gl4.db", 1, {}, "robot type 'GL_4L3' has no dynamic model"},
             {"tql-identify run.txt", 0, {}, "condition number of the stacked regressor: "},
             {"tql-identify still.txt --write parameter.db",
              255,
              {"joints 1 2 3 4 5 6 moved less than 0.05 rad over the recording (least 0 rad)", not_excited,
               unexplained, too_large},
              "tql-identify: nothing written to parameter.db"},
             {"tql-identify still.txt",
              255,
              {"joints 1 2 3 4 5 6 moved less", not_excited, unexplained, too_large},
              "condition number of the stacked regressor: inf\nfit: relative RMS error "},
             {"tql-identify huge.txt --write parameter.db",
              255,
              {"relative RMS residual nan (not finite): the recorded currents are all zero or overflow",
               "48 of 48" + too_large},
              "nothing written"},
             {"tql-identify scaled.txt --write parameter.db", 255, {too_large}, "nothing written"},
             {"tql-identify foreign.txt --write parameter.db",
              255,
              {"relative RMS residual 100 " + unexplained},
              "nothing written"},
             {"tql-identify held.txt --write parameter.db",
              255,
              {"joint 6 moved less than 0.05 rad over the recording (least 0 rad): the arm did not run the excitation",
               not_excited},
              "nothing written"},
             {"tql-identify shifted.txt --write parameter.db", 255, {not_excited}, "nothing written"}}) {
        const ToolRun r = RunTool(dir.path(), c.command);
        EXPECT_EQ(r.exit_code, c.exit_code) << c.command << ": " << r.out;
        EXPECT_NE(r.out.find(c.also), std::string::npos) << c.command << ": " << r.out;
        const std::string lead = "tql-identify: the fit is not identified: ";
        EXPECT_EQ(tqltest::CountOf(r.out, lead), static_cast<int>(c.reasons.size())) << c.command << ": " << r.out;
        for (size_t i = 0, at = 0; i < c.reasons.size() && (at = r.out.find(lead, at)) != std::string::npos; ++i) {
            at += lead.size();
            const std::string line = r.out.substr(at, r.out.find('\n', at) - at);
            EXPECT_NE(line.find(c.reasons[i]), std::string::npos) << c.command << ": " << r.out;
        }
    }
    EXPECT_EQ(Rows(dir.File("parameter.db")), before);
    EXPECT_EQ(Rows(dir.File("gl4.db")), gl4);
}

}  // namespace
