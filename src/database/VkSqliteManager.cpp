#include "database/VkSqliteManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include "database/VkDataBaseCheck.h"
#include "platform/VkFileUtil.h"
#include "platform/VkKeyedArchiver.h"

namespace {

constexpr const char* kSelectDescription = "select * from description";
constexpr const char* kSelectTest = "select * from test";
constexpr const char* kInsertTest =
    "insert into test(name, detail, level, version, filesize, headecode, code, kill) "
    "values(?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kDeleteTest = "delete from test where code = (?)";
constexpr const char* kUpdateTest =
    "update test set name = (?), detail = (?), level = (?), version = (?), filesize = (?), "
    "headecode = (?), code = (?), kill = (?) where name = (?)";
constexpr const char* kInsertDescription = "insert into description(name, version) values(?, ?)";
constexpr const char* kUpdateDescription =
    "update description set name = (?), version = (?) where name = (?)";

// Columns of table `test`, in order.
enum TestColumn {
    kColName = 0,
    kColDetail,
    kColLevel,
    kColVersion,
    kColFileSize,
    kColHeadeCode,
    kColCode,
    kColKill,
};

bool isUtf8(std::string_view s) {
    size_t i = 0;
    const size_t n = s.size();
    while (i < n) {
        auto c = static_cast<unsigned char>(s[i]);
        size_t extra;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= n)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
        if ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += extra + 1;
    }
    return true;
}

// The platform's string from NUL-terminated UTF-8 bytes: reading stops at the first zero
// byte, and bytes that are not UTF-8 give nil.
std::optional<std::string> stringFromUtf8(const char* bytes, size_t maxLength) {
    std::string text(bytes, ::strnlen(bytes, maxLength));
    if (!isUtf8(text))
        return std::nullopt;
    return text;
}

// The same, without a copy: a view of the bytes before the first zero byte, or nil.
VkStoredText storedFromUtf8(const char* bytes, size_t maxLength) {
    std::string_view text(bytes, ::strnlen(bytes, maxLength));
    if (!isUtf8(text))
        return {VkStoredText::State::nil, {}};
    return {VkStoredText::State::text, text};
}

bool hasColumn(sqlite3_stmt* stmt, int column) {
    return column < sqlite3_column_count(stmt) && sqlite3_column_type(stmt, column) != SQLITE_NULL;
}

// A text column; a NULL (or absent) column gives no value at all, so the caller leaves the
// property as it was.
template <class Setter>
void readText(sqlite3_stmt* stmt, int column, Setter set) {
    if (!hasColumn(stmt, column))
        return;
    const unsigned char* text = sqlite3_column_text(stmt, column);
    if (!text)
        return;
    auto length = static_cast<size_t>(sqlite3_column_bytes(stmt, column));
    set(stringFromUtf8(reinterpret_cast<const char*>(text), length));
}

// A blob column holding the UTF-8 bytes of a string. SQLite hands out no pointer for a NULL
// or zero-length blob; then the property stays unset.
template <class Setter>
void readBlobText(sqlite3_stmt* stmt, int column, Setter set) {
    if (!hasColumn(stmt, column))
        return;
    const void* blob = sqlite3_column_blob(stmt, column);
    if (!blob)
        return;
    auto length = static_cast<size_t>(sqlite3_column_bytes(stmt, column));
    set(stringFromUtf8(static_cast<const char*>(blob), length));
}

// Anything but an archived array (garbage, another kind of root) leaves the record without
// a kill array, so removal falls back to deleting the detected file; the reason is told.
VkResult<VkTorjanItem::KillArray> unarchiveKillArray(const void* bytes, size_t length) {
    const auto* begin = static_cast<const uint8_t*>(bytes);
    VkResult<VkPlist> root =
        VkKeyedUnarchiver::unarchiveObjectWithData(std::vector<uint8_t>(begin, begin + length));
    if (!root)
        return VkError{root.error()};
    if (!root->isArray())
        return VkError{"the archive holds no array"};
    // Read once into typed entries here; malformed ones are dropped and counted.
    return VkKillList::parse(*root->asArray());
}

std::optional<std::string> archiveKillArray(const VkTorjanItem::KillArray& killArray) {
    VkResult<std::vector<uint8_t>> bytes =
        VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(VkPlist(killArray.toArray())));
    if (!bytes)
        return std::nullopt;
    return std::string(bytes->begin(), bytes->end());
}

std::shared_ptr<VkTorjanItem> itemFromRow(sqlite3_stmt* stmt, std::string& killProblem) {
    auto item = std::make_shared<VkTorjanItem>();
    readText(stmt, kColName, [&](auto v) { item->setName(std::move(v)); });
    readText(stmt, kColDetail, [&](auto v) { item->setDetail(std::move(v)); });
    item->setLevel(sqlite3_column_int(stmt, kColLevel));
    readText(stmt, kColVersion, [&](auto v) { item->setVersion(std::move(v)); });
    item->setFileSize(static_cast<uint64_t>(sqlite3_column_int64(stmt, kColFileSize)));
    readBlobText(stmt, kColHeadeCode, [&](auto v) { item->setHeadeCode(std::move(v)); });
    readBlobText(stmt, kColCode, [&](auto v) { item->setTorjanCode(std::move(v)); });
    if (hasColumn(stmt, kColKill)) {
        if (const void* blob = sqlite3_column_blob(stmt, kColKill)) {
            auto length = static_cast<size_t>(sqlite3_column_bytes(stmt, kColKill));
            if (auto killArray = unarchiveKillArray(blob, length))
                item->setKillArray(std::move(*killArray));
            else
                killProblem = killArray.error();
        }
    }
    return item;
}

// A row as the compact store keeps it, read by the same rules as itemFromRow: a NULL column
// gives no value, text that is not UTF-8 gives nil, text ends at its first zero byte.
VkStoredRecord storedFromRow(sqlite3_stmt* stmt) {
    VkStoredRecord record;
    auto text = [&](int column, VkStoredText& out) {
        if (!hasColumn(stmt, column))
            return;
        if (const unsigned char* bytes = sqlite3_column_text(stmt, column))
            out = storedFromUtf8(reinterpret_cast<const char*>(bytes),
                                 static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
    };
    auto blob = [&](int column, VkStoredText& out) {
        if (!hasColumn(stmt, column))
            return;
        if (const void* bytes = sqlite3_column_blob(stmt, column))
            out = storedFromUtf8(static_cast<const char*>(bytes),
                                 static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
    };
    text(kColName, record.name);
    text(kColDetail, record.detail);
    record.level = sqlite3_column_int(stmt, kColLevel);
    text(kColVersion, record.version);
    record.fileSize = static_cast<uint64_t>(sqlite3_column_int64(stmt, kColFileSize));
    blob(kColHeadeCode, record.headeCode);
    blob(kColCode, record.TorjanCode);
    if (hasColumn(stmt, kColKill)) {
        if (const void* bytes = sqlite3_column_blob(stmt, kColKill))
            record.killArchive =
                std::string_view(static_cast<const char*>(bytes),
                                 static_cast<size_t>(sqlite3_column_bytes(stmt, kColKill)));
    }
    return record;
}

std::shared_ptr<VkDataBaseInfo> infoFromRow(sqlite3_stmt* stmt) {
    auto info = std::make_shared<VkDataBaseInfo>();
    readText(stmt, 0, [&](auto v) { info->setName(std::move(v)); });
    readText(stmt, 1, [&](auto v) { info->setVersion(std::move(v)); });
    return info;
}

void bindText(VkSqliteStatement& stmt, int index, const std::optional<std::string>& text) {
    if (!text) {
        sqlite3_bind_null(stmt.get(), index);
        return;
    }
    const std::string& kept = stmt.keep(*text);
    sqlite3_bind_text(stmt.get(), index, kept.data(), static_cast<int>(kept.size()), SQLITE_STATIC);
}

void bindBlob(VkSqliteStatement& stmt, int index, const std::optional<std::string>& bytes) {
    if (!bytes) {
        sqlite3_bind_null(stmt.get(), index);
        return;
    }
    const std::string& kept = stmt.keep(*bytes);
    sqlite3_bind_blob(stmt.get(), index, kept.data(), static_cast<int>(kept.size()), SQLITE_STATIC);
}

VkSqliteManager::ErrorSink& errorSinkRef() {
    static VkSqliteManager::ErrorSink sink;
    return sink;
}

// The readers use the plain prepare call, the writers the v2 one, as they always have.
bool prepareRead(sqlite3* db, const char* sql, VkSqliteStatement& stmt) {
    return sqlite3_prepare(db, sql, -1, stmt.out(), nullptr) == SQLITE_OK && stmt;
}

bool prepareWrite(sqlite3* db, const char* sql, VkSqliteStatement& stmt) {
    return sqlite3_prepare_v2(db, sql, -1, stmt.out(), nullptr) == SQLITE_OK && stmt;
}

// sqlite3_open, with the half-made connection of a failed open released at once.
VkSqliteDb openConnection(const std::string& path) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open(path.c_str(), &db);
    VkSqliteDb handle(db);
    if (rc != SQLITE_OK)
        handle.reset();
    return handle;
}

// Long enough for a writer's commit, short enough that a held lock cannot stall a scan.
constexpr int kBusyMilliseconds = 5000;

// A connection that only reads a file of the data folder, which anyone able to write there
// may have crafted: no file is created or changed, a link in its place is not followed, and
// neither views nor triggers run (a recursive view would never end). Both tables must be
// plain tables.
VkResult<VkSqliteDb> openForReading(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return VkError{std::strerror(errno)};
    if (S_ISLNK(st.st_mode))
        return VkError{"a symbolic link, not followed"};
    if (!S_ISREG(st.st_mode))
        return VkError{"not a regular file"};
    sqlite3* raw = nullptr;
    int rc =
        sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr);
    VkSqliteDb db(raw);
    if (rc != SQLITE_OK)
        return VkError{raw ? sqlite3_errmsg(raw) : "out of memory"};
    sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_busy_timeout(raw, kBusyMilliseconds);
    if (std::string problem = VkDataBaseCheck::tablesProblem(raw); !problem.empty())
        return VkError{problem};
    return db;
}

void tellError(const std::string& message) {
    if (const VkSqliteManager::ErrorSink& sink = errorSinkRef()) {
        sink(message);
    } else {
        std::printf("errorMsg %s", message.c_str());
        std::fflush(stdout);
    }
}

}  // namespace

VkSqliteManager::VkSqliteManager(std::shared_ptr<VkContext> ctx) : ctx_(std::move(ctx)) {}

VkSqliteManager::~VkSqliteManager() {
    closeDataBase();
}

std::vector<std::string> VkSqliteManager::contentFilesOfPath(const std::string& folder) {
    std::vector<std::string> paths;
    VkResult<std::vector<std::string>> names = VkFile::listDirectory(folder);
    if (!names)
        return paths;
    for (const std::string& name : *names) {
        // Exactly "sql": "b.SQL" and "c.sqlite" are not databases.
        if (VkFile::pathExtension(name) == "sql")
            paths.push_back(VkFile::join(folder, name));
    }
    return paths;
}

void VkSqliteManager::setErrorSink(ErrorSink sink) {
    errorSinkRef() = std::move(sink);
}

VkTorjanRecordList::Items VkSqliteManager::loadAllRecords(
    std::shared_ptr<VkContext> context, std::vector<std::pair<std::string, size_t>>* perFile,
    std::vector<std::pair<std::string, std::string>>* failed) {
    VkTorjanRecordList::Items result;
    VkSqliteManager manager(std::move(context));
    std::shared_ptr<VkDataBaseInfo> previous;
    // The records the manager holds: those of the last file whose table it could read. A
    // file that gives nothing of its own lists them again, as the store always has
    // (harmless: the first listing wins).
    size_t heldFirst = 0;
    size_t heldCount = 0;
    for (const std::string& path : manager.dataBasePaths()) {
        manager.closeDataBase();
        manager.readError_.clear();
        if (auto opened = openForReading(path)) {
            manager.ppDb_ = std::move(*opened);
            manager.readDescription();
            size_t before = result.size();
            std::optional<size_t> read;
            if (manager.readError_.empty())
                read = manager.readStoredItems(result);
            if (read && manager.readError_.empty()) {
                heldFirst = before;
                heldCount = *read;
            } else if (!read) {
                result.appendAgain(heldFirst, heldCount);
            }
        } else {
            manager.readError_ = opened.error();
            result.appendAgain(heldFirst, heldCount);
        }
        // What a file cut short gave is kept (it can only add findings), but the file is not
        // counted as loaded: a scan must not pass for complete on a part of it.
        if (!manager.readError_.empty()) {
            tellError(path + ": not read: " + manager.readError_);
            if (failed)
                failed->emplace_back(path, manager.readError_);
            manager.closeDataBase();
            continue;
        }
        auto info = manager.currentDataBaseInfo();
        if (perFile && info && info != previous)
            perFile->emplace_back(path, heldCount);
        previous = info;
        manager.closeDataBase();
    }
    result.finishStored();
    if (result.oversizedTexts() > 0 && manager.ctx_->systemLog) {
        manager.ctx_->systemLog->log("[VkSqlite] " + std::to_string(result.oversizedTexts()) +
                                     " record(s) with texts too long to keep: read as nil");
    }
    return result;
}

std::optional<size_t> VkSqliteManager::readStoredItems(VkTorjanRecordList::Items& into) {
    VkSqliteStatement stmt;
    if (!prepareRead(ppDb_.get(), kSelectTest, stmt)) {
        readError_ = sqlite3_errmsg(ppDb_.get());
        return std::nullopt;
    }
    {
        // Sized once, so that a million rows are not copied while the array grows.
        VkSqliteStatement count;
        if (prepareRead(ppDb_.get(), "select count(*) from test", count) &&
            sqlite3_step(count.get()) == SQLITE_ROW) {
            auto rows = static_cast<size_t>(
                std::max<sqlite3_int64>(0, sqlite3_column_int64(count.get(), 0)));
            into.reserve(into.size() + std::min<size_t>(rows, size_t{1} << 28));
        }
    }
    size_t read = 0;
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        into.appendStored(storedFromRow(stmt.get()));
        ++read;
    }
    noteStepEnd(rc);
    return read;
}

void VkSqliteManager::noteStepEnd(int rc) {
    // A damaged page or an I/O error ends the rows as the end of the table would.
    if (rc != SQLITE_DONE && readError_.empty())
        readError_ = sqlite3_errmsg(ppDb_.get());
}

std::vector<std::string> VkSqliteManager::dataBasePaths() const {
    return contentFilesOfPath(ctx_->dataFolder);
}

std::vector<std::string> VkSqliteManager::dataBaseTempPaths() const {
    return contentFilesOfPath(ctx_->dataPath("temp"));
}

namespace {

VkResult<std::shared_ptr<VkDataBaseInfo>> readInfo(const std::string& path, bool checkPages) {
    auto opened = openForReading(path);
    if (!opened)
        return VkError{opened.error()};
    sqlite3* db = opened->get();
    if (checkPages) {
        if (std::string problem = VkDataBaseCheck::pagesProblem(db); !problem.empty())
            return VkError{problem};
    }
    std::shared_ptr<VkDataBaseInfo> info;
    VkSqliteStatement stmt;
    if (!prepareRead(db, kSelectDescription, stmt))
        return VkError{sqlite3_errmsg(db)};
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
        info = infoFromRow(stmt.get());  // the last row wins
    if (rc != SQLITE_DONE)
        return VkError{sqlite3_errmsg(db)};
    return info;
}

}  // namespace

std::shared_ptr<VkDataBaseInfo> VkSqliteManager::dataBaseForPath(const std::string& path) {
    // Whatever the manager had open is closed.
    closeDataBase();
    auto info = readInfo(path, false);
    return info ? *info : nullptr;
}

VkResult<std::shared_ptr<VkDataBaseInfo>> VkSqliteManager::checkedInfoForPath(
    const std::string& path) {
    return readInfo(path, true);
}

void VkSqliteManager::openDataBase(const std::string& path) {
    if (VkFile::pathExtension(path) != "sql")
        return;
    closeDataBase();
    ppDb_ = openConnection(path);
    if (!ppDb_)
        return;
    readError_.clear();
    readDescription();
    readItems(path);
}

void VkSqliteManager::readDescription() {
    VkSqliteStatement stmt;
    if (!prepareRead(ppDb_.get(), kSelectDescription, stmt)) {
        stmt.finalize();
        // A reading connection creates nothing: the file is unreadable.
        if (sqlite3_db_readonly(ppDb_.get(), "main") == 1) {
            readError_ = sqlite3_errmsg(ppDb_.get());
            return;
        }
        createTable(kCreateDescription, nullptr);
        return;
    }
    dataBaseInfo_.reset();
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
        dataBaseInfo_ = infoFromRow(stmt.get());  // the last row wins
    noteStepEnd(rc);
}

void VkSqliteManager::readItems(const std::string& path) {
    droppedKillEntries_ = 0;
    VkSqliteStatement stmt;
    if (!prepareRead(ppDb_.get(), kSelectTest, stmt)) {
        stmt.finalize();
        bool created = false;
        createTable(kCreateTest, &created);
        // A file whose table cannot be created keeps the previous file's records in the
        // array; callers that merge files append them again. Kept as the system does it:
        // duplicates never change which record matches first.
        if (created)
            TorjanItemArray_.clear();
        return;
    }
    TorjanItemArray_.clear();
    // One line per file and kind of damage, however many records a damaged file holds.
    size_t unreadable = 0;
    std::string first;
    std::string firstDropped;
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        std::string killProblem;
        auto item = itemFromRow(stmt.get(), killProblem);
        TorjanItemArray_.push_back(item);
        std::string record = "record " + std::to_string(TorjanItemArray_.size());
        if (!killProblem.empty() && unreadable++ == 0)
            first = record + ": " + killProblem;
        if (auto kills = item->killArray(); kills && kills->droppedCount() > 0) {
            if (droppedKillEntries_ == 0)
                firstDropped = record + ": entry " + std::to_string(kills->dropped()[0].position) +
                               " " + kills->dropped()[0].reason;
            droppedKillEntries_ += kills->droppedCount();
        }
    }
    noteStepEnd(rc);
    if (!ctx_->systemLog)
        return;
    if (unreadable > 0) {
        ctx_->systemLog->log("[VkSqlite] " + path + ": " + std::to_string(unreadable) +
                             " record(s) kept without their unreadable kill list (" + first + ")");
    }
    if (droppedKillEntries_ > 0) {
        ctx_->systemLog->log("[VkSqlite] " + path + ": " + std::to_string(droppedKillEntries_) +
                             " malformed kill-list entr" +
                             (droppedKillEntries_ == 1 ? "y" : "ies") + " dropped (" +
                             firstDropped + ")");
    }
}

void VkSqliteManager::createTable(const char* statement, bool* created) {
    char* error = nullptr;
    int rc = sqlite3_exec(ppDb_.get(), statement, nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        tellError(error ? error : sqlite3_errmsg(ppDb_.get()));
    }
    sqlite3_free(error);
    if (created)
        *created = rc == SQLITE_OK;
}

void VkSqliteManager::closeDataBase() {
    ppDb_.reset();
}

int VkSqliteManager::insertDataValue(const VkTorjanItem& item, VkSqliteStatement& ppSmt) {
    bindText(ppSmt, 1, item.name());
    bindText(ppSmt, 2, item.detail());
    sqlite3_bind_int(ppSmt.get(), 3, item.level());
    bindText(ppSmt, 4, item.version());
    sqlite3_bind_int64(ppSmt.get(), 5, static_cast<sqlite3_int64>(item.fileSize()));
    bindBlob(ppSmt, 6, item.headeCode());
    bindBlob(ppSmt, 7, item.TorjanCode());
    if (std::optional<VkTorjanItem::KillArray> killArray = item.killArray()) {
        if (std::optional<std::string> archive = archiveKillArray(*killArray))
            bindBlob(ppSmt, 8, archive);
    }
    return 8;
}

bool VkSqliteManager::addItemToDataBase(const std::shared_ptr<VkTorjanItem>& item) {
    if (!ppDb_ || !item)
        return false;
    VkSqliteStatement stmt;
    // The system answers YES when the insert cannot even be prepared; callers rely on it.
    if (!prepareWrite(ppDb_.get(), kInsertTest, stmt))
        return true;
    insertDataValue(*item, stmt);
    int rc = sqlite3_step(stmt.get());
    stmt.finalize();
    if (rc != SQLITE_DONE)
        return false;
    TorjanItemArray_.push_back(item);
    return true;
}

void VkSqliteManager::deleteItem(const std::shared_ptr<VkTorjanItem>& item) {
    if (!item)
        return;
    bool removeFromArray = true;
    // Without a connection the statement cannot be prepared, which the system treats like a
    // completed delete: the item leaves the array.
    if (ppDb_) {
        VkSqliteStatement stmt;
        if (prepareWrite(ppDb_.get(), kDeleteTest, stmt)) {
            bindBlob(stmt, 1, item->TorjanCode());
            removeFromArray = sqlite3_step(stmt.get()) == SQLITE_DONE;
        }
    }
    if (removeFromArray)
        std::erase(TorjanItemArray_, item);
}

bool VkSqliteManager::updateItem(const VkTorjanItem& item,
                                 const std::optional<std::string>& oldName) {
    if (!ppDb_)
        return false;
    // From here on the answer is YES whatever happens: the system never looked at the step.
    VkSqliteStatement stmt;
    if (!prepareWrite(ppDb_.get(), kUpdateTest, stmt))
        return true;
    int last = insertDataValue(item, stmt);
    bindText(stmt, last + 1, oldName);
    sqlite3_step(stmt.get());
    return true;
}

bool VkSqliteManager::addDataBaseInfo(const std::shared_ptr<VkDataBaseInfo>& info) {
    if (!ppDb_ || dataBaseInfo_ || !info)
        return false;
    VkSqliteStatement stmt;
    // An insert that cannot be prepared still installs the info and answers YES, as the
    // system always has.
    if (prepareWrite(ppDb_.get(), kInsertDescription, stmt)) {
        bindText(stmt, 1, info->name());
        bindText(stmt, 2, info->version());
        if (sqlite3_step(stmt.get()) != SQLITE_DONE)
            return false;
    }
    dataBaseInfo_ = info;
    return true;
}

bool VkSqliteManager::updateDataBaseInfo(const std::shared_ptr<VkDataBaseInfo>& info) {
    if (!ppDb_ || !info)
        return false;
    if (!dataBaseInfo_)
        return addDataBaseInfo(info);
    VkSqliteStatement stmt;
    // YES when the update cannot be prepared, as the system always answered. The current
    // description object is left as it is either way.
    if (!prepareWrite(ppDb_.get(), kUpdateDescription, stmt))
        return true;
    bindText(stmt, 1, info->name());
    bindText(stmt, 2, info->version());
    bindText(stmt, 3, dataBaseInfo_->name());
    return sqlite3_step(stmt.get()) == SQLITE_DONE;
}

bool VkSqliteManager::beginTransaction() {
    return ppDb_ && sqlite3_exec(ppDb_.get(), "begin", nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool VkSqliteManager::endTransaction(bool commit) {
    return ppDb_ && sqlite3_exec(ppDb_.get(), commit ? "commit" : "rollback", nullptr, nullptr,
                                 nullptr) == SQLITE_OK;
}
