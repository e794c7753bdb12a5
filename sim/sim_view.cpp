// The live view's HTTP server (see sim_view.h).
//
// One thread: a poll-based accept loop with a short timeout (so a stop request
// is seen within kTick), one connection at a time, "Connection: close". Every
// socket operation is bounded by the stop flag and a deadline, so joining the
// thread never waits on a stalled client.
#include "sim_view.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include "sim_bus.h"

#ifndef TQL_SIM_VIEW_BUILD_ROOT
#define TQL_SIM_VIEW_BUILD_ROOT ""
#endif
// The installed page relative to the installed library's directory.
#ifndef TQL_SIM_VIEW_INSTALLED
#define TQL_SIM_VIEW_INSTALLED "../share/tql/web"
#endif

namespace tqlsim {
namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kDegree = kTwoPi / 360.0;
// A joint this close to one of its live limits is flagged (rad).
constexpr double kNearLimit = 5.0 * kDegree;
constexpr int kTickMs = 50;            // accept loop and I/O poll timeout
constexpr int kRequestMs = 2000;       // whole request must arrive within this
constexpr int kResponseMs = 10000;     // and the response be taken within this
constexpr size_t kMaxRequest = 8192;   // bytes of request line and headers
constexpr int kResidualJoints = 6;     // the controller's dynamic model's joints

// Files of the page a client may ask for, by name; nothing else is served from the root.
struct StaticFile {
    const char* name;
    const char* type;
};
constexpr StaticFile kStaticFiles[] = {
    {"index.html", "text/html; charset=utf-8"},
    {"view.js", "text/javascript; charset=utf-8"},
    {"view.css", "text/css; charset=utf-8"},
    {"three.module.js", "text/javascript; charset=utf-8"},
    {"three.core.js", "text/javascript; charset=utf-8"},
};

struct Server {
    int fd = -1;
    int port = 0;
    std::string root;       // directory of the page's files
    std::string urdf_path;  // absolute, empty: no world
    std::string database;   // the controller's parameter.db in the bus's directory
    std::atomic<bool> stop{false};
    std::thread thread;
};

std::mutex server_mutex;     // guards `server`
Server* server = nullptr;    // the running server, null when off


bool Elapsed(std::chrono::steady_clock::time_point deadline) { return std::chrono::steady_clock::now() >= deadline; }

// Sends all of `data`; false on error, stop or deadline.
bool SendAll(const Server& s, int fd, const std::string& data) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kResponseMs);
    size_t sent = 0;
    while (sent < data.size()) {
        if (s.stop.load() || Elapsed(deadline)) return false;
        pollfd p{fd, POLLOUT, 0};
        const int r = poll(&p, 1, kTickMs);
        if (r < 0 && errno != EINTR) return false;
        if (r <= 0) continue;
        const ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        if (n > 0) sent += static_cast<size_t>(n);
    }
    return true;
}

// Reads up to the blank line ending the headers; false on error, stop, deadline or size.
bool ReadRequest(const Server& s, int fd, std::string* request) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRequestMs);
    char buf[1024];
    while (request->find("\r\n\r\n") == std::string::npos && request->find("\n\n") == std::string::npos) {
        if (s.stop.load() || Elapsed(deadline) || request->size() > kMaxRequest) return false;
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, kTickMs);
        if (r < 0 && errno != EINTR) return false;
        if (r <= 0) continue;
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n == 0) return false;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        if (n > 0) request->append(buf, static_cast<size_t>(n));
    }
    return true;
}

std::string Response(int status, const char* reason, const char* type, const std::string& body) {
    char head[256];
    std::snprintf(head, sizeof head,
                  "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\nCache-Control: no-store\r\n"
                  "Connection: close\r\n\r\n",
                  status, reason, type, body.size());
    return head + body;
}

std::string NotFound() { return Response(404, "Not Found", "text/plain; charset=utf-8", "not found\n"); }

bool ReadWholeFile(const std::string& path, std::string* out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    if (in.bad()) return false;
    *out = ss.str();
    return true;
}

// A number for JSON: 9 significant digits, null when not finite.
void Number(std::string& out, double v) {
    if (!std::isfinite(v)) {
        out += "null";
        return;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    out += buf;
}

const char* ModeName(int mode) {
    switch (mode) {
        case Actuator::Mode_None: return "none";
        case Actuator::Mode_Cur: return "current";
        case Actuator::Mode_Vel: return "velocity";
        case Actuator::Mode_Pos: return "position";
        case Actuator::Mode_Profile_Pos: return "profile position";
        case Actuator::Mode_Profile_Vel: return "profile velocity";
        case Actuator::Mode_Homing: return "homing";
        default: return "unknown";
    }
}

// What /state reports of one actuator, copied under the bus mutex.
struct ActuatorView {
    int id = 0;
    int mode = 0;
    bool enabled = false;
    uint32_t error_word = 0;
    double angle = 0.0;     // rad, the bus's own joint angle
    bool has_setpoint = false;
    double setpoint = 0.0;  // reported revolutions
    double homing_offset = 0.0;
    double min_position = 0.0, max_position = 0.0;  // reported revolutions
    Drive drive;
};

struct Snapshot {
    bool virtual_clock = false;
    bool physics = false;
    std::vector<ActuatorView> actuators;
    Bus::MonitorNotes monitor;  // the collision monitor, as its notes say
    std::map<int, int> digital_outputs;  // output number -> 1 on, 0 off
};

// Copies the bus state; false when stopping before the mutex came free.
// try_lock, never lock: StopView may run under the bus mutex (a reset).
bool TakeSnapshot(const Server& s, Snapshot* snap) {
    Bus& bus = TheBus();
    std::unique_lock<std::mutex> lock(bus.mutex, std::try_to_lock);
    while (!lock.owns_lock()) {
        if (s.stop.load()) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        lock.try_lock();
    }
    snap->virtual_clock = bus.config.virtual_clock;
    snap->physics = bus.physics.world.loaded();
    snap->digital_outputs = bus.digital_outputs;
    for (const SimActuator& a : bus.actuators) {
        ActuatorView v;
        v.id = a.id;
        v.mode = a.mode;
        v.enabled = a.enabled;
        v.error_word = a.error_word;
        v.angle = JointAngle(bus, a);
        v.has_setpoint = a.has_setpoint;
        v.setpoint = a.last_setpoint;
        v.homing_offset = a.homing_offset;
        v.min_position = a.live.min_position;
        v.max_position = a.live.max_position;
        v.drive = bus.config.DriveOf(a.id);
        snap->actuators.push_back(v);
    }
    snap->monitor = bus.monitor;
    return true;
}

// Joint angle (rad) of a reported position (revolutions), as the bus converts
// raw positions: raw = reported + homing offset, angle = raw * direction /
// reduction_ratio * 2*pi.
double ToJoint(const ActuatorView& v, double reported) {
    return (reported + v.homing_offset) * v.drive.direction / v.drive.reduction_ratio * kTwoPi;
}

std::string StateJson(const Snapshot& snap, double now) {
    std::string j = "{\"time\":";
    Number(j, now);
    j += snap.virtual_clock ? ",\"clock\":\"virtual\"" : ",\"clock\":\"real\"";
    j += snap.physics ? ",\"physics\":true" : ",\"physics\":false";
    j += ",\"actuators\":[";
    for (size_t k = 0; k < snap.actuators.size(); ++k) {
        const ActuatorView& v = snap.actuators[k];
        char head[160];
        std::snprintf(head, sizeof head, "%s{\"id\":%d,\"mode\":%d,\"mode_name\":\"%s\",\"enabled\":%s,\"error\":%u",
                      k == 0 ? "" : ",", v.id, v.mode, ModeName(v.mode), v.enabled ? "true" : "false",
                      static_cast<unsigned>(v.error_word));
        j += head;
        j += ",\"angle\":";
        Number(j, v.angle);
        j += ",\"angle_deg\":";
        Number(j, v.angle / kDegree);
        j += ",\"setpoint\":";
        Number(j, v.has_setpoint ? v.setpoint : NAN);
        j += ",\"setpoint_deg\":";
        Number(j, v.has_setpoint ? ToJoint(v, v.setpoint) / kDegree : NAN);
        // Limits as joint angles, lower first (a reversed drive swaps them);
        // unusable limits (min > max) bound nothing.
        const bool limited = v.min_position <= v.max_position;
        const double a = ToJoint(v, v.min_position), b = ToJoint(v, v.max_position);
        const double lower = limited ? std::min(a, b) : NAN, upper = limited ? std::max(a, b) : NAN;
        j += ",\"lower\":";
        Number(j, lower);
        j += ",\"upper\":";
        Number(j, upper);
        j += ",\"lower_deg\":";
        Number(j, lower / kDegree);
        j += ",\"upper_deg\":";
        Number(j, upper / kDegree);
        const bool near = limited && (v.angle - lower < kNearLimit || upper - v.angle < kNearLimit);
        j += near ? ",\"near_limit\":true}" : ",\"near_limit\":false}";
    }
    j += "],\"digital_outputs\":[";
    for (const auto& [output, on] : snap.digital_outputs) {
        char item[64];
        std::snprintf(item, sizeof item, "%s{\"output\":%d,\"on\":%s}", j.back() == '[' ? "" : ",", output,
                      on != 0 ? "true" : "false");
        j += item;
    }
    j += "]";
    // The collision monitor while one is armed: residuals and thresholds
    // (N*m) and the joint it found beyond its threshold (0: none).
    if (snap.monitor.armed) {
        for (const auto& [name, values] : {std::make_pair("collision_residual", snap.monitor.residual),
                                           std::make_pair("collision_threshold", snap.monitor.threshold)}) {
            j += std::string(",\"") + name + "\":[";
            for (int i = 0; i < kResidualJoints; ++i) {
                if (i > 0) j += ",";
                Number(j, values[i]);
            }
            j += "]";
        }
        j += ",\"collision_joint\":" + std::to_string(snap.monitor.collision_joint);
    }
    j += "}\n";
    return j;
}

// The VALUE of the row of `sql` (one text column), "" when there is none.
std::string Value(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    std::string value;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_text(statement, 0) != nullptr)
        value = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    sqlite3_finalize(statement);
    return value;
}

// The numbers of a list value ("[a,b,...]"); empty unless every entry is a finite number.
std::vector<double> Numbers(const std::string& text) {
    std::vector<double> v;
    const char* c = text.c_str();
    while (*c == ' ') ++c;
    if (*c++ != '[') return {};
    for (;;) {
        char* end = nullptr;
        const double x = std::strtod(c, &end);
        if (end == c || !std::isfinite(x)) return {};
        v.push_back(x);
        for (c = end; *c == ' ';) ++c;
        if (*c == ']') return v;
        if (*c++ != ',') return {};
    }
}

// The Cartesian workspace of the robot type's table (rows 15 and 16, read as
// the controller reads them, each left out where the controller would refuse
// it): {"box_mm":[xmin,xmax,ymin,ymax,zmin,zmax] or null, "half_spaces":
// [[nx,ny,nz,d_mm],...]}, base frame, the allowed side n . p <= d.
std::string WorkspaceJson(const std::string& database) {
    std::vector<double> box, planes;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, kTickMs);  // the controller writing its switches
        const std::string type = Value(db, "SELECT VALUE FROM system_parameters WHERE ID = 1");
        // The type names the table; only a plain name goes into the statement.
        const bool plain = !type.empty() && std::all_of(type.begin(), type.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
        });
        if (plain) {
            box = Numbers(Value(db, "SELECT VALUE FROM " + type + " WHERE ID = 15"));
            planes = Numbers(Value(db, "SELECT VALUE FROM " + type + " WHERE ID = 16"));
        }
    }
    sqlite3_close(db);
    if (!(box.size() == 6 && box[0] < box[1] && box[2] < box[3] && box[4] < box[5])) box.clear();
    planes.resize(std::min<size_t>(planes.size() / 4, 8) * 4);  // whole half-spaces, at most eight
    for (size_t k = 0; k < planes.size(); k += 4)
        if (planes[k] == 0.0 && planes[k + 1] == 0.0 && planes[k + 2] == 0.0) planes.clear();
    std::string j = "{\"box_mm\":";
    if (box.empty()) j += "null";
    for (size_t k = 0; k < box.size(); ++k) {
        j += k == 0 ? "[" : ",";
        Number(j, box[k]);
    }
    j += box.empty() ? ",\"half_spaces\":[" : "],\"half_spaces\":[";
    for (size_t k = 0; k < planes.size(); ++k) {
        j += k == 0 ? "[" : k % 4 == 0 ? "],[" : ",";
        Number(j, planes[k]);
    }
    j += planes.empty() ? "]}\n" : "]]}\n";
    return j;
}

// The answer to one request (the request line's method and target).
std::string Answer(const Server& s, const std::string& method, std::string target) {
    if (method != "GET") return Response(405, "Method Not Allowed", "text/plain; charset=utf-8", "GET only\n");
    const size_t query = target.find('?');
    if (query != std::string::npos) target.erase(query);
    if (target == "/state") {
        Snapshot snap;
        if (!TakeSnapshot(s, &snap)) return "";
        return Response(200, "OK", "application/json", StateJson(snap, BusNow()));
    }
    if (target == "/workspace") return Response(200, "OK", "application/json", WorkspaceJson(s.database));
    std::string body;
    if (target == "/arm.urdf") {
        if (s.urdf_path.empty() || !ReadWholeFile(s.urdf_path, &body)) return NotFound();
        return Response(200, "OK", "application/xml; charset=utf-8", body);
    }
    const std::string name = target == "/" ? "index.html" : target.substr(1);
    for (const StaticFile& f : kStaticFiles) {
        if (name != f.name) continue;
        if (!ReadWholeFile(s.root + "/" + f.name, &body)) return NotFound();
        return Response(200, "OK", f.type, body);
    }
    return NotFound();
}

void Serve(const Server& s, int fd) {
    std::string request;
    if (!ReadRequest(s, fd, &request)) return;
    const size_t eol = request.find_first_of("\r\n");
    std::istringstream line(request.substr(0, eol));
    std::string method, target, version;
    line >> method >> target >> version;
    std::string reply;
    if (target.empty() || target[0] != '/' || version.rfind("HTTP/1.", 0) != 0)
        reply = Response(400, "Bad Request", "text/plain; charset=utf-8", "bad request\n");
    else
        reply = Answer(s, method, target);
    if (!reply.empty()) SendAll(s, fd, reply);
}

void Run(Server* s) {
    while (!s->stop.load()) {
        pollfd p{s->fd, POLLIN, 0};
        if (poll(&p, 1, kTickMs) <= 0) continue;
        const int fd = accept4(s->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) continue;
        Serve(*s, fd);
        close(fd);
    }
}

// Listening socket on 127.0.0.1:port, or -1 with errno set.
int Listen(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(fd, 16) < 0) {
        const int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

bool IsFile(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

}  // namespace

std::string ViewRoot(const std::string& directory, const std::string& configured) {
    const char* env = std::getenv("TQL_SIM_VIEW_ROOT");
    if (env != nullptr && *env != '\0') return env;
    if (!configured.empty()) return InDirectory(directory, configured);
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&ViewRoot), &info) != 0 && info.dli_fname != nullptr) {
        std::string lib = info.dli_fname;
        const size_t slash = lib.rfind('/');
        lib = slash == std::string::npos ? "." : lib.substr(0, slash);
        const std::string installed = lib + "/" TQL_SIM_VIEW_INSTALLED;
        if (IsFile(installed + "/index.html")) return installed;
    }
    return TQL_SIM_VIEW_BUILD_ROOT;
}

void StopView() {
    std::lock_guard<std::mutex> lock(server_mutex);
    if (server == nullptr) return;
    server->stop.store(true);
    if (server->thread.joinable()) server->thread.join();
    close(server->fd);
    delete server;
    server = nullptr;
}

void RestartView(Bus& bus) {
    StopView();
    const int port = bus.config.view_port;
    if (port <= 0) return;
    const int fd = Listen(port);
    if (fd < 0) {
        std::fprintf(stderr, "sim: view port %d unavailable: %s\n", port, std::strerror(errno));
        std::fflush(stderr);
        return;
    }
    auto* s = new Server;
    s->fd = fd;
    s->port = port;
    s->root = ViewRoot(bus.directory, bus.config.view_root);
    s->database = InDirectory(bus.directory, "parameter.db");
    if (!bus.config.urdf_path.empty()) s->urdf_path = InDirectory(bus.directory, bus.config.urdf_path);
    // The server thread takes no signal: the operator's Ctrl-C and the bus's
    // scripted interrupts stay with the controller's threads.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    try {
        s->thread = std::thread(Run, s);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "sim: view port %d unavailable: %s\n", port, e.what());
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (!s->thread.joinable()) {
        close(fd);
        delete s;
        return;
    }
    std::lock_guard<std::mutex> lock(server_mutex);
    server = s;
}


}  // namespace tqlsim
