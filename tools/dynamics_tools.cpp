#include "dynamics_tools.h"

#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>

#include "database.h"
#include "kinematics.h"
#include "mechnical_unit.h"

namespace tqltools {
namespace {

// The robot type with a dynamic model and its actuator type.
constexpr const char* kDynamicsType = "GL_6L3";
constexpr int kDynamicsActuatorType = 1;
constexpr double kDegToRad = 3.1415926 / 180.0;

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;

struct StatementFinalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

Db OpenDb(const std::string& path, int flags, std::string* error) {
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    Db db(raw);
    if (rc != SQLITE_OK) {
        *error = "cannot open " + path + ": " + (raw ? sqlite3_errmsg(raw) : "out of memory");
        return nullptr;
    }
    sqlite3_busy_timeout(raw, 2000);
    return db;
}

// Table names cannot be bound as parameters; the type name is one of the
// fixed robot type names, checked before it gets here.
std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

// ID -> VALUE of one table.
bool ReadTable(sqlite3* db, const std::string& table, std::map<int, std::string>* rows, std::string* error) {
    sqlite3_stmt* raw = nullptr;
    const std::string sql = "SELECT ID, VALUE FROM " + Quoted(table);
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        *error = "cannot read table " + table + ": " + sqlite3_errmsg(db);
        return false;
    }
    Statement stmt(raw);
    int rc;
    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
        const unsigned char* v = sqlite3_column_text(raw, 1);
        (*rows)[sqlite3_column_int(raw, 0)] = v ? reinterpret_cast<const char*>(v) : "";
    }
    if (rc != SQLITE_DONE) {
        *error = "cannot read table " + table + ": " + sqlite3_errmsg(db);
        return false;
    }
    return true;
}

bool ParseList(const std::map<int, std::string>& rows, int id, double* out, int n, const std::string& table,
               std::string* error) {
    auto it = rows.find(id);
    if (it == rows.end() || it->second.empty()) {
        *error = "table " + table + " has no row " + std::to_string(id);
        return false;
    }
    GetDataFormChar(it->second.c_str(), out, n);
    for (int i = 0; i < n; ++i) {
        if (!std::isfinite(out[i])) {
            *error = "table " + table + " row " + std::to_string(id) + " holds a value that is not a number";
            return false;
        }
    }
    return true;
}

}  // namespace

bool LoadArmModel(const std::string& db_path, ArmModel* model, std::string* error) {
    Db db = OpenDb(db_path, SQLITE_OPEN_READONLY, error);
    if (!db) return false;
    std::map<int, std::string> system;
    if (!ReadTable(db.get(), "system_parameters", &system, error)) return false;
    auto type = system.find(1);
    if (type == system.end()) {
        *error = "system_parameters has no robot type (row 1)";
        return false;
    }
    if (type->second != kDynamicsType) {
        *error = "robot type '" + type->second + "' has no dynamic model (only " + kDynamicsType + " has one)";
        return false;
    }
    ArmModel m;
    m.type_name = type->second;
    std::map<int, std::string> rows;
    if (!ReadTable(db.get(), m.type_name, &rows, error)) return false;

    double speed[kJoints] = {}, acceleration[kJoints] = {}, lengths[6] = {};
    if (!ParseList(rows, 1, speed, kJoints, m.type_name, error) ||
        !ParseList(rows, 2, acceleration, kJoints, m.type_name, error) ||
        !ParseList(rows, 12, lengths, 6, m.type_name, error) ||
        !ParseList(rows, kDynamicParameterRow, m.parameters, kIdentifiedColumns, m.type_name, error) ||
        !ParseList(rows, kExcitationRow, m.excitation, kJoints * kExcitationCoefficients, m.type_name, error))
        return false;
    for (int i = 0; i < kJoints; ++i) {
        m.speed_limit[i] = speed[i] * kDegToRad;
        m.acceleration_limit[i] = acceleration[i] * kDegToRad;
        m.alpha[i] = kModelAlpha[i];
        LinkUnit joint;
        joint.InitActuator(static_cast<unsigned char>(i + 1), kDynamicsActuatorType);
        m.kt[i] = joint.kt_;
    }
    const auto box = rows.find(kWorkspaceRow);
    m.has_workspace_box = box != rows.end() && !box->second.empty();
    if (m.has_workspace_box && !ParseList(rows, kWorkspaceRow, m.workspace_box, 6, m.type_name, error)) return false;
    // Lengths d1, a2, a3, d4, d5, d6 (mm) in the joints' modified-DH places, in m.
    ModifiedDhFromLengths(lengths, m.a, m.d);
    for (int i = 0; i < kJoints; ++i) {
        m.a[i] /= 1000.0;
        m.d[i] /= 1000.0;
    }
    *model = m;
    return true;
}

namespace {

std::string ListText(const std::vector<double>& values) {
    std::string text = "[";
    char buf[32];
    for (size_t i = 0; i < values.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%.17g", values[i]);
        text += (i ? "," : "") + std::string(buf);
    }
    return text + "]";
}

// Sets (or, with a name, adds) one row inside an open transaction.
bool PutRow(sqlite3* db, const std::string& type_name, const TypeRow& row, std::string* error) {
    const std::string text = ListText(row.values);
    auto run = [&](const std::string& sql, bool with_name) {
        sqlite3_stmt* raw = nullptr;
        bool ok = sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) == SQLITE_OK;
        Statement stmt(raw);
        if (ok) {
            sqlite3_bind_text(raw, 1, text.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(raw, 2, row.id);
            if (with_name) sqlite3_bind_text(raw, 3, row.name_if_missing, -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(raw) == SQLITE_DONE;
        }
        if (!ok) *error = std::string("cannot write: ") + sqlite3_errmsg(db);
        return ok;
    };
    if (!run("UPDATE " + Quoted(type_name) + " SET VALUE = ?1 WHERE ID = ?2", false)) return false;
    if (sqlite3_changes(db) == 1) return true;
    if (row.name_if_missing == nullptr) {
        *error = "table " + type_name + " has no row " + std::to_string(row.id);
        return false;
    }
    return run("INSERT INTO " + Quoted(type_name) + " (ID, NAME, VALUE) VALUES (?2, ?3, ?1)", true);
}

}  // namespace

bool WriteTypeRow(const std::string& db_path, const std::string& type_name, int id,
                  const std::vector<double>& values, std::string* error) {
    return WriteTypeRows(db_path, type_name, {TypeRow{id, values}}, error);
}

bool WriteTypeRows(const std::string& db_path, const std::string& type_name, const std::vector<TypeRow>& rows,
                   std::string* error) {
    for (const TypeRow& row : rows) {
        for (double v : row.values) {
            if (!std::isfinite(v)) {
                *error = "refusing to write a value that is not a number";
                return false;
            }
        }
    }
    Db db = OpenDb(db_path, SQLITE_OPEN_READWRITE, error);
    if (!db) return false;
    auto exec = [&](const char* sql) { return sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK; };
    if (!exec("BEGIN IMMEDIATE")) {
        *error = "cannot write " + db_path + ": " + sqlite3_errmsg(db.get());
        return false;
    }
    bool ok = true;
    for (size_t i = 0; ok && i < rows.size(); ++i) ok = PutRow(db.get(), type_name, rows[i], error);
    if (ok && !exec("COMMIT")) {
        *error = "cannot write " + db_path + ": " + sqlite3_errmsg(db.get());
        ok = false;
    }
    if (!ok) exec("ROLLBACK");
    return ok;
}

void IdentificationRegressor(const ArmModel& model, const double* q, const double* dq, const double* ddq,
                             double (*W)[kIdentifiedColumns]) {
    double theta[kJoints];
    ModelAngles(q, theta);
    double Y[kJoints][kBaseParameterNum];
    parameter_linearization(theta, dq, ddq, model.a, model.alpha, model.d, Y);
    for (int i = 0; i < kJoints; ++i) {
        for (int c = 0; c < kBaseParameterNum; ++c) W[i][c] = Y[i][c];
        for (int c = kBaseParameterNum; c < kIdentifiedColumns; ++c) W[i][c] = 0.0;
        W[i][kBaseParameterNum + i] = dq[i];
        W[i][kBaseParameterNum + kJoints + i] = signd(dq[i]);
    }
}

double ConditionNumber(const Eigen::MatrixXd& W) {
    // Singular values of W from the eigenvalues of its Gram matrix: far
    // cheaper than an SVD of the tall stack, and accurate while the
    // condition number stays well below 1e7.
    const Eigen::MatrixXd gram = W.transpose() * W;
    Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eig(gram, Eigen::EigenvaluesOnly);
    const double lo = eig.eigenvalues().minCoeff(), hi = eig.eigenvalues().maxCoeff();
    if (!(lo > 0.0)) return INFINITY;
    return std::sqrt(hi / lo);
}

}  // namespace tqltools
