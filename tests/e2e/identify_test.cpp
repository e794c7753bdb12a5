// Identification closes the loop on the simulated arm: "tql admin" records an
// excitation run, tql-identify fits the parameters, and they predict the
// torques of a different run; the tools refuse bad input and write only their
// own row.
#include <sqlite3.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
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
ToolRun RunTool(const std::string& dir, const std::string& command) {
    const std::string tool = tqltest::HostLauncherPrefix() + TQL_TOOLS_DIR "/" + command;
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
    const std::string data = tqltest::ReadFile(excitation.File("file/excitation_output.txt"));
    EXPECT_EQ(tqltest::CountOf(data, "\n"), 16 * 2500);
    EXPECT_EQ(tqltest::CountOf(data, ","), 16 * 2500 * 17);

    // A different excitation, recorded without measurement noise, is the reference.
    ASSERT_EQ(RunTool(fresh.path(), "tql-excite --seed 7 --iterations 300 --write parameter.db").exit_code, 0);
    ASSERT_EQ(tqltest::RunHost(fresh.path(), {"admin"}, "1\n", {{"TQL_SIM_NOISE", "0"}}, 600).exit_code, 0);

    const std::set<std::string> before = Rows(excitation.File("parameter.db"));
    const ToolRun fit = RunTool(excitation.path(), "tql-identify file/excitation_output.txt --write parameter.db "
                                                "--validate " + fresh.File("file/excitation_output.txt"));
    ASSERT_EQ(fit.exit_code, 0) << fit.out;
    EXPECT_NE(fit.out.find("condition number of the stacked regressor: "), std::string::npos) << fit.out;
    EXPECT_LT(Percent(fit.out, "fit"), 5.0) << fit.out;
    EXPECT_LT(Percent(fit.out, "validation"), 2.0) << fit.out;
    // Row 13 of the robot type's table changes, and nothing else.
    const std::set<std::string> after = Rows(excitation.File("parameter.db"));
    std::vector<std::string> changed;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(), back_inserter(changed));
    ASSERT_EQ(changed.size(), 2u);
    for (const std::string& row : changed) EXPECT_EQ(row.rfind("GL_6L3|13|dynamic_parameters|", 0), 0u) << row;
}

TEST(Identification, ToolsRefuseBadInputAndLeaveTheDatabaseWhole) {
    ScratchDir dir(false);
    std::string period;
    for (int k = 0; k < 2500; ++k) period += "0.1,0,0,0,0,0,0,0,0,0,0,0,0,0.2,0.3,0,0,0\n";
    tqltest::WriteFile(dir.File("short.txt"), period.substr(0, period.size() / 2));
    tqltest::WriteFile(dir.File("nan.txt"), "nan" + period.substr(3));
    tqltest::WriteFile(dir.File("columns.txt"), "1,2,3\n" + period.substr(period.find('\n') + 1));
    tqltest::WriteFile(dir.File("empty.txt"), "");
    std::filesystem::copy_file(dir.File("parameter.db"), dir.File("gl4.db"));
    ASSERT_TRUE(tqltest::ExecSql(dir.File("gl4.db"), "UPDATE system_parameters SET VALUE='GL_4L3' WHERE ID=1"));
    const std::set<std::string> before = Rows(dir.File("parameter.db")), gl4 = Rows(dir.File("gl4.db"));
    for (const auto& c : std::vector<std::pair<const char*, const char*>>{
             {"tql-identify missing.txt", "cannot read missing.txt"},
             {"tql-identify short.txt", "expected whole periods of 2500"},
             {"tql-identify empty.txt", "expected whole periods of 2500"},
             {"tql-identify nan.txt", "nan.txt:1: expected 18 numbers"},
             {"tql-identify columns.txt", "columns.txt:1: expected 18 numbers"},
             {"tql-identify short.txt --db nowhere/parameter.db", "cannot open nowhere/parameter.db"},
             {"tql-excite --write nowhere/parameter.db", "cannot open nowhere/parameter.db"},
             {"tql-excite --margin 2", "usage: tql-excite"},
             {"tql-identify", "usage: tql-identify"},
             {"tql-excite --write gl4.db", "robot type 'GL_4L3' has no dynamic model"}}) {
        const ToolRun r = RunTool(dir.path(), c.first);
        EXPECT_NE(r.exit_code, 0) << c.first;
        EXPECT_NE(r.out.find(c.second), std::string::npos) << c.first << ": " << r.out;
    }
    EXPECT_EQ(Rows(dir.File("parameter.db")), before);
    EXPECT_EQ(Rows(dir.File("gl4.db")), gl4);
}

}  // namespace
