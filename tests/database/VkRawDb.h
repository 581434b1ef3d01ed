#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

// A connection of the test's own to a database file, as a hand (or a trojan) editing the file
// would open it: for looking at it and tampering with it behind the store's back.
class VkRawDb {
  public:
    explicit VkRawDb(const std::string& path) {
        EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK) << path;
    }
    ~VkRawDb() { sqlite3_close(db_); }
    void exec(const std::string& sql) {
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
            << sql << ": " << (error ? error : "");
        sqlite3_free(error);
    }
    // The first column of every row, as text ("NULL" for NULL).
    std::vector<std::string> column(const std::string& sql) {
        std::vector<std::string> out;
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sql;
        while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* t = sqlite3_column_text(stmt, 0);
            out.emplace_back(t ? reinterpret_cast<const char*>(t) : "NULL");
        }
        sqlite3_finalize(stmt);
        return out;
    }

  private:
    sqlite3* db_ = nullptr;
};

// Bytes (a string or a byte vector) as an SQL blob literal.
template <class Bytes>
std::string vkSqlBlob(const Bytes& bytes) {
    std::string out = "X'";
    for (unsigned char b : bytes)
        out += {"0123456789ABCDEF"[b >> 4], "0123456789ABCDEF"[b & 15]};
    return out + "'";
}
