// sim_state.txt: what the arm keeps between runs, like a real arm does.
//
//   sim_state 1
//   actuator id=1 position=0.25 homing_offset=0
//   actuator id=2 position=-3 homing_offset=1.5 min_position=-9 max_position=9 ...
//
// One line per actuator: raw position and homing offset (revolutions), and the
// settings it last saved with saveAllParams, if it ever did (all nine keys).
// Any malformed line makes the whole file count as corrupt: the bus then
// starts from its factory defaults.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "sim_bus.h"

namespace tqlsim {
namespace {

const char* const kHeader = "sim_state 1";

struct SettingKey {
    const char* name;
    double Settings::*field;
};
const SettingKey kSettingKeys[] = {
    {"min_position", &Settings::min_position}, {"max_position", &Settings::max_position},
    {"velocity_limit", &Settings::velocity_limit}, {"position_kp", &Settings::position_kp},
    {"position_ki", &Settings::position_ki},   {"position_kd", &Settings::position_kd},
    {"velocity_kp", &Settings::velocity_kp},   {"velocity_ki", &Settings::velocity_ki},
    {"lock_energy", &Settings::lock_energy},
};
constexpr size_t kSettingCount = sizeof(kSettingKeys) / sizeof(kSettingKeys[0]);

bool ParseNumber(const std::string& text, double* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

// One "actuator key=value ..." line.
bool ParseActuatorLine(const std::string& line, uint8_t* id, PersistedActuator* a) {
    std::istringstream in(line);
    std::string word;
    if (!(in >> word) || word != "actuator") return false;
    std::map<std::string, double> values;
    while (in >> word) {
        const size_t eq = word.find('=');
        double v = 0.0;
        if (eq == std::string::npos || !ParseNumber(word.substr(eq + 1), &v)) return false;
        if (!values.emplace(word.substr(0, eq), v).second) return false;  // duplicate key
    }
    size_t used = 0;
    auto take = [&](const char* key, double* out) {
        auto it = values.find(key);
        if (it == values.end()) return false;
        *out = it->second;
        ++used;
        return true;
    };
    double idv = 0.0;
    if (!take("id", &idv) || idv < 1.0 || idv > 255.0 || idv != std::floor(idv)) return false;
    if (!take("position", &a->position) || !take("homing_offset", &a->homing_offset)) return false;
    size_t settings_found = 0;
    for (const SettingKey& k : kSettingKeys)
        if (take(k.name, &(a->settings.*k.field))) ++settings_found;
    if (settings_found != 0 && settings_found != kSettingCount) return false;
    if (used != values.size()) return false;  // unknown keys
    a->has_settings = settings_found == kSettingCount;
    *id = static_cast<uint8_t>(idv);
    return true;
}

}  // namespace

bool ReadStateFile(const std::string& path, PersistedState* state, std::string* problem) {
    state->clear();
    std::ifstream in(path);
    if (!in) return false;
    PersistedState read;
    std::string line;
    bool header = false;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        if (!header) {
            if (line != kHeader) {
                *problem = "not a state file";
                return false;
            }
            header = true;
            continue;
        }
        uint8_t id = 0;
        PersistedActuator a;
        if (!ParseActuatorLine(line, &id, &a) || read.count(id) != 0) {
            *problem = "bad line " + std::to_string(line_no);
            return false;
        }
        read[id] = a;
    }
    if (!header) {
        *problem = "empty file";
        return false;
    }
    *state = read;
    return true;
}

bool WriteStateFile(const std::string& path, const PersistedState& state) {
    const std::string temp = path + ".tmp." + std::to_string(static_cast<long>(getpid()));
    std::FILE* f = std::fopen(temp.c_str(), "w");
    if (f == nullptr) return false;
    std::fprintf(f, "# Simulated actuator bus: positions and homing offsets in revolutions.\n");
    std::fprintf(f, "%s\n", kHeader);
    for (const auto& entry : state) {
        const PersistedActuator& a = entry.second;
        std::fprintf(f, "actuator id=%d position=%.17g homing_offset=%.17g", entry.first, a.position,
                     a.homing_offset);
        if (a.has_settings)
            for (const SettingKey& k : kSettingKeys) std::fprintf(f, " %s=%.17g", k.name, a.settings.*k.field);
        std::fprintf(f, "\n");
    }
    bool ok = std::fflush(f) == 0 && fsync(fileno(f)) == 0;
    ok = (std::fclose(f) == 0) && ok;
    if (ok && std::rename(temp.c_str(), path.c_str()) == 0) {
        // The new name is on the disk once its directory is.
        const size_t slash = path.find_last_of('/');
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) {
            fsync(fd);
            close(fd);
        }
        return true;
    }
    std::remove(temp.c_str());
    return false;
}

}  // namespace tqlsim
