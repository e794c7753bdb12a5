// Identification closes the loop on the simulated arm: "tql admin" records an
// excitation run, tql-identify fits the parameters, and they predict the
// torques of a different run; the tools refuse bad input and write only their
// own row.
#include <sqlite3.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "test_support.h"

namespace {

using tqltest::ScratchDir;

struct ToolRun {
    int exit_code;
    std::string out;  // standard output and error
};

ToolRun RunTool(const std::string& dir, const std::string& command) {
    const std::string line = "cd '" + dir + "' && " + TQL_TOOLS_DIR + "/" + command + " 2>&1 </dev/null";
    ToolRun run{-1, ""};
    FILE* p = popen(line.c_str(), "r");
    if (p == nullptr) return run;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) run.out.append(buf, n);
    const int status = pclose(p);
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// Every row of every table, for comparing databases.
std::string Dump(const std::string& db_path) {
    sqlite3* db = nullptr;
    sqlite3_open(db_path.c_str(), &db);
    std::string out;
    auto row = [](void* o, int n, char** v, char**) {
        for (int i = 0; i < n; ++i) *static_cast<std::string*>(o) += std::string(v[i] ? v[i] : "NULL") + "|";
        *static_cast<std::string*>(o) += "\n";
        return 0;
    };
    std::string tables;
    sqlite3_exec(db, "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name", row, &tables, nullptr);
    for (size_t a = 0, b; (b = tables.find("|\n", a)) != std::string::npos; a = b + 2) {
        const std::string t = tables.substr(a, b - a);
        out += "# " + t + "\n";
        sqlite3_exec(db, ("SELECT * FROM \"" + t + "\" ORDER BY ID").c_str(), row, &out, nullptr);
    }
    sqlite3_close(db);
    return out;
}

// ID and name of the rows of `text` that differ from `other`'s (same row
// count assumed).
std::string Differences(const std::string& text, const std::string& other) {
    std::string diff;
    for (size_t a = 0, b = 0; a < text.size() && b < other.size();) {
        const size_t ea = text.find('\n', a), eb = other.find('\n', b);
        const std::string line = text.substr(a, ea - a);
        if (line != other.substr(b, eb - b)) diff += line.substr(0, line.find('|', line.find('|') + 1) + 1) + "\n";
        a = ea + 1;
        b = eb + 1;
    }
    return diff;
}

double Percent(const std::string& out, const std::string& title) {
    const size_t at = out.find(title + ": relative RMS error ");
    return at == std::string::npos ? 1e9 : std::atof(out.c_str() + at + title.size() + 21);
}

TEST(Identification, AdminRunIdentifiedParametersPredictAFreshRun) {
    ScratchDir excitation(false), fresh(false);
    const tqltest::HostRun admin = tqltest::RunHost(excitation.path(), {"admin"}, "1\n", {{"TQL_SIM_RECORD", "rec.csv"}}, 600);
    ASSERT_EQ(admin.exit_code, 0) << admin.out << admin.err;
    EXPECT_EQ(tqltest::CountOf(admin.out, "Running  iter = "), 16);
    EXPECT_NE(admin.err.find(" commands, 0 beyond limits"), std::string::npos) << admin.err;
    const std::string data = tqltest::ReadFile(excitation.File("file/excitation_output.txt"));
    EXPECT_EQ(tqltest::CountOf(data, "\n"), 16 * 2500);
    EXPECT_EQ(tqltest::CountOf(data, ","), 16 * 2500 * 17);

    // A different excitation, recorded without measurement noise, is the reference.
    ASSERT_EQ(RunTool(fresh.path(), "tql-excite --seed 7 --iterations 300 --write parameter.db").exit_code, 0);
    ASSERT_EQ(tqltest::RunHost(fresh.path(), {"admin"}, "1\n", {{"TQL_SIM_NOISE", "0"}}, 600).exit_code, 0);

    const std::string before = Dump(excitation.File("parameter.db"));
    const ToolRun fit = RunTool(excitation.path(), "tql-identify file/excitation_output.txt --write parameter.db "
                                                   "--validate " + fresh.File("file/excitation_output.txt"));
    ASSERT_EQ(fit.exit_code, 0) << fit.out;
    EXPECT_NE(fit.out.find("condition number of the stacked regressor: "), std::string::npos) << fit.out;
    EXPECT_LT(Percent(fit.out, "fit"), 5.0) << fit.out;
    EXPECT_LT(Percent(fit.out, "validation"), 2.0) << fit.out;
    EXPECT_EQ(Differences(Dump(excitation.File("parameter.db")), before), "13|dynamic_parameters|\n");
}

TEST(Identification, ToolsRefuseBadInputAndLeaveTheDatabaseWhole) {
    ScratchDir dir(false);
    std::string period;
    for (int k = 0; k < 2500; ++k) period += "0.1,0,0,0,0,0,0,0,0,0,0,0,0,0.2,0.3,0,0,0\n";
    tqltest::WriteFile(dir.File("short.txt"), period.substr(0, period.size() / 2));
    tqltest::WriteFile(dir.File("nan.txt"), "nan" + period.substr(3));
    tqltest::WriteFile(dir.File("columns.txt"), "1,2,3\n" + period.substr(period.find('\n') + 1));
    tqltest::WriteFile(dir.File("empty.txt"), "");
    const std::string before = Dump(dir.File("parameter.db"));
    struct Case {
        const char* command;
        const char* message;
    } cases[] = {
        {"tql-identify missing.txt", "cannot read missing.txt"},
        {"tql-identify short.txt", "expected whole periods of 2500"},
        {"tql-identify empty.txt", "expected whole periods of 2500"},
        {"tql-identify nan.txt", "nan.txt:1: expected 18 numbers"},
        {"tql-identify columns.txt", "columns.txt:1: expected 18 numbers"},
        {"tql-identify short.txt --db nowhere/parameter.db", "cannot open nowhere/parameter.db"},
        {"tql-excite --write nowhere/parameter.db", "cannot open nowhere/parameter.db"},
        {"tql-excite --margin 2", "usage: tql-excite"},
        {"tql-identify", "usage: tql-identify"},
    };
    for (const Case& c : cases) {
        const ToolRun r = RunTool(dir.path(), c.command);
        EXPECT_NE(r.exit_code, 0) << c.command;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.command << ": " << r.out;
    }
    EXPECT_EQ(Dump(dir.File("parameter.db")), before);

    // A robot type without a dynamic model.
    ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"), "UPDATE system_parameters SET VALUE='GL_4L3' WHERE ID=1"));
    const ToolRun r = RunTool(dir.path(), "tql-excite --write parameter.db");
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.out.find("robot type 'GL_4L3' has no dynamic model"), std::string::npos) << r.out;
}

}  // namespace
