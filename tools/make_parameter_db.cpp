// Builds a SQLite database from a SQL text file: make_parameter_db IN.sql OUT.db
#include <sqlite3.h>

#include <cstdio>
#include <fstream>
#include <sstream>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s IN.sql OUT.db\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    std::stringstream sql;
    sql << in.rdbuf();
    sqlite3* db = nullptr;
    if (sqlite3_open(argv[2], &db) != SQLITE_OK) {
        std::fprintf(stderr, "cannot open %s: %s\n", argv[2], sqlite3_errmsg(db));
        sqlite3_close(db);
        return 1;
    }
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.str().c_str(), nullptr, nullptr, &err);
    if (rc != SQLITE_OK) {
        std::fprintf(stderr, "%s: %s\n", argv[1], err ? err : "error");
        sqlite3_free(err);
    }
    sqlite3_close(db);
    return rc == SQLITE_OK ? 0 : 1;
}
