// The SQLite parameter store: reading "system_parameters" and the robot type's
// table into the shared parameter record, and the two writes to
// "system_parameters".
#include "database.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr const char* kDatabaseFile = "parameter.db";
constexpr int kSlotCount = 100;
constexpr int kSlotSize = 2560;

ResourceData resource_data;

// Row buffer: the row with ID k lands in slot k-1. Each slot holds a
// NUL-terminated text shorter than kSlotSize.
char output_string[kSlotCount][kSlotSize];

struct TypeName {
    const char* name;
    int code;
};

// Compared in this order; the name is also the name of the type's table.
constexpr TypeName kRobotTypes[] = {
    {"GL_4L3", kTypeGL_4L3},         {"GL_6L3", kTypeGL_6L3},
    {"GL_2P8_P6_3P3", kTypeGL_2P8_P6_3P3}, {"GL_6L6", kTypeGL_6L6},
    {"GL_2L6_4L3", kTypeGL_2L6_4L3}, {"FREE_COMBINATION", kTypeFreeCombination},
};

const char* Slot(int id) { return output_string[id - 1]; }

// Row callback of the reads: column 1 is the ID, column 3 the value.
// Rows that would not fit the buffer stop the read with a message.
int callback(void* /*unused*/, int argc, char** argv, char** /*names*/) {
    if (argc < 3 || argv[0] == nullptr) {
        std::fprintf(stderr, "Parameter table row has %d columns; ID, NAME and VALUE are needed\n", argc);
        return 1;
    }
    const int slot = std::atoi(argv[0]);
    if (slot < 1 || slot > kSlotCount) {
        std::fprintf(stderr, "Parameter ID %s is outside 1..%d\n", argv[0], kSlotCount);
        return 1;
    }
    const char* value = argv[2] ? argv[2] : "";
    const size_t len = std::strlen(value);
    if (len >= static_cast<size_t>(kSlotSize)) {
        std::fprintf(stderr, "Parameter ID %d: value of %zu characters is too long (at most %d)\n", slot, len,
                     kSlotSize - 1);
        return 1;
    }
    std::memcpy(output_string[slot - 1], value, len + 1);
    return 0;
}

// Printing callback of the writes: dumps each row of the result.
int callback1(void* data, int argc, char** argv, char** names) {
    std::printf("\n");
    std::fprintf(stderr, "%s: ", static_cast<const char*>(data));
    for (int i = 0; i < argc; ++i) std::printf("%s = %s\n", names[i], argv[i] ? argv[i] : "NULL");
    std::printf("\n");
    return 0;
}

// Runs one read statement; on an SQL error reports it, closes db and returns -1.
int ExecRead(sqlite3* db, const std::string& sql) {
    char* err = nullptr;
    if (sqlite3_exec(db, sql.c_str(), callback, nullptr, &err) != SQLITE_OK) {
        std::fprintf(stderr, "SQL error: %s\n", err ? err : sqlite3_errmsg(db));
        sqlite3_free(err);
        sqlite3_close(db);
        return -1;
    }
    return 0;
}

sqlite3* OpenDatabase(const char* file = kDatabaseFile, int flags = SQLITE_OPEN_READWRITE) {
    sqlite3* db = nullptr;
    // Never create an empty database where none was: a missing file is an error.
    if (sqlite3_open_v2(file, &db, flags, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "Can't open database: %s\n", sqlite3_errmsg(db));
        sqlite3_close(db);
        return nullptr;
    }
    std::fprintf(stderr, "Opened database successfully\n");
    return db;
}

int ExecUpdate(const std::string& sql) {
    sqlite3* db = OpenDatabase();
    if (db == nullptr) return -1;
    char* err = nullptr;
    char context[] = "Updating...";
    if (sqlite3_exec(db, sql.c_str(), callback1, context, &err) != SQLITE_OK) {
        std::fprintf(stderr, "SQL error: %s\n", err ? err : sqlite3_errmsg(db));
        sqlite3_free(err);
        sqlite3_close(db);
        return -1;
    }
    std::fflush(stderr);
    std::printf("Operation done successfully\n");
    sqlite3_close(db);
    return 0;
}

}  // namespace

ResourceData* GetResourceDate() { return &resource_data; }

int GetDataFormChar(const char* text, double* out, int n) {
    if (text == nullptr || out == nullptr) return -1;
    // An empty text holds no list: the first entry reads as 0, as atof of
    // nothing would.
    if (text[0] == '\0') {
        if (n > 0) out[0] = 0.0;
        return 0;
    }
    const char* position = text + 1;  // skip the opening bracket
    for (int i = 0; i < n; ++i) {
        out[i] = std::atof(position);
        const char* comma = std::strchr(position, ',');
        if (comma == nullptr) break;
        position = comma + 1;
    }
    return 0;
}

namespace {

const char* TypeTableName(int code) {
    for (const TypeName& t : kRobotTypes)
        if (t.code == code) return t.name;
    return "?";
}

// Prints why value `v` (entry `entry` of a list row, -1 for a single value)
// of row `row` cannot be used and returns -1.
int RefuseParameter(int type, int row, int entry, double v, const char* rule) {
    std::string detail;
    if (entry >= 0) detail += ", entry " + std::to_string(entry + 1);
    std::ostringstream value;
    value << v;
    return RefuseParameterRow(type, row, detail + ", value " + value.str() + ": " + rule);
}

bool FinitePositive(double v) { return std::isfinite(v) && v > 0.0; }

}  // namespace

bool PayloadUsable(const double* payload) {
    const double m = payload[0], x = payload[1], y = payload[2], z = payload[3];
    return m >= 0.0 && m <= kMaxPayloadKg && std::isfinite(x + y + z) &&
           x * x + y * y + z * z <= kMaxPayloadReachMm * kMaxPayloadReachMm;
}

int RefuseParameterRow(int type, int row, const std::string& detail) {
    std::cout << "Parameter error: table " << TypeTableName(type) << ", row " << row << detail << std::endl;
    return -1;
}

int CheckRobotParameters(const ResourceData* rd, int joints, bool cartesian) {
    const int type = rd->robot_type;
    const double* lists[3] = {rd->joint_speed, rd->joint_acceleration, rd->joint_jerk};
    for (int row = 1; row <= 3; ++row)
        for (int j = 0; j < joints && j < 20; ++j)
            if (!FinitePositive(lists[row - 1][j]))
                return RefuseParameter(type, row, j, lists[row - 1][j], "a joint limit must be finite and positive");
    for (int j = 0; j < joints && j < 20; ++j)
        if (rd->joint_direction[j] != 1.0 && rd->joint_direction[j] != -1.0)
            return RefuseParameter(type, 11, j, rd->joint_direction[j], "a joint direction is 1 or -1");
    if (!cartesian) return 0;
    for (int k = 0; k < 6; ++k)
        if (!FinitePositive(rd->cartesian_limits[k]))
            return RefuseParameter(type, 4 + k, -1, rd->cartesian_limits[k],
                                   "a Cartesian limit must be finite and positive");
    for (int k = 0; k < 6; ++k)
        if (!std::isfinite(rd->kinematic_lengths[k]))
            return RefuseParameter(type, 12, k, rd->kinematic_lengths[k], "a kinematic length must be finite");
    for (int k = 0; rd->workspace_box_set && k < 6; k += 2)
        if (!std::isfinite(rd->workspace_box[k]) || !std::isfinite(rd->workspace_box[k + 1]) ||
            !(rd->workspace_box[k] < rd->workspace_box[k + 1]))
            return RefuseParameter(type, 15, k, rd->workspace_box[k],
                                   "the workspace box takes a finite minimum below its maximum per axis");
    if (!PayloadUsable(rd->payload))
        return RefuseParameter(type, 18, -1, rd->payload[0],
                               "the payload is a mass of 0 to 100 kg with its centre within 1000 mm of the flange");
    for (int k = 0; k < 4 * rd->workspace_half_spaces; k += 4) {
        const double* n = rd->workspace_planes + k;
        const bool finite = std::isfinite(n[0]) && std::isfinite(n[1]) && std::isfinite(n[2]) && std::isfinite(n[3]);
        if (!finite || n[0] * n[0] + n[1] * n[1] + n[2] * n[2] == 0.0)
            return RefuseParameter(type, 16, k, n[0], "a workspace half-space takes a finite, non-zero normal");
    }
    return 0;
}

int DatabaseToMechnical(ResourceData* rd) {
    if (GetDataFormChar(Slot(1), rd->joint_speed, 20) < 0) return -1;
    if (GetDataFormChar(Slot(2), rd->joint_acceleration, 20) < 0) return -1;
    if (GetDataFormChar(Slot(3), rd->joint_jerk, 20) < 0) return -1;
    for (int k = 0; k < 6; ++k) rd->cartesian_limits[k] = std::atof(Slot(4 + k));
    if (GetDataFormChar(Slot(10), rd->joint_values, 20) < 0) return -1;
    if (GetDataFormChar(Slot(11), rd->joint_direction, 20) < 0) return -1;
    if (GetDataFormChar(Slot(12), rd->kinematic_lengths, 80) < 0) return -1;
    if (GetDataFormChar(Slot(13), rd->dynamic_parameters, 260) < 0) return -1;
    if (GetDataFormChar(Slot(14), rd->identification_parameters, 220) < 0) return -1;
    std::fill(rd->payload, rd->payload + 4, 0.0);
    if (Slot(18)[0] != '\0' && GetDataFormChar(Slot(18), rd->payload, 4) < 0) return -1;
    rd->collision_threshold_set = Slot(17)[0] != '\0';
    if (rd->collision_threshold_set && GetDataFormChar(Slot(17), rd->collision_threshold, 20) < 0) return -1;
    // The workspace rows are optional: an absent row reads as an empty text.
    rd->workspace_box_set = Slot(15)[0] != '\0';
    if (rd->workspace_box_set && GetDataFormChar(Slot(15), rd->workspace_box, 6) < 0) return -1;
    rd->workspace_half_spaces = 0;
    if (Slot(16)[0] != '\0') {
        int values = 1;
        for (const char* c = Slot(16); *c != '\0'; ++c) values += *c == ',';
        rd->workspace_half_spaces = std::min(values / 4, 8);
        if (GetDataFormChar(Slot(16), rd->workspace_planes, 4 * rd->workspace_half_spaces) < 0) return -1;
    }
    return 0;
}

namespace {

int ReadParameters(const char* file, int flags, ResourceData* rd) {
    rd->dynamics_switch = false;
    std::memset(output_string, 0, sizeof(output_string));

    sqlite3* db = OpenDatabase(file, flags);
    if (db == nullptr) return -1;
    if (ExecRead(db, "SELECT * from system_parameters") < 0) return -1;

    rd->dynamics_switch = std::strcmp(Slot(2), "ON") == 0;
    rd->gravity_gain = std::atof(Slot(3));
    if (!(rd->gravity_gain >= 0.4999999 && rd->gravity_gain <= 1.50001)) rd->gravity_gain = 1.0;  // NaN too
    rd->collision_switch = std::strcmp(Slot(4), "ON") == 0;
    rd->collision_factor = std::atof(Slot(5));
    rd->preflight_switch = std::strcmp(Slot(6), "OFF") != 0;
    rd->program_io_switch = std::strcmp(Slot(7), "ON") == 0;
    rd->cartesian_scaling_switch = std::strcmp(Slot(8), "ON") == 0;
    rd->braking_switch = std::strcmp(Slot(9), "ON") == 0;

    const std::string type_name = Slot(1);
    bool known = false;
    for (const TypeName& t : kRobotTypes) {
        if (type_name == t.name) {
            rd->robot_type = t.code;
            known = true;
            break;
        }
    }
    if (!known) {
        std::cout << "MECHNIACL ERROR !" << std::endl;
        std::cout << "The '" << type_name << "' is invalid. " << std::endl;
        sqlite3_close(db);
        return -1;
    }

    std::cout << "Current robot type : " << type_name << std::endl;
    if (ExecRead(db, "SELECT * from " + type_name) < 0) return -1;
    std::cout << "Operation done successfully\n";
    sqlite3_close(db);
    DatabaseToMechnical(rd);  // a half-parsed table keeps what was read
    return 0;
}

}  // namespace

int SelectFromTableList(ResourceData* rd) { return ReadParameters(kDatabaseFile, SQLITE_OPEN_READWRITE, rd); }

int SelectFromTableListAt(const char* file, ResourceData* rd) {
    if (file == nullptr || rd == nullptr) return -1;
    return ReadParameters(file, SQLITE_OPEN_READONLY, rd);
}

const char* RobotTypeName(int code) { return TypeTableName(code); }

int UpdateRobotType(char* value, int id) {
    if (value == nullptr) return -1;
    return ExecUpdate(std::string("UPDATE system_parameters set VALUE='") + value + "' where ID=" + std::to_string(id) +
                      "; SELECT * from system_parameters");
}

int DynamicsSwitch(char* value) {
    if (value == nullptr) return -1;
    return ExecUpdate(std::string("UPDATE system_parameters set VALUE='") + value +
                      "' where ID=2; SELECT * from system_parameters");
}

void DisableFeatureConfiguration() {}
