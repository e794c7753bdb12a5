// Parameter database loader. Every run starts from the demo parameter.db
// (its bytes read once, written afresh per run) and applies up to four edits
// taken from the input, then loads it with SelectFromTableList.
//
// One edit: a table byte (bit 0: the demo robot type's table GL_6L3, else
// system_parameters; bit 1: the value is bound as a blob, else as text), a row
// byte, then the value's bytes up to the next '\n'. A row byte below 128
// rewrites the VALUE of an existing row (row modulo the table's rows); from
// 128 up it writes a row with ID = row - 138 (-10 .. 117, outside the
// loader's 1..100 too).
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "database.h"
#include "fuzz_support.h"

namespace {

constexpr int kMaxEdits = 4;
std::vector<uint8_t> demo_database;
int system_rows = 1, type_rows = 1;  // rows of the two tables in the demo database

int RowCount(sqlite3* db, const std::string& table) {
    sqlite3_stmt* statement = nullptr;
    int rows = 0;
    if (sqlite3_prepare_v2(db, ("SELECT COUNT(*) FROM " + table).c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
        rows = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    return rows > 0 ? rows : 1;
}

// The outcome is not checked: a refused edit leaves the table as it was.
void ApplyEdit(sqlite3* db, uint8_t table_byte, uint8_t row, const uint8_t* value, size_t size) {
    const bool type_table = (table_byte & 1) != 0;
    const std::string table = type_table ? "GL_6L3" : "system_parameters";
    const int id = row < 128 ? 1 + row % (type_table ? type_rows : system_rows) : row - 138;
    const std::string sql = row < 128
                                ? "UPDATE " + table + " SET VALUE = ?1 WHERE ID = " + std::to_string(id)
                                : "INSERT OR REPLACE INTO " + table + " VALUES (" + std::to_string(id) + ", 'fuzz', ?1)";
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) return;
    const void* bytes = size > 0 ? static_cast<const void*>(value) : "";
    if (table_byte & 2)
        sqlite3_bind_blob(statement, 1, bytes, static_cast<int>(size), SQLITE_TRANSIENT);
    else
        sqlite3_bind_text(statement, 1, static_cast<const char*>(bytes), static_cast<int>(size), SQLITE_TRANSIENT);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    tqlfuzz::SilenceStdout();
    demo_database = tqlfuzz::ReadBytes(std::string(TQL_DEMO_DIR) + "/parameter.db");
    if (demo_database.empty()) {
        std::fprintf(stderr, "fuzz_database: no %s/parameter.db (build the demo target)\n", TQL_DEMO_DIR);
        std::abort();
    }
    tqlfuzz::EnterDemoCopy(argc, argv);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2("parameter.db", &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        system_rows = RowCount(db, "system_parameters");
        type_rows = RowCount(db, "GL_6L3");
    }
    sqlite3_close(db);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tqlfuzz::WriteBytes("parameter.db", demo_database.data(), demo_database.size());
    sqlite3* db = nullptr;
    if (sqlite3_open_v2("parameter.db", &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) std::abort();
    size_t at = 0;
    for (int edit = 0; edit < kMaxEdits && at + 2 <= size; ++edit) {
        const uint8_t table_byte = data[at], row = data[at + 1];
        size_t end = at + 2;
        while (end < size && data[end] != '\n') ++end;
        ApplyEdit(db, table_byte, row, data + at + 2, end - at - 2);
        at = end + 1;
    }
    sqlite3_close(db);
    SelectFromTableList(GetResourceDate());
    return 0;
}
