#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/VkResult.h"

struct sqlite3;

// Read-only inspection of a signature database file for the signature author's tool.
// Unlike VkSqliteManager, which creates missing tables in whatever SQLite file it opens,
// nothing here creates or changes a file.
class VkDataBaseCheck {
  public:
    // One thing in a file that will not read as its author meant.
    struct Problem {
        int64_t row = 0;     // rowid in table `test`; 0 for the file as a whole
        std::string column;  // "" for the whole row or file
        std::string message;
    };

    // Succeeds when path is a readable SQLite file with tables `description` and `test` and
    // the columns of both in their order; otherwise says what is wrong.
    static VkResult<void> checkFormat(const std::string& path);
    // checkFormat, then every row: fields that do not decipher, hash texts that are not MD5,
    // sizes that cannot match, missing head codes, kill blobs that are not archived arrays,
    // kill-list entries that a load drops, unknown codes and "d" entries removal refuses,
    // values stored with unexpected types, description rows.
    static VkResult<std::vector<Problem>> verify(const std::string& path);

    // Why an open file's `description` and `test` are not both plain tables ("" when they
    // are): a view or a missing table. Reads only sqlite_master.
    static std::string tablesProblem(sqlite3* db);
    // Why the open file's pages do not hold together ("" when they do): a damaged page reads
    // as the end of a table, so a file read in part would pass for whole.
    static std::string pagesProblem(sqlite3* db);

    // True for the lower-case hex text of an MD5 hash (hash type 0, which all matching uses).
    static bool isHashText(const std::string& text);
};
