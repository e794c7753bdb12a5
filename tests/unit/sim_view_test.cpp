// The simulated bus's live view server: /state against the bus's own joint
// angles and drive-train conversion, the digital outputs, the workspace of
// parameter.db, the files it serves and refuses, a busy port, and the server
// going away with a reset.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "test_support.h"

namespace {

using tqltest::ReadFile;
using tqltest::WriteFile;

constexpr double kTwoPi = 6.283185307179586;

struct SimView : tqltest::SimBusTest {
    void SetUp() override {
        unsetenv("TQL_SIM_VIEW");
        unsetenv("TQL_SIM_VIEW_ROOT");
        SimBusTest::SetUp();
    }
    void TearDown() override {
        unsetenv("TQL_SIM_VIEW");
        unsetenv("TQL_SIM_VIEW_ROOT");
        SimBusTest::TearDown();
    }
};

// A loopback socket bound to a free port (listening when asked); *port gets it.
int Bound(int* port, bool listening) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || (listening && listen(fd, 1) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        ADD_FAILURE() << "no loopback port";
    *port = ntohs(a.sin_port);
    return fd;
}

// The raw reply to one request ("" when nothing listens).
std::string Request(int port, const std::string& text) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && send(fd, text.data(), text.size(), 0) > 0) {
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return reply;
}
std::string Get(int port, const std::string& target) { return Request(port, "GET " + target + " HTTP/1.1\r\n\r\n"); }
std::string Body(const std::string& reply) { return reply.substr(reply.find("\r\n\r\n") + 4); }

// The object of the actuator with `id` in a /state reply, and one of its numbers (NaN for null).
std::string Object(const std::string& state, int id) {
    const size_t at = state.find("{\"id\":" + std::to_string(id) + ",");
    return at == std::string::npos ? "" : state.substr(at, state.find('}', at) - at);
}
double Field(const std::string& state, int id, const std::string& key) {
    const std::string object = Object(state, id);
    const size_t k = object.find("\"" + key + "\":");
    if (k == std::string::npos) return -1e300;
    const char* v = object.c_str() + k + key.size() + 3;
    return std::string(v, 4) == "null" ? NAN : std::strtod(v, nullptr);
}

TEST_F(SimView, StateReportsJointAnglesLimitsAndSetPointsAsTheBusConverts) {
    int port = 0;
    close(Bound(&port, false));
    // Demo drive trains (ratio 36, joints 3 and 5 reversed) plus joint 2 at
    // ratio 50 and joint 3 limited to -4..10 revolutions (-100..40 degrees).
    WriteFile("sim.conf", ReadFile("sim.conf") + "view = " + std::to_string(port) +
                              "\nreduction_ratio.2 = 50\nmin_position.3 = -4\nmax_position.3 = 10\n");
    Boot();
    Ctl()->setPosition(1, 2.0);  // 20 degrees
    const struct { int id; double rev, ratio, dir, lower_deg, upper_deg; bool near; } cases[] = {
        {1, 2.0, 36, 1, -170, 170, false},     {2, -5.0, 50, 1, -122.4, 122.4, false},
        {3, -3.9, 36, -1, -100, 40, true},     {4, 16.6, 36, 1, -170, 170, true},
        {5, 16.6, 36, -1, -170, 170, true},    {6, -16.0, 36, 1, -170, 170, false},
    };
    double bus_angle[7] = {};
    for (const auto& c : cases) ASSERT_EQ(tql_sim_set_position(c.id, c.rev), 0);
    for (const auto& c : cases) bus_angle[c.id] = tql_sim_joint_angle(c.id);  // a bus call: the world follows
    const std::string state = Body(Get(port, "/state"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const double angle = c.rev * c.dir / c.ratio * kTwoPi;
        EXPECT_NEAR(Field(state, c.id, "angle"), angle, 1e-8);
        EXPECT_NEAR(Field(state, c.id, "angle"), bus_angle[c.id], 1e-8);
        EXPECT_NEAR(Field(state, c.id, "angle_deg"), angle * 360 / kTwoPi, 1e-6);
        EXPECT_NEAR(Field(state, c.id, "lower_deg"), c.lower_deg, 1e-6);
        EXPECT_NEAR(Field(state, c.id, "upper_deg"), c.upper_deg, 1e-6);
        EXPECT_EQ(Object(state, c.id).find("\"near_limit\":true") != std::string::npos, c.near);
        EXPECT_EQ(std::isnan(Field(state, c.id, "setpoint_deg")), c.id != 1);
        EXPECT_EQ(Field(state, c.id, "mode"), Actuator::Mode_Pos);
    }
    EXPECT_NEAR(Field(state, 1, "setpoint_deg"), 20.0, 1e-6);
    EXPECT_EQ(state.find("collision_residual"), std::string::npos) << "no collision monitor is armed";

    // The collision monitor's notes: armed (thresholds), stepped (residuals),
    // and a joint found beyond its threshold.
    for (int joint = 1; joint <= 6; ++joint) tql_sim_record_note(joint, "threshold", 2.0 + joint);
    tql_sim_record_note(3, "residual", 1.25);
    tql_sim_record_note(3, "collision", 6.5);
    const std::string noted = Body(Get(port, "/state"));
    for (const char* part : {"\"collision_residual\":[0,0,1.25,0,0,0]", "\"collision_threshold\":[3,4,5,6,7,8]",
                             "\"collision_joint\":3"})
        EXPECT_NE(noted.find(part), std::string::npos) << part << "\n" << noted;
}

TEST_F(SimView, ServesTheDigitalOutputsAndTheWorkspaceOfTheDatabase) {
    int port = 0;
    close(Bound(&port, false));
    ResetWith("TQL_SIM_VIEW", std::to_string(port).c_str());
    EXPECT_NE(Body(Get(port, "/state")).find(",\"digital_outputs\":[]"), std::string::npos);
    tql_sim_digital_output(3, 1);
    tql_sim_digital_output(1, 1);
    tql_sim_digital_output(3, 0);
    EXPECT_NE(Body(Get(port, "/state")).find(",\"digital_outputs\":[{\"output\":1,\"on\":true},"
                                              "{\"output\":3,\"on\":false}]"),
              std::string::npos);
    // The demo's box (demo/parameter.sql), then the database changed under the running view.
    const std::string box = "{\"box_mm\":[-700,700,-700,700,0,900],\"half_spaces\":";
    const std::string none = "{\"box_mm\":null,\"half_spaces\":[]}\n";
    const struct { const char* sql; std::string body; } cases[] = {
        {"", box + "[]}\n"},
        // Whole half-spaces only, as the controller counts them.
        {"INSERT INTO GL_6L3 VALUES (16, 'planes', '[0, 0, 1, 850.5, 1,0,0,600, 9]')", box + "[[0,0,1,850.5],[1,0,0,600]]}\n"},
        // What the controller refuses is left out: a zero normal, a box reversed in y.
        {"UPDATE GL_6L3 SET VALUE = '[0,0,0,1]' WHERE ID = 16", box + "[]}\n"},
        {"UPDATE GL_6L3 SET VALUE = '[-700,700,700,-700,0,900]' WHERE ID = 15", none},
        {"UPDATE system_parameters SET VALUE = 'GL_4L3' WHERE ID = 1", none},  // a type without the rows
    };
    for (const auto& c : cases) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open("parameter.db", &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, c.sql, nullptr, nullptr, nullptr), SQLITE_OK) << c.sql;
        sqlite3_close(db);
        EXPECT_EQ(Body(Get(port, "/workspace")), c.body) << c.sql;
    }
    ASSERT_EQ(std::remove("parameter.db"), 0);
    EXPECT_EQ(Body(Get(port, "/workspace")), none);
    EXPECT_NE(access("parameter.db", F_OK), 0) << "the view never creates a database";
}

TEST_F(SimView, ServesItsFilesOnlyAndStopsWithTheBus) {
    int port = 0;
    close(Bound(&port, false));
    WriteFile("index.html", "<html>view</html>");
    setenv("TQL_SIM_VIEW_ROOT", ".", 1);
    ResetWith("TQL_SIM_VIEW", std::to_string(port).c_str());
    const struct { std::string request, status, body; } cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", "200 OK", "<html>view</html>"},
        {"GET /index.html?x=1 HTTP/1.0\r\nHost: a\r\n\r\n", "200 OK", "<html>view</html>"},
        {"GET /arm.urdf HTTP/1.1\r\n\r\n", "200 OK", ReadFile("arm.urdf")},
        {"GET /sim.conf HTTP/1.1\r\n\r\n", "404 Not Found", "not found\n"},
        {"GET /../sim.conf HTTP/1.1\r\n\r\n", "404 Not Found", "not found\n"},
        {"GET /view.js HTTP/1.1\r\n\r\n", "404 Not Found", "not found\n"},  // listed, but not in this root
        {"POST /state HTTP/1.1\r\n\r\n", "405 Method Not Allowed", "GET only\n"},
        {"GET state\r\n\r\n", "400 Bad Request", "bad request\n"},
    };
    for (const auto& c : cases) {
        const std::string reply = Request(port, c.request);
        EXPECT_EQ(reply.substr(9, c.status.size()), c.status) << c.request;
        EXPECT_EQ(Body(reply), c.body) << c.request;
    }
    // A busy port: one line on standard error, and the bus works on.
    int busy = 0;
    const int holder = Bound(&busy, true);
    EXPECT_EQ(tqltest::Stderr([&] { ResetWith("TQL_SIM_VIEW", std::to_string(busy).c_str()); }),
              "sim: view port " + std::to_string(busy) + " unavailable: Address already in use\n");
    EXPECT_EQ(Lookup().size(), 6u);
    close(holder);
    EXPECT_EQ(Get(port, "/state"), "") << "the previous load's server stopped";
    WriteFile("sim.conf", ReadFile("sim.conf") + "view = " + std::to_string(port) + "\n");
    ResetWith("TQL_SIM_VIEW", "none");  // the environment wins over the file
    EXPECT_EQ(Get(port, "/state"), "");
}

}  // namespace
