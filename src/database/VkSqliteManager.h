#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database/VkDataBaseInfo.h"
#include "database/VkSqliteHandle.h"
#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanRecordList.h"
#include "platform/VkContext.h"
#include "platform/VkResult.h"

// The signature database files: SQLite files with the extension "sql" holding a table
// `description` (name and version) and a table `test` (one signature record per row, its
// text fields enciphered; the store reads and writes them as they are). Holds at most one
// open file; not thread-safe, one thread at a time.
//
// The boolean answers of the write operations are the system's own rules, asymmetries
// included: callers depend on them as they stand.
class VkSqliteManager {
  public:
    static constexpr const char* kCreateDescription =
        "create table description(name varchar[50], version varchar[10])";
    static constexpr const char* kCreateTest =
        "create table test(name varchar[50], detail varchar[50], level int, "
        "version varchar[100], filesize int, headecode blod, code blod, kill blod)";

    explicit VkSqliteManager(std::shared_ptr<VkContext> ctx);
    ~VkSqliteManager();
    VkSqliteManager(const VkSqliteManager&) = delete;
    VkSqliteManager& operator=(const VkSqliteManager&) = delete;

    // Full paths of the folder's entries whose extension is exactly "sql" (case-sensitive),
    // in listing order, not recursive; empty when the folder cannot be listed.
    static std::vector<std::string> contentFilesOfPath(const std::string& folder);
    // All records of every signature database of the data folder, in folder-listing order,
    // read afresh: what a scan judges with. Their hashes are deciphered here, their names,
    // versions and details when a record is first read (a match, a listing). `perFile`, when given,
    // receives each database file that opened with the number of records it gave. The files
    // are only read (no link followed, no view or trigger run, a lock waited on for a few
    // seconds); one that cannot be read to its end is told to the error sink and, with its
    // reason, to `failed`: what it gave before the error is kept, but it is not "loaded".
    static VkTorjanRecordList::Items loadAllRecords(
        std::shared_ptr<VkContext> context,
        std::vector<std::pair<std::string, size_t>>* perFile = nullptr,
        std::vector<std::pair<std::string, std::string>>* failed = nullptr);
    // Where the store's "errorMsg" lines go: standard output without a newline, as the
    // store has always written them, unless a program sets another sink (once, at start).
    using ErrorSink = std::function<void(const std::string& message)>;
    static void setErrorSink(ErrorSink sink);
    // The database files of the data folder.
    std::vector<std::string> dataBasePaths() const;
    // The database files staged in the data folder's "temp".
    std::vector<std::string> dataBaseTempPaths() const;

    // Name and version of the file (last description row), or nullptr when it cannot be
    // opened or read, or has no description. Read as loadAllRecords reads: nothing is created
    // or written, and a link is not followed. Leaves the manager with no open file and its
    // items and description untouched.
    std::shared_ptr<VkDataBaseInfo> dataBaseForPath(const std::string& path);
    // The same, read the same way, after a check of every page of the file; the error says
    // why the file is not a readable signature database (its description may be nullptr).
    static VkResult<std::shared_ptr<VkDataBaseInfo>> checkedInfoForPath(const std::string& path);
    // Opens a ".sql" file (any other path changes nothing), creating missing tables, and reads
    // its description and every record into currentDataBaseInfo / TorjanItemArray. The file
    // stays open until closeDataBase, dataBaseForPath or the next openDataBase.
    void openDataBase(const std::string& path);
    // Closes the open file, if any. Safe to call repeatedly.
    void closeDataBase();
    bool isOpen() const { return ppDb_ != nullptr; }

    // The records of the file opened last, in row order (the live array).
    std::vector<std::shared_ptr<VkTorjanItem>>& TorjanItemArray() { return TorjanItemArray_; }
    const std::vector<std::shared_ptr<VkTorjanItem>>& TorjanItemArray() const {
        return TorjanItemArray_;
    }
    std::shared_ptr<VkDataBaseInfo> currentDataBaseInfo() const { return dataBaseInfo_; }
    // Kill-list entries of the file opened last that were malformed and left out at load.
    size_t droppedKillEntries() const { return droppedKillEntries_; }
    // Why the file opened last could not be read to its end ("" when it could): its
    // description and records then hold only what came before the error.
    const std::string& readError() const { return readError_; }

    // Binds the item's eight columns to parameters 1..8 (the kill array as a keyed archive,
    // left NULL when the item has none) and returns 8, the last parameter bound.
    int insertDataValue(const VkTorjanItem& item, VkSqliteStatement& ppSmt);
    // Inserts the item as a new row. True when written (the item is then also appended to
    // TorjanItemArray), and also when the statement could not be prepared; false with no
    // open file or when the write failed.
    bool addItemToDataBase(const std::shared_ptr<VkTorjanItem>& item);
    // Deletes every row whose code equals the item's TorjanCode; the item leaves
    // TorjanItemArray when the delete completed or could not be prepared.
    void deleteItem(const std::shared_ptr<VkTorjanItem>& item);
    // Rewrites every row named oldName with the item's columns. False only with no open file.
    bool updateItem(const VkTorjanItem& item, const std::optional<std::string>& oldName);
    // Writes the description of a file that has none. True when written or when the statement
    // could not be prepared (the info then becomes currentDataBaseInfo); false with no open
    // file, an existing description or a failed write.
    bool addDataBaseInfo(const std::shared_ptr<VkDataBaseInfo>& info);
    // Changes the description (adds it when there is none). True when written or when the
    // statement could not be prepared; false with no open file or a failed write.
    // currentDataBaseInfo is not replaced.
    bool updateDataBaseInfo(const std::shared_ptr<VkDataBaseInfo>& info);

    // ---- Our additions for the signature author's tool ----

    // Groups the following writes into one transaction (many inserts at the speed of one).
    bool beginTransaction();
    // Commits (or, with commit false, rolls back) the transaction begun last.
    bool endTransaction(bool commit);

  private:
    void readDescription();
    // Reads every record; a kill list that cannot be read, and malformed entries of one that
    // can, are logged and left out.
    void readItems(const std::string& path);
    // Appends every record of the open file to `into`, kept compact; the number read, or
    // nullopt when the table cannot be read (the previous file's records stay).
    std::optional<size_t> readStoredItems(VkTorjanRecordList::Items& into);
    void createTable(const char* statement, bool* created);
    // Keeps the reason when a row loop ended on anything but the end of its table.
    void noteStepEnd(int rc);

    std::shared_ptr<VkContext> ctx_;
    VkSqliteDb ppDb_;
    std::vector<std::shared_ptr<VkTorjanItem>> TorjanItemArray_;
    std::shared_ptr<VkDataBaseInfo> dataBaseInfo_;
    size_t droppedKillEntries_ = 0;
    std::string readError_;
};
