#include "database/VkDataBaseCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/stat.h>

#include "database/VkSqliteHandle.h"
#include "engine/VkKillList.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkKeyedArchiver.h"
#include "support/VkCrypt.h"

namespace {

const std::vector<std::string> kDescriptionColumns = {"name", "version"};
const std::vector<std::string> kTestColumns = {"name",     "detail",    "level", "version",
                                               "filesize", "headecode", "code",  "kill"};

std::string join(const std::vector<std::string>& names) {
    std::string out;
    for (const auto& n : names)
        out += (out.empty() ? "" : ", ") + n;
    return out;
}

std::string typeName(int type) {
    switch (type) {
        case SQLITE_INTEGER:
            return "an integer";
        case SQLITE_FLOAT:
            return "a real number";
        case SQLITE_TEXT:
            return "text";
        case SQLITE_BLOB:
            return "a blob";
        default:
            return "NULL";
    }
}

VkResult<VkSqliteDb> openReadOnly(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return VkError{path + ": " + std::strerror(errno)};
    if (!S_ISREG(st.st_mode))
        return VkError{path + ": not a regular file"};
    if (st.st_size == 0)
        return VkError{path + ": empty file, not a signature database"};
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    VkSqliteDb db(raw);
    if (rc != SQLITE_OK)
        return VkError{path + ": cannot open: " + (raw ? sqlite3_errmsg(raw) : "out of memory")};
    return db;
}

// Column names of a table, or nullopt when there is no such table.
VkResult<std::optional<std::vector<std::string>>> columnsOf(sqlite3* db, const char* table) {
    VkSqliteStatement stmt;
    std::string sql = std::string("pragma table_info(") + table + ")";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, stmt.out(), nullptr) != SQLITE_OK)
        return VkError{sqlite3_errmsg(db)};
    std::vector<std::string> names;
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const unsigned char* n = sqlite3_column_text(stmt.get(), 1);
        names.emplace_back(n ? reinterpret_cast<const char*>(n) : "");
    }
    if (rc != SQLITE_DONE)
        return VkError{sqlite3_errmsg(db)};
    if (names.empty())
        return std::optional<std::vector<std::string>>();
    return std::optional<std::vector<std::string>>(std::move(names));
}

VkResult<void> checkTable(sqlite3* db, const std::string& path, const char* table,
                          const std::vector<std::string>& expected) {
    auto columns = columnsOf(db, table);
    if (!columns) {
        std::string reason = columns.error();
        if (reason.find("not a database") != std::string::npos)
            return VkError{path + ": not an SQLite database"};
        return VkError{path + ": cannot read: " + reason};
    }
    if (!columns->has_value())
        return VkError{path + ": not a signature database (no table `" + table + "`)"};
    if (**columns != expected) {
        return VkError{path + ": not a signature database (table `" + table + "` has columns " +
                       join(**columns) + "; expected " + join(expected) + ")"};
    }
    return VkResult<void>::success();
}

VkResult<VkSqliteDb> openChecked(const std::string& path) {
    auto db = openReadOnly(path);
    if (!db)
        return db;
    // pragma table_info answers for a view too; a view may never end.
    if (std::string problem = VkDataBaseCheck::tablesProblem(db->get()); !problem.empty()) {
        if (problem.find("not a database") != std::string::npos)
            return VkError{path + ": not an SQLite database"};
        return VkError{path + ": not a signature database (" + problem + ")"};
    }
    if (auto r = checkTable(db->get(), path, "description", kDescriptionColumns); !r)
        return VkError{r.error()};
    if (auto r = checkTable(db->get(), path, "test", kTestColumns); !r)
        return VkError{r.error()};
    return db;
}

class RowChecker {
  public:
    RowChecker(sqlite3_stmt* stmt, std::vector<VkDataBaseCheck::Problem>& problems)
        : stmt_(stmt), problems_(problems), row_(sqlite3_column_int64(stmt, 0)) {}

    void run() {
        checkText(1, "name", true);
        checkText(2, "detail", false);
        checkInteger(3, "level");
        checkText(4, "version", false);
        checkInteger(5, "filesize");
        int64_t size = sqlite3_column_int64(stmt_, 5);
        if (size == 0)
            add("filesize", "size 0: the record can never match a file");
        else if (size < 0)
            add("filesize", "negative size: the record can never match a file");
        std::optional<std::string> code = checkHash(7, "code", true);
        bool large = static_cast<uint64_t>(size) > VkTorjanScan::kHeadLength;
        std::optional<std::string> head = checkHash(6, "headecode", large);
        if (!large && head)
            add("headecode", "ignored: files up to 1048576 bytes are matched by code alone");
        checkKill(8);
    }

  private:
    void add(const std::string& column, const std::string& message) {
        problems_.push_back({row_, column, message});
    }
    int type(int col) const { return sqlite3_column_type(stmt_, col); }

    // A stored text field: deciphered, or nullopt (with the problem noted).
    std::optional<std::string> checkText(int col, const char* name, bool required) {
        int t = type(col);
        if (t == SQLITE_NULL) {
            if (required)
                add(name, "NULL");
            return std::nullopt;
        }
        if (t != SQLITE_TEXT)
            add(name, "stored as " + typeName(t) + ", expected text");
        return decipher(name, reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col)),
                        sqlite3_column_bytes(stmt_, col));
    }

    std::optional<std::string> decipher(const char* name, const char* bytes, int length) {
        if (!bytes)
            return std::nullopt;
        std::string stored(bytes, ::strnlen(bytes, static_cast<size_t>(length)));
        if (std::optional<std::string> plain = vkDecryptString(stored))
            return plain;
        add(name, "not valid cipher text (read as plain text: \"" + stored + "\")");
        return stored;
    }

    void checkInteger(int col, const char* name) {
        int t = type(col);
        if (t != SQLITE_INTEGER)
            add(name, "stored as " + typeName(t) + ", expected an integer");
    }

    std::optional<std::string> checkHash(int col, const char* name, bool required) {
        int t = type(col);
        if (t == SQLITE_NULL || sqlite3_column_bytes(stmt_, col) == 0) {
            if (required)
                add(name, t == SQLITE_NULL ? "NULL: the record can never match a file"
                                           : "empty: the record can never match a file");
            return std::nullopt;
        }
        if (t != SQLITE_BLOB)
            add(name, "stored as " + typeName(t) + ", expected a blob");
        const void* blob = sqlite3_column_blob(stmt_, col);
        std::optional<std::string> text =
            decipher(name, static_cast<const char*>(blob), sqlite3_column_bytes(stmt_, col));
        if (text && !VkDataBaseCheck::isHashText(*text))
            add(name, "\"" + *text + "\" is not an MD5 hash text (32 lower-case hex digits)");
        return text;
    }

    void checkKill(int col) {
        if (type(col) == SQLITE_NULL)
            return;
        const void* blob = sqlite3_column_blob(stmt_, col);
        int length = sqlite3_column_bytes(stmt_, col);
        if (!blob || length == 0) {
            add("kill", "empty blob: read as no kill list");
            return;
        }
        const auto* begin = static_cast<const uint8_t*>(blob);
        auto root =
            VkKeyedUnarchiver::unarchiveObjectWithData(std::vector<uint8_t>(begin, begin + length));
        if (!root) {
            add("kill", "not a keyed archive (" + root.error() + "): read as no kill list");
            return;
        }
        const VkPlist::Array* entries = root->asArray();
        if (!entries) {
            add("kill", "the archive does not hold an array: read as no kill list");
            return;
        }
        // Read as a load reads it, so that what is reported here is what removal will get.
        const VkKillList kills = VkKillList::parse(*entries);
        auto dropped = kills.dropped().begin();
        auto kept = kills.entries().begin();
        for (size_t position = 1; position <= entries->size(); ++position) {
            std::string where = "entry " + std::to_string(position);
            if (dropped != kills.dropped().end() && dropped->position == position) {
                add("kill", where + " " + dropped->reason + ": dropped when loaded");
                ++dropped;
                continue;
            }
            if (kept == kills.entries().end())
                break;
            const VkKillEntry& entry = *kept++;
            if (entry.kind == VkKillEntry::Kind::unknown)
                add("kill", where + ": unknown code \"" + entry.code + "\": removal ignores it");
            else if (std::string refusal = entry.deleteRefusal(); !refusal.empty())
                add("kill", where + ": removal refuses it (" + refusal + ")");
        }
    }

    sqlite3_stmt* stmt_;
    std::vector<VkDataBaseCheck::Problem>& problems_;
    int64_t row_;
};

}  // namespace

std::string VkDataBaseCheck::tablesProblem(sqlite3* db) {
    VkSqliteStatement stmt;
    if (sqlite3_prepare_v2(db, "select type from sqlite_master where name = ?", -1, stmt.out(),
                           nullptr) != SQLITE_OK)
        return sqlite3_errmsg(db);
    for (const char* table : {"description", "test"}) {
        sqlite3_reset(stmt.get());
        sqlite3_bind_text(stmt.get(), 1, table, -1, SQLITE_STATIC);
        int rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_DONE)
            return std::string("no table `") + table + "`";
        if (rc != SQLITE_ROW)
            return sqlite3_errmsg(db);
        const unsigned char* type = sqlite3_column_text(stmt.get(), 0);
        std::string kind = type ? reinterpret_cast<const char*>(type) : "";
        if (kind != "table")
            return std::string("`") + table + "` is a " + kind + ", not a table";
    }
    return "";
}

std::string VkDataBaseCheck::pagesProblem(sqlite3* db) {
    VkSqliteStatement stmt;
    if (sqlite3_prepare_v2(db, "pragma quick_check(1)", -1, stmt.out(), nullptr) != SQLITE_OK ||
        sqlite3_step(stmt.get()) != SQLITE_ROW)
        return std::string("cannot read: ") + sqlite3_errmsg(db);
    const unsigned char* answer = sqlite3_column_text(stmt.get(), 0);
    std::string result = answer ? reinterpret_cast<const char*>(answer) : "";
    if (result == "ok")
        return "";
    std::replace(result.begin(), result.end(), '\n', ' ');
    return "damaged: " + result;
}

bool VkDataBaseCheck::isHashText(const std::string& text) {
    if (text.size() != 32)
        return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

VkResult<void> VkDataBaseCheck::checkFormat(const std::string& path) {
    auto db = openChecked(path);
    if (!db)
        return VkError{db.error()};
    if (std::string problem = pagesProblem(db->get()); !problem.empty())
        return VkError{path + ": " + problem};
    return VkResult<void>::success();
}

VkResult<std::vector<VkDataBaseCheck::Problem>> VkDataBaseCheck::verify(const std::string& path) {
    auto db = openChecked(path);
    if (!db)
        return VkError{db.error()};
    std::vector<Problem> problems;

    {
        VkSqliteStatement stmt;
        if (sqlite3_prepare_v2(db->get(), "select name, version from description", -1, stmt.out(),
                               nullptr) != SQLITE_OK)
            return VkError{path + ": cannot read: " + sqlite3_errmsg(db->get())};
        int rows = 0;
        while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
            ++rows;
            if (sqlite3_column_type(stmt.get(), 0) == SQLITE_NULL)
                problems.push_back({0, "description", "a description row has no name"});
            if (sqlite3_column_type(stmt.get(), 1) == SQLITE_NULL)
                problems.push_back({0, "description", "a description row has no version"});
        }
        if (rows == 0)
            problems.push_back({0, "description", "no description row (no name and version)"});
        else if (rows > 1)
            problems.push_back({0, "description",
                                std::to_string(rows) + " description rows: the last one is used"});
    }

    VkSqliteStatement stmt;
    if (sqlite3_prepare_v2(db->get(),
                           "select rowid, name, detail, level, version, filesize, headecode, "
                           "code, kill from test",
                           -1, stmt.out(), nullptr) != SQLITE_OK)
        return VkError{path + ": cannot read: " + sqlite3_errmsg(db->get())};
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
        RowChecker(stmt.get(), problems).run();
    if (rc != SQLITE_DONE)
        return VkError{path + ": cannot read: " + sqlite3_errmsg(db->get())};
    return problems;
}
