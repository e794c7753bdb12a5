// sim.conf ("key = value" lines, '#' comments) and the environment overrides.
// A bad line or value is reported on standard error and ignored; it never
// stops the bus.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "sim_bus.h"

namespace tqlsim {

const Settings& Config::FactorySettings(uint8_t id) const {
    auto it = per_id.find(id);
    return it == per_id.end() ? defaults : it->second;
}

double Config::InitialPosition(uint8_t id) const {
    auto it = initial_per_id.find(id);
    return it == initial_per_id.end() ? initial_position : it->second;
}

namespace {

constexpr int kMaxActuators = 255;  // ids are 8-bit; 0 is not an actuator id
constexpr double kMaxPayloadKg = 100.0;  // a payload beyond this is a typing error for any arm it drives

std::string Trim(const std::string& s) {
    const char* blanks = " \t\r\n";
    const size_t b = s.find_first_not_of(blanks);
    if (b == std::string::npos) return "";
    const size_t e = s.find_last_not_of(blanks);
    return s.substr(b, e - b + 1);
}

bool ParseDouble(const std::string& text, double* out) {
    const std::string t = Trim(text);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(t.c_str(), &end);
    if (errno != 0 || end == t.c_str() || *end != '\0' || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

// Decimal or 0x-prefixed hexadecimal, within [lo, hi].
bool ParseInteger(const std::string& text, long long lo, long long hi, long long* out) {
    const std::string t = Trim(text);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(t.c_str(), &end, 0);
    if (errno != 0 || end == t.c_str() || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

std::vector<std::string> SplitItems(const std::string& text) {
    std::vector<std::string> items;
    std::string cur;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == ',' || c == ';' || c == '\r' || c == '\n') {
            if (!cur.empty()) items.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) items.push_back(cur);
    return items;
}

std::vector<std::string> SplitColons(const std::string& item) {
    std::vector<std::string> parts;
    std::stringstream ss(item);
    std::string p;
    while (std::getline(ss, p, ':')) parts.push_back(p);
    return parts;
}

bool ParseIdList(const std::string& text, std::vector<uint8_t>* ids) {
    std::vector<uint8_t> out;
    for (const std::string& item : SplitItems(text)) {
        long long v = 0;
        if (!ParseInteger(item, 1, kMaxActuators, &v)) return false;
        for (uint8_t seen : out)
            if (seen == v) return false;  // ids on one bus are unique
        out.push_back(static_cast<uint8_t>(v));
    }
    *ids = out;
    return true;
}

std::vector<uint8_t> FirstIds(int n) {
    std::vector<uint8_t> ids;
    for (int i = 1; i <= n; ++i) ids.push_back(static_cast<uint8_t>(i));
    return ids;
}

double* SettingField(Settings& s, const std::string& name) {
    if (name == "min_position") return &s.min_position;
    if (name == "max_position") return &s.max_position;
    if (name == "velocity_limit") return &s.velocity_limit;
    if (name == "position_kp") return &s.position_kp;
    if (name == "position_ki") return &s.position_ki;
    if (name == "position_kd") return &s.position_kd;
    if (name == "velocity_kp") return &s.velocity_kp;
    if (name == "velocity_ki") return &s.velocity_ki;
    if (name == "lock_energy") return &s.lock_energy;
    return nullptr;
}

double* DriveField(Drive& d, const std::string& name) {
    if (name == "reduction_ratio") return &d.reduction_ratio;
    if (name == "torque_constant") return &d.torque_constant;
    if (name == "direction") return &d.direction;
    if (name == "current_noise") return &d.current_noise;
    if (name == "peak_current") return &d.peak_current;
    if (name == "noise_seed") return &d.noise_seed;
    if (name == "hand_stiffness") return &d.hand_stiffness;
    if (name == "hand_damping") return &d.hand_damping;
    return nullptr;
}

// Values the world can use: ratios and constants positive, direction +-1,
// noise, springs and dampers not negative, the seed a whole number.
bool ValidDriveValue(const std::string& name, double v) {
    if (name == "reduction_ratio" || name == "torque_constant" || name == "peak_current") return v > 0.0;
    if (name == "direction") return v == 1.0 || v == -1.0;
    if (name == "noise_seed") return v >= 0.0 && v <= 9007199254740992.0 && v == std::floor(v);
    return v >= 0.0;
}

bool ParseClock(const std::string& value, bool* virtual_clock) {
    if (value == "virtual") {
        *virtual_clock = true;
        return true;
    }
    if (value == "real") {
        *virtual_clock = false;
        return true;
    }
    return false;
}

// Scripted interrupt times: bus seconds (finite, >= 0) separated by blanks or
// commas; empty = none. False, changing nothing, if any item is bad.
bool ParseInterrupts(const std::string& text, std::vector<ScriptedInterrupt>* interrupts) {
    std::vector<ScriptedInterrupt> out;
    for (const std::string& item : SplitItems(text)) {
        ScriptedInterrupt i;
        if (!ParseDouble(item, &i.at_time) || i.at_time < 0.0) return false;
        out.push_back(i);
    }
    *interrupts = out;
    return true;
}

// One obstacle of sim.conf: "sphere X Y Z R [K B]" or "box X Y Z SX SY SZ
// [K B]" (mm; stiffness N/mm, damping N*s/mm), appended to *obstacles.
bool ParseObstacle(const std::string& text, std::vector<Obstacle>* obstacles) {
    const std::vector<std::string> items = SplitItems(text);
    if (items.empty() || (items[0] != "sphere" && items[0] != "box")) return false;
    Obstacle o;
    o.box = items[0] == "box";
    const size_t shape = o.box ? 6 : 4;
    if (items.size() != 1 + shape && items.size() != 3 + shape) return false;
    double v[8] = {};
    for (size_t k = 1; k < items.size(); ++k)
        if (!ParseDouble(items[k], &v[k - 1])) return false;
    for (int k = 0; k < 3; ++k) o.centre[k] = v[k] * 1e-3;
    for (size_t k = 3; k < shape; ++k) {
        if (!(v[k] > 0.0)) return false;
        o.size[k - 3] = v[k] * 1e-3;
    }
    if (items.size() == 3 + shape) {
        if (!(v[shape] > 0.0) || !(v[shape + 1] >= 0.0)) return false;
        o.stiffness = v[shape] * 1e3;
        o.damping = v[shape + 1] * 1e3;
    }
    obstacles->push_back(o);
    return true;
}

// TQL_SIM_OBSTACLE: spheres "x,y,z,r" (mm) separated by ";", or "none".
bool ParseObstacleSpheres(const std::string& text, std::vector<Obstacle>* obstacles) {
    std::vector<Obstacle> out;
    if (text != "none") {
        size_t start = 0;
        for (;;) {
            const size_t end = text.find(';', start);
            const std::string one = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (SplitItems(one).size() != 4 || !ParseObstacle("sphere " + one, &out)) return false;
            if (end == std::string::npos) break;
            start = end + 1;
        }
    }
    *obstacles = out;
    return true;
}


// Splits "name.ID" into name and id; id 0 when there is no suffix.
bool SplitKey(const std::string& key, std::string* name, int* id) {
    const size_t dot = key.find('.');
    if (dot == std::string::npos) {
        *name = key;
        *id = 0;
        return true;
    }
    long long v = 0;
    if (!ParseInteger(key.substr(dot + 1), 1, kMaxActuators, &v)) return false;
    *name = key.substr(0, dot);
    *id = static_cast<int>(v);
    return true;
}

// Applies one "key = value" pair; false if the key or value is invalid.
// Per-actuator settings are collected first and laid over the defaults later,
// so their order relative to the plain keys does not matter.
struct ConfigDraft {
    Config config;
    bool ids_given = false;
    std::vector<uint8_t> explicit_ids;
    int count = 6;
    std::map<uint8_t, std::map<std::string, double>> per_id_values;
    std::map<uint8_t, std::map<std::string, double>> per_id_drive;
    std::string fault_text;
    double noise_override = -1.0;  // TQL_SIM_NOISE, -1 when not set
};

bool ApplyKey(ConfigDraft& d, const std::string& key, const std::string& value) {
    Config& c = d.config;
    long long n = 0;
    if (key == "actuators") {
        if (!ParseInteger(value, 0, kMaxActuators, &n)) return false;
        d.count = static_cast<int>(n);
        return true;
    }
    if (key == "ids") {
        if (!ParseIdList(value, &d.explicit_ids)) return false;
        d.ids_given = true;
        return true;
    }
    if (key == "ip_address") {
        if (value.empty()) return false;
        c.ip_address = value;
        return true;
    }
    if (key == "clock") return ParseClock(value, &c.virtual_clock);
    if (key == "record") {
        c.record_path = value;
        return true;
    }
    if (key == "fault") {
        d.fault_text = value;
        return true;
    }
    if (key == "urdf") {
        c.urdf_path = value;
        return true;
    }
    if (key == "hand") {
        c.hand_path = value;
        return true;
    }
    if (key == "interrupt_at") return ParseInterrupts(value, &c.interrupts);
    if (key == "obstacle") return ParseObstacle(value, &c.obstacles);
    if (key == "link_radius") {
        double mm = 0.0;
        if (!ParseDouble(value, &mm) || !(mm > 0.0)) return false;
        c.link_radius = mm * 1e-3;
        return true;
    }
    if (key == "payload") {
        const std::vector<std::string> items = SplitItems(value);
        double v[4];
        if (items.size() != 4) return false;
        for (int i = 0; i < 4; ++i)
            if (!ParseDouble(items[i], &v[i])) return false;
        if (!(v[0] >= 0.0 && v[0] <= kMaxPayloadKg)) return false;
        c.payload_kg = v[0];
        for (int i = 0; i < 3; ++i) c.payload_com[i] = v[i + 1] * 1e-3;
        return true;
    }
    if (key == "view" || key == "view_root") {
        // The bus served a view once; tql-pendant does now, on the board too.
        std::fprintf(stderr, "sim: sim.conf's \"%s\" is no longer read: tql-pendant shows the arm\n", key.c_str());
        return true;
    }
    std::string name;
    int id = 0;
    if (!SplitKey(key, &name, &id)) return false;
    double v = 0.0;
    if (!ParseDouble(value, &v)) return false;
    if (name == "initial_position") {
        if (id == 0)
            c.initial_position = v;
        else
            c.initial_per_id[static_cast<uint8_t>(id)] = v;
        return true;
    }
    if (DriveField(c.drive, name) != nullptr) {
        if (!ValidDriveValue(name, v)) return false;
        if (id == 0)
            *DriveField(c.drive, name) = v;
        else
            d.per_id_drive[static_cast<uint8_t>(id)][name] = v;
        return true;
    }
    if (SettingField(c.defaults, name) == nullptr) return false;
    if (id == 0)
        *SettingField(c.defaults, name) = v;
    else
        d.per_id_values[static_cast<uint8_t>(id)][name] = v;
    return true;
}

void ReadConfigFile(const std::string& path, ConfigDraft& d) {
    std::ifstream in(path);
    if (!in) return;  // no sim.conf: built-in defaults
    std::string line;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        line = Trim(line);
        if (line.empty()) continue;
        const size_t eq = line.find('=');
        const std::string key = eq == std::string::npos ? line : Trim(line.substr(0, eq));
        const std::string value = eq == std::string::npos ? "" : Trim(line.substr(eq + 1));
        if (eq == std::string::npos || !ApplyKey(d, key, value))
            std::fprintf(stderr, "sim: %s:%d: ignoring \"%s\"\n", path.c_str(), line_no, line.c_str());
    }
}

const char* Env(const char* name) {
    const char* v = std::getenv(name);
    return (v != nullptr && *v != '\0') ? v : nullptr;
}

void ApplyEnvironment(ConfigDraft& d) {
    if (const char* v = Env("TQL_SIM_ACTUATORS")) {
        long long n = 0;
        if (ParseInteger(v, 0, kMaxActuators, &n)) {
            d.count = static_cast<int>(n);
            d.ids_given = false;
        } else {
            std::fprintf(stderr, "sim: ignoring TQL_SIM_ACTUATORS=%s (expected 0..%d)\n", v, kMaxActuators);
        }
    }
    if (const char* v = Env("TQL_SIM_CLOCK")) {
        if (!ParseClock(v, &d.config.virtual_clock))
            std::fprintf(stderr, "sim: ignoring TQL_SIM_CLOCK=%s (expected virtual or real)\n", v);
    }
    if (const char* v = Env("TQL_SIM_RECORD")) d.config.record_path = v;
    if (const char* v = Env("TQL_SIM_FAULT")) d.fault_text = (std::string(v) == "none") ? "" : v;
    if (const char* v = Env("TQL_SIM_URDF")) d.config.urdf_path = (std::string(v) == "none") ? "" : v;
    if (const char* v = Env("TQL_SIM_HAND")) d.config.hand_path = (std::string(v) == "none") ? "" : v;
    if (const char* v = Env("TQL_SIM_INTERRUPT")) {
        if (!ParseInterrupts(std::string(v) == "none" ? "" : v, &d.config.interrupts))
            std::fprintf(stderr, "sim: ignoring TQL_SIM_INTERRUPT=%s (expected bus seconds >= 0, or none)\n", v);
    }
    if (const char* v = Env("TQL_SIM_OBSTACLE")) {
        if (!ParseObstacleSpheres(v, &d.config.obstacles))
            std::fprintf(stderr, "sim: ignoring TQL_SIM_OBSTACLE=%s (expected x,y,z,r in mm, ';' between, or none)\n",
                         v);
    }
    if (const char* v = Env("TQL_SIM_NOISE")) {
        double x = 0.0;
        if (ParseDouble(v, &x) && x >= 0.0)
            d.noise_override = x;
        else
            std::fprintf(stderr, "sim: ignoring TQL_SIM_NOISE=%s (expected a fraction >= 0)\n", v);
    }
}

}  // namespace

bool ParseFaults(const std::string& text, Faults* faults, std::string* problem) {
    Faults out = *faults;
    for (const std::string& item : SplitItems(text)) {
        if (item == "no_actuators") {
            out.no_actuators = true;
            continue;
        }
        if (item == "enable_failure") {
            out.enable_failure = true;
            continue;
        }
        if (item == "save_failure") {
            out.save_failure = true;
            continue;
        }
        const std::vector<std::string> p = SplitColons(item);
        long long id = 0, code = 0;
        bool ok = p.size() == 5 && p[0] == "error" && ParseInteger(p[1], 1, kMaxActuators, &id) &&
                  ParseInteger(p[2], 1, 0xffffffffLL, &code);
        ErrorFault f;
        if (ok) {
            f.id = static_cast<uint8_t>(id);
            f.code = static_cast<uint32_t>(code);
            if (p[3] == "setpoint") {
                long long k = 0;
                ok = ParseInteger(p[4], 1, 1000000000000LL, &k);
                f.at_setpoint = static_cast<long>(k);
            } else if (p[3] == "time") {
                f.by_time = true;
                ok = ParseDouble(p[4], &f.at_time) && f.at_time >= 0.0;
            } else {
                ok = false;
            }
        }
        if (!ok) {
            if (problem != nullptr) *problem = "bad fault \"" + item + "\"";
            return false;
        }
        out.errors.push_back(f);
    }
    *faults = out;
    return true;
}

Config LoadConfig(const std::string& directory) {
    ConfigDraft d;
    ReadConfigFile(directory + "/sim.conf", d);
    ApplyEnvironment(d);
    Config c = d.config;
    c.ids = d.ids_given ? d.explicit_ids : FirstIds(d.count);
    for (const auto& entry : d.per_id_values) {
        Settings s = c.defaults;
        for (const auto& kv : entry.second) *SettingField(s, kv.first) = kv.second;
        c.per_id[entry.first] = s;
    }
    for (const auto& entry : d.per_id_drive) {
        Drive dr = c.drive;
        for (const auto& kv : entry.second) *DriveField(dr, kv.first) = kv.second;
        c.drive_per_id[entry.first] = dr;
    }
    if (d.noise_override >= 0.0) {  // the environment wins over every actuator's setting
        c.drive.current_noise = d.noise_override;
        for (auto& entry : c.drive_per_id) entry.second.current_noise = d.noise_override;
    }
    std::string problem;
    if (!ParseFaults(d.fault_text, &c.faults, &problem))
        std::fprintf(stderr, "sim: ignoring the fault list: %s\n", problem.c_str());
    return c;
}

}  // namespace tqlsim
