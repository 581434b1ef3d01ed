#pragma once

#include <deque>
#include <string>

#include <sqlite3.h>

#include "platform/VkHandle.h"

// An open SQLite connection, closed when the handle goes. Every statement on it must have
// been finalized first, or SQLite refuses to close and the file stays open.
using VkSqliteDb = VkHandle<sqlite3, sqlite3_close>;

// A prepared statement, finalized when it goes, together with the buffers bound to it
// without a copy (SQLITE_STATIC), which must outlive every step of the statement.
class VkSqliteStatement {
  public:
    VkSqliteStatement() = default;
    VkSqliteStatement(const VkSqliteStatement&) = delete;
    VkSqliteStatement& operator=(const VkSqliteStatement&) = delete;
    ~VkSqliteStatement() { finalize(); }

    sqlite3_stmt* get() const { return stmt_; }
    explicit operator bool() const { return stmt_ != nullptr; }
    // Where a prepare call writes the new statement (the previous one is finalized).
    sqlite3_stmt** out() {
        finalize();
        return &stmt_;
    }
    // Keeps bytes alive until the statement is finalized and returns the kept copy.
    const std::string& keep(std::string bytes) { return kept_.emplace_back(std::move(bytes)); }
    // Finalizes now; safe to call repeatedly.
    void finalize() {
        if (stmt_)
            sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        kept_.clear();
    }

  private:
    sqlite3_stmt* stmt_ = nullptr;
    std::deque<std::string> kept_;  // a deque never moves what it holds
};
