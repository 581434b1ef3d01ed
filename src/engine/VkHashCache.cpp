#include "engine/VkHashCache.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <limits>
#include <poll.h>
#include <set>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

// Compared word for word with what an opened file holds: anything else (another program's
// table, a trigger, a view) makes the file a foreign one, replaced rather than trusted.
const char* const kHashesTable =
    "CREATE TABLE hashes(device INTEGER NOT NULL, inode INTEGER NOT NULL, type INTEGER NOT "
    "NULL, size INTEGER NOT NULL, mtime INTEGER NOT NULL, ctime INTEGER NOT NULL, head TEXT, "
    "whole TEXT, path BLOB NOT NULL, mount INTEGER NOT NULL, PRIMARY KEY(device, inode, type))";
const char* const kSweepTable =
    "CREATE TABLE sweep(id INTEGER PRIMARY KEY CHECK(id = 0), next INTEGER NOT NULL)";
const char* const kBootTable =
    "CREATE TABLE boot(id INTEGER PRIMARY KEY CHECK(id = 0), boot TEXT NOT NULL)";
const std::set<std::string> kSchemaNames = {"hashes", "sqlite_autoindex_hashes_1", "sweep", "boot"};

// A slice of the entries is checked for vanished files at each prune; a full scan's own
// work dwarfs this many attribute reads.
constexpr int kSweepSlice = 1024;
// Writes are committed in batches; each commit of a WAL file costs no sync.
constexpr size_t kBatch = 512;
// A busy file (another scan is writing) is waited for this long, then left alone.
constexpr int kBusyMilliseconds = 50;
// Queued entries are written at the latest this long after the last write, at a lookup.
constexpr std::chrono::seconds kWriteLatest{1};
// A file that could not be opened is tried again after this long.
constexpr std::chrono::seconds kRetryOpen{60};

// Past the kernel's own write-back period: a busy disk or a long flusher pass delays it.
constexpr std::chrono::seconds kWriteBackMargin{60};

// Disk file systems whose pages are written back and whose times this kernel sets itself.
// Not tmpfs, ramfs or shm (never written back, so a mapped page stays writable unstamped),
// nor network or FUSE file systems (times from a server or a daemon), FAT (no status-change
// time, two-second modification times) or overlays (whose upper layer may be tmpfs).
bool keepsTimes(int fd) {
    struct statfs fs {};
    if (::fstatfs(fd, &fs) != 0)
        return false;
    switch (static_cast<uint32_t>(fs.f_type)) {
        case 0xEF53:      // ext2, ext3, ext4
        case 0x58465342:  // xfs
        case 0x9123683E:  // btrfs
        case 0xF2F52010:  // f2fs
        case 0xCA451A4E:  // bcachefs
        case 0x2FC12FC1:  // zfs
            return true;
        default:
            return false;
    }
}

// This boot's identity: mount ids count afresh at every boot.
const std::string& bootId() {
    static const std::string id = [] {
        std::ifstream in("/proc/sys/kernel/random/boot_id");
        std::string text;
        in >> text;
        return text.size() == 36 ? text : std::string();
    }();
    return id;
}

// Whether the mount of this unique id (never given twice in one boot) is still mounted here.
bool mountExists(uint64_t mount) {
#ifdef SYS_statmount
    const long statmountCall = SYS_statmount;
#else
    const long statmountCall = 457;  // the same number on every architecture
#endif
    struct {
        uint32_t size = 24;
        uint32_t spare = 0;
        uint64_t mountId;
        uint64_t param = 0x2;  // STATMOUNT_MNT_BASIC
    } request{.mountId = mount};
    alignas(8) static thread_local unsigned char answer[4096];
    return ::syscall(statmountCall, &request, answer, sizeof answer, 0) == 0;
}

std::optional<long long> readNumber(const char* path) {
    std::ifstream in(path);
    long long value = 0;
    if (in >> value && value >= 0 && value <= std::numeric_limits<int32_t>::max())
        return value;
    return std::nullopt;
}

bool isCorruption(int rc) {
    rc &= 0xFF;
    return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
}

// Hash text as the hash facility writes it: lower-case hex of a known digest length.
bool plausibleHash(const unsigned char* text, int length) {
    if (!text || (length != 32 && length != 40 && length != 64))
        return false;
    for (int i = 0; i < length; ++i) {
        unsigned char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

std::optional<std::string> hashColumn(sqlite3_stmt* stmt, int column) {
    if (sqlite3_column_type(stmt, column) != SQLITE_TEXT)
        return std::nullopt;
    const unsigned char* text = sqlite3_column_text(stmt, column);
    int length = sqlite3_column_bytes(stmt, column);
    if (!plausibleHash(text, length))
        return std::nullopt;
    return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
}

bool exec(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Every connection to the file, the writing one and the readers: a link in its place is not
// followed, and what a hostile file could carry is not run.
int openConnection(const std::string& path, VkSqliteDb& db) {
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                             nullptr);
    db.reset(raw);
    if (rc != SQLITE_OK)
        return rc;
    sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_busy_timeout(raw, kBusyMilliseconds);
    return SQLITE_OK;
}

}  // namespace

std::chrono::nanoseconds VkHashCache::writeBackHorizon() {
    std::optional<long long> expire = readNumber("/proc/sys/vm/dirty_expire_centisecs");
    std::optional<long long> period = readNumber("/proc/sys/vm/dirty_writeback_centisecs");
    // Without periodic write-back a dirty page may stay writable for good.
    if (period && *period == 0)
        return std::chrono::nanoseconds::max();
    std::chrono::duration<long long, std::centi> horizon(expire.value_or(3000) +
                                                         period.value_or(500));
    return std::chrono::duration_cast<std::chrono::nanoseconds>(horizon) + kWriteBackMargin;
}

std::optional<uint64_t> VkHashCache::mountOf(int fd) {
    // struct statx as the kernel lays it out; this C library's lacks the mount id.
    constexpr unsigned kMountIdUnique = 0x4000;  // STATX_MNT_ID_UNIQUE, Linux 6.8
    constexpr size_t kMountIdOffset = 0x90;
    alignas(8) unsigned char answer[256] = {};
    if (bootId().empty() ||
        ::syscall(SYS_statx, fd, "", AT_EMPTY_PATH, kMountIdUnique, answer) != 0)
        return std::nullopt;
    uint32_t mask = 0;
    uint64_t mount = 0;
    std::memcpy(&mask, answer, sizeof mask);
    std::memcpy(&mount, answer + kMountIdOffset, sizeof mount);
    if (!(mask & kMountIdUnique))
        return std::nullopt;
    return mount;
}

bool VkHashCache::mountStands(uint64_t mount) {
    if (mount == 0)
        return true;
    std::lock_guard lock(mountsMutex_);
    // The answers hold until the mount table changes, which a poll of it tells.
    if (!mountTable_.valid())
        mountTable_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    pollfd changed{mountTable_.get(), POLLPRI, 0};
    if (!mountTable_.valid() || ::poll(&changed, 1, 0) < 0 ||
        (changed.revents & (POLLPRI | POLLERR)) || mounts_.size() > 4096)
        mounts_.clear();
    auto it = mounts_.find(mount);
    if (it != mounts_.end())
        return it->second;
    bool stands = mountExists(mount);
    if (mountTable_.valid())
        mounts_.emplace(mount, stands);
    return stands;
}

VkHashCache::VkHashCache(std::string path, size_t maxEntries,
                         std::optional<std::chrono::nanoseconds> settle)
    : path_(std::move(path)),
      maxEntries_(maxEntries == 0 ? 1 : maxEntries),
      settle_(settle ? *settle : writeBackHorizon()) {}

VkHashCache::~VkHashCache() {
    std::lock_guard lock(mutex_);
    writeQueuedLocked();
    closeLocked();
}

void VkHashCache::Reader::commit() {
    if (inTransaction && db && !exec(db.get(), "COMMIT"))
        exec(db.get(), "ROLLBACK");
    inTransaction = false;
    pending = 0;
}

void VkHashCache::Reader::close() {
    commit();
    find.finalize();
    db.reset();
}

void VkHashCache::commitReaders() {
    for (Reader& reader : readers_) {
        std::lock_guard lock(reader.mutex);
        reader.commit();
    }
}

void VkHashCache::closeLocked() {
    for (Reader& reader : readers_) {
        std::lock_guard lock(reader.mutex);
        reader.close();
    }
    store_.finalize();
    db_.reset();
    open_ = false;
    if (broken_) {
        // Rebuilt from nothing at the next open.
        for (const char* suffix : {"", "-wal", "-shm"})
            ::unlink((path_ + suffix).c_str());
        broken_ = false;
    }
}

void VkHashCache::noteError(int rc) {
    if (isCorruption(rc))
        broken_ = true;
}

bool VkHashCache::openLocked() {
    if (db_ && !broken_)
        return true;
    open_ = false;
    if (broken_)
        closeLocked();
    auto now = std::chrono::steady_clock::now();
    if (now < nextOpen_)
        return false;
    // A file that is no cache of ours is replaced once; a second failure (a read-only
    // folder, a busy file) waits for the next attempt.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (tryOpenLocked()) {
            open_ = true;
            return true;
        }
        if (!broken_)
            break;
        closeLocked();
    }
    closeLocked();
    nextOpen_ = now + kRetryOpen;
    return false;
}

bool VkHashCache::tryOpenLocked() {
    // Created owner-only before SQLite sees it (its journal files copy this mode); a link
    // in its place is refused, not followed.
    VkFd made(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat st {};
    if (!made.valid() || ::fstat(made.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    if ((st.st_mode & 0777) != 0600 && ::fchmod(made.get(), 0600) != 0)
        return false;
    made.reset();
    int rc = openConnection(path_, db_);
    if (rc != SQLITE_OK)
        return false;
    sqlite3* db = db_.get();

    // An empty file becomes a cache; anything else must be one already.
    VkSqliteStatement schema;
    rc = sqlite3_prepare_v2(db, "SELECT name, sql FROM sqlite_schema", -1, schema.out(), nullptr);
    bool foreign = false;
    bool haveHashes = false;
    bool haveSweep = false;
    bool haveBoot = false;
    if (rc == SQLITE_OK)
        rc = SQLITE_ROW;
    while (rc == SQLITE_ROW && (rc = sqlite3_step(schema.get())) == SQLITE_ROW) {
        auto text = [&](int column) {
            const unsigned char* p = sqlite3_column_text(schema.get(), column);
            return p ? std::string(reinterpret_cast<const char*>(p)) : std::string();
        };
        std::string name = text(0);
        std::string sql = text(1);
        haveHashes = haveHashes || (name == "hashes" && sql == kHashesTable);
        haveSweep = haveSweep || (name == "sweep" && sql == kSweepTable);
        haveBoot = haveBoot || (name == "boot" && sql == kBootTable);
        foreign = foreign || !kSchemaNames.count(name) ||
                  (name == "hashes" && sql != kHashesTable) ||
                  (name == "sweep" && sql != kSweepTable) || (name == "boot" && sql != kBootTable);
    }
    schema.finalize();
    if (rc != SQLITE_DONE || foreign || haveHashes != haveSweep || haveHashes != haveBoot) {
        // Not ours or unreadable: replaced, unless someone else merely holds it.
        if ((rc & 0xFF) != SQLITE_BUSY && (rc & 0xFF) != SQLITE_LOCKED)
            broken_ = true;
        return false;
    }
    if (!exec(db, "PRAGMA journal_mode=WAL") || !exec(db, "PRAGMA synchronous=NORMAL"))
        return false;
    if (!haveHashes) {
        std::string create = std::string(kHashesTable) + ";" + kSweepTable + ";" + kBootTable + ";";
        if (!exec(db, create.c_str()))
            return false;
        created_ = true;
    }
    // Entries of an earlier boot go: mount ids count afresh, and a disk may have been
    // written elsewhere in between.
    VkSqliteStatement boot;
    if (sqlite3_prepare_v2(db, "SELECT boot FROM boot WHERE id = 0 AND boot = ?", -1, boot.out(),
                           nullptr) != SQLITE_OK)
        return false;
    sqlite3_bind_text(boot.get(), 1, bootId().data(), static_cast<int>(bootId().size()),
                      SQLITE_STATIC);
    rc = sqlite3_step(boot.get());
    boot.finalize();
    if (rc == SQLITE_DONE) {
        std::string renew =
            "BEGIN IMMEDIATE; DELETE FROM hashes; DELETE FROM sweep; INSERT OR "
            "REPLACE INTO boot(id, boot) VALUES(0, '" +
            bootId() + "'); COMMIT;";
        if (bootId().empty() || !exec(db, renew.c_str())) {
            exec(db, "ROLLBACK");
            return false;
        }
    } else if (rc != SQLITE_ROW) {
        noteError(rc);
        return false;
    }
    rc = sqlite3_prepare_v2(db,
                            "INSERT OR REPLACE INTO hashes(device, inode, type, size, mtime, "
                            "ctime, head, whole, path, mount) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                            -1, store_.out(), nullptr);
    if (rc != SQLITE_OK) {
        noteError(rc);
        return false;
    }
    return true;
}

// Opened once the writing connection has made or checked the file; the same guards, and
// nothing but the lookup is ever prepared on it.
bool VkHashCache::openReader(Reader& reader) {
    if (reader.db)
        return true;
    auto now = std::chrono::steady_clock::now();
    if (now < reader.nextOpen)
        return false;
    int rc = openConnection(path_, reader.db);
    if (rc == SQLITE_OK) {
        rc = sqlite3_prepare_v2(reader.db.get(),
                                "SELECT size, mtime, ctime, head, whole, mount FROM hashes WHERE "
                                "device = ? AND inode = ? AND type = ?",
                                -1, reader.find.out(), nullptr);
    }
    if (rc == SQLITE_OK)
        return true;
    noteError(rc);
    reader.close();
    reader.nextOpen = now + kRetryOpen;
    return false;
}

VkHashCache::Hashes VkHashCache::find(const VkFileStamp& stamp, int32_t type) {
    Hashes found;
    // The queue is written here, by whoever looks files up (the walk, in a scan), in
    // batches, and at least every second for a monitor that judges a file now and then.
    // The same lock opens, checks or replaces the file.
    auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    size_t queued = queued_.load(std::memory_order_relaxed);
    bool due =
        queued >= kBatch || (queued > 0 && now - lastWrite_.load(std::memory_order_relaxed) >
                                               std::chrono::nanoseconds(kWriteLatest).count());
    if (due || !open_ || broken_) {
        std::lock_guard lock(mutex_);
        if (due)
            writeQueuedLocked();
        if (!openLocked())
            return found;
    }
    // A file this instance made holds only what it hashed since: in a scan, that is no file
    // judged yet (another link to a file already read is simply read again).
    if (created_)
        return found;
    // The first free reader, else the one this thread falls to.
    std::unique_lock<std::mutex> held;
    Reader* reader = nullptr;
    for (Reader& candidate : readers_) {
        std::unique_lock<std::mutex> attempt(candidate.mutex, std::try_to_lock);
        if (attempt.owns_lock()) {
            held = std::move(attempt);
            reader = &candidate;
            break;
        }
    }
    if (!reader) {
        reader = &readers_[std::hash<std::thread::id>{}(std::this_thread::get_id()) % kReaders];
        held = std::unique_lock<std::mutex>(reader->mutex);
    }
    if (broken_ || !openReader(*reader))
        return found;
    // Lookups share one read transaction per batch: each one on its own would take and
    // drop the file's locks, two system calls per file.
    sqlite3* db = reader->db.get();
    if (!reader->inTransaction && exec(db, "BEGIN"))
        reader->inTransaction = true;
    if (reader->inTransaction && ++reader->pending >= kBatch)
        reader->commit();
    sqlite3_stmt* stmt = reader->find.get();
    sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(stamp.device));
    sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(stamp.inode));
    sqlite3_bind_int(stmt, 3, type);
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW && static_cast<uint64_t>(sqlite3_column_int64(stmt, 0)) == stamp.size &&
        sqlite3_column_int64(stmt, 1) == stamp.mtime &&
        sqlite3_column_int64(stmt, 2) == stamp.ctime &&
        mountStands(static_cast<uint64_t>(sqlite3_column_int64(stmt, 5)))) {
        found.head = hashColumn(stmt, 3);
        found.whole = hashColumn(stmt, 4);
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        noteError(rc);
    }
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return found;
}

void VkHashCache::remember(int fd, const VkFileStamp& stamp, int32_t type, const Hashes& hashes,
                           const std::string& path) {
    if ((!hashes.head && !hashes.whole) || settle_ == std::chrono::nanoseconds::max())
        return;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    int64_t settled = VkFileStamp::nanoseconds(now) - settle_.count();
    if (stamp.mtime > settled || stamp.ctime > settled || !keepsTimes(fd))
        return;
    // A kernel before unique mount ids (Linux 6.8) gives none: the entry is then bound to
    // no mount (0, which no mount has) and serves as it did before mounts were asked.
    rememberChecked(stamp, mountOf(fd).value_or(0), type, hashes, path);
}

void VkHashCache::rememberChecked(const VkFileStamp& stamp, uint64_t mount, int32_t type,
                                  const Hashes& hashes, const std::string& path) {
    if (!hashes.head && !hashes.whole)
        return;
    std::lock_guard lock(queueMutex_);
    queue_.push_back({stamp, mount, type, hashes, path});
    queued_.store(queue_.size(), std::memory_order_relaxed);
}

void VkHashCache::writeQueuedLocked() {
    std::vector<Queued> writing;
    {
        std::lock_guard lock(queueMutex_);
        writing.swap(queue_);
        queued_.store(0, std::memory_order_relaxed);
    }
    lastWrite_ = std::chrono::steady_clock::now().time_since_epoch().count();
    if (writing.empty() || !openLocked())
        return;
    // In key order, each batch touches fewer pages of the key's index.
    std::sort(writing.begin(), writing.end(), [](const Queued& a, const Queued& b) {
        return std::tie(a.stamp.device, a.stamp.inode, a.type) <
               std::tie(b.stamp.device, b.stamp.inode, b.type);
    });
    // Busy: another scan is writing; these entries wait for a later scan.
    if (!exec(db_.get(), "BEGIN IMMEDIATE"))
        return;
    sqlite3_stmt* stmt = store_.get();
    for (const Queued& entry : writing) {
        sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(entry.stamp.device));
        sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(entry.stamp.inode));
        sqlite3_bind_int(stmt, 3, entry.type);
        sqlite3_bind_int64(stmt, 4, static_cast<sqlite3_int64>(entry.stamp.size));
        sqlite3_bind_int64(stmt, 5, entry.stamp.mtime);
        sqlite3_bind_int64(stmt, 6, entry.stamp.ctime);
        auto bindHash = [&](int index, const std::optional<std::string>& hash) {
            if (hash)
                sqlite3_bind_text(stmt, index, hash->data(), static_cast<int>(hash->size()),
                                  SQLITE_STATIC);
            else
                sqlite3_bind_null(stmt, index);
        };
        bindHash(7, entry.hashes.head);
        bindHash(8, entry.hashes.whole);
        sqlite3_bind_blob(stmt, 9, entry.path.data(), static_cast<int>(entry.path.size()),
                          SQLITE_STATIC);
        sqlite3_bind_int64(stmt, 10, static_cast<sqlite3_int64>(entry.mount));
        int rc = sqlite3_step(stmt);
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
        if (rc != SQLITE_DONE) {
            noteError(rc);
            if (broken_)
                break;
        }
    }
    if (!exec(db_.get(), "COMMIT"))
        exec(db_.get(), "ROLLBACK");
}

void VkHashCache::flush() {
    std::lock_guard lock(mutex_);
    created_ = false;
    commitReaders();
    writeQueuedLocked();
    if (broken_)
        closeLocked();
}

void VkHashCache::prune() {
    std::lock_guard lock(mutex_);
    created_ = false;
    commitReaders();
    writeQueuedLocked();
    if (openLocked())
        pruneLocked();
    if (broken_)
        closeLocked();
}

void VkHashCache::pruneLocked() {
    sqlite3* db = db_.get();
    if (!exec(db, "BEGIN IMMEDIATE"))
        return;
    // Vanished files: a slice of the entries after where the last prune stopped.
    sqlite3_int64 next = 0;
    {
        VkSqliteStatement cursor;
        if (sqlite3_prepare_v2(db, "SELECT next FROM sweep WHERE id = 0", -1, cursor.out(),
                               nullptr) == SQLITE_OK &&
            sqlite3_step(cursor.get()) == SQLITE_ROW)
            next = sqlite3_column_int64(cursor.get(), 0);
    }
    std::vector<sqlite3_int64> gone;
    sqlite3_int64 last = 0;
    int seen = 0;
    VkSqliteStatement slice;
    int rc =
        sqlite3_prepare_v2(db,
                           "SELECT rowid, device, inode, path, mount FROM hashes WHERE rowid > ? "
                           "ORDER BY rowid LIMIT ?",
                           -1, slice.out(), nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_bind_int64(slice.get(), 1, next);
        sqlite3_bind_int(slice.get(), 2, kSweepSlice);
        while ((rc = sqlite3_step(slice.get())) == SQLITE_ROW) {
            ++seen;
            last = sqlite3_column_int64(slice.get(), 0);
            const void* bytes = sqlite3_column_blob(slice.get(), 3);
            std::string path(static_cast<const char*>(bytes),
                             static_cast<size_t>(sqlite3_column_bytes(slice.get(), 3)));
            // Only looked at, never opened or followed.
            struct stat st {};
            bool present = !path.empty() && path.find('\0') == std::string::npos &&
                           ::lstat(path.c_str(), &st) == 0 &&
                           static_cast<uint64_t>(st.st_dev) ==
                               static_cast<uint64_t>(sqlite3_column_int64(slice.get(), 1)) &&
                           static_cast<uint64_t>(st.st_ino) ==
                               static_cast<uint64_t>(sqlite3_column_int64(slice.get(), 2)) &&
                           mountStands(static_cast<uint64_t>(sqlite3_column_int64(slice.get(), 4)));
            if (!present)
                gone.push_back(last);
        }
    }
    noteError(rc);
    slice.finalize();
    VkSqliteStatement drop;
    if (!gone.empty() && sqlite3_prepare_v2(db, "DELETE FROM hashes WHERE rowid = ?", -1,
                                            drop.out(), nullptr) == SQLITE_OK) {
        for (sqlite3_int64 rowid : gone) {
            sqlite3_bind_int64(drop.get(), 1, rowid);
            sqlite3_step(drop.get());
            sqlite3_reset(drop.get());
        }
    }
    drop.finalize();
    // The next prune goes on after this slice, or from the start once it reached the end.
    VkSqliteStatement save;
    if (sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO sweep(id, next) VALUES(0, ?)", -1,
                           save.out(), nullptr) == SQLITE_OK) {
        sqlite3_bind_int64(save.get(), 1, seen < kSweepSlice ? 0 : last);
        sqlite3_step(save.get());
    }
    save.finalize();
    // Beyond the bound the oldest entries go (a replaced entry is stored anew, so row order
    // is storing order), down to nine tenths so that pruning is not needed at every scan.
    VkSqliteStatement count;
    sqlite3_int64 entries = 0;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM hashes", -1, count.out(), nullptr) ==
            SQLITE_OK &&
        sqlite3_step(count.get()) == SQLITE_ROW)
        entries = sqlite3_column_int64(count.get(), 0);
    count.finalize();
    if (static_cast<uint64_t>(entries) > maxEntries_) {
        VkSqliteStatement trim;
        if (sqlite3_prepare_v2(db,
                               "DELETE FROM hashes WHERE rowid IN (SELECT rowid FROM hashes "
                               "ORDER BY rowid LIMIT ?)",
                               -1, trim.out(), nullptr) == SQLITE_OK) {
            sqlite3_bind_int64(
                trim.get(), 1,
                entries - static_cast<sqlite3_int64>(maxEntries_ - maxEntries_ / 10));
            noteError(sqlite3_step(trim.get()));
        }
    }
    if (!exec(db, "COMMIT"))
        exec(db, "ROLLBACK");
}

size_t VkHashCache::entryCount() {
    std::lock_guard lock(mutex_);
    commitReaders();
    writeQueuedLocked();
    if (!openLocked())
        return 0;
    VkSqliteStatement count;
    if (sqlite3_prepare_v2(db_.get(), "SELECT count(*) FROM hashes", -1, count.out(), nullptr) !=
            SQLITE_OK ||
        sqlite3_step(count.get()) != SQLITE_ROW)
        return 0;
    return static_cast<size_t>(sqlite3_column_int64(count.get(), 0));
}
