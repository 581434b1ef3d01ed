#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "engine/VkFileStamp.h"
#include "platform/VkHandle.h"
#include "platform/VkSqliteHandle.h"

// The head and whole-file hashes of files judged before, kept in an owner-only SQLite file
// of the data folder, so that a file scanned again unchanged is not read again.
//
// What it trusts: an entry is used only while the file's device, inode, size, modification
// and status-change times are all exactly those it was hashed with. Anyone may set a
// modification time, but the status-change time is set by the kernel at every change
// (contents, times, owner, links), with one gap: stores through a shared writable mapping
// stamp the times only at the first write to a page since it was last written back, so a
// page still dirty takes new contents unstamped. Hence only files unchanged for longer than
// the kernel's write-back period are kept, and only on disk file systems that keep times
// themselves (never tmpfs or ramfs, whose pages are never written back, nor network, FUSE or
// FAT file systems, whose times come from elsewhere or are coarse).
// Times hold only while this kernel has the file system mounted: an image or a disk written
// elsewhere carries whatever times its writer chose, and may come back on the same device
// number. So each entry names the mount it was read through by the kernel's unique mount id
// (Linux 6.8 and later) and serves only while that mount stands in this boot; entries of an
// earlier boot are dropped. An older kernel gives no such id: its entries name no mount and
// trust the device number as before (a disk edited elsewhere is then read only with
// --no-cache).
// Verdicts are never cached, only hashes, so a new signature database needs no invalidation.
// The file is written by this user's processes only; one of them that writes it could as
// well edit the signature databases and the trust list beside it, so it grants nothing new:
// the worst an entry can do is spare the read of a file whose identity and times it names.
//
// Best effort throughout: an unreadable, foreign or corrupt file is replaced silently, a
// busy one is left alone and the scan goes without. Safe to use from several threads.
class VkHashCache {
  public:
    static constexpr const char* kFileName = "HashCache.db";
    static constexpr size_t kDefaultMaxEntries = 500000;
    // Files changed more recently than `settle` are not kept: a store through a mapping into
    // a page not yet written back leaves the times as they are. Without one, the kernel's
    // write-back period (dirty_expire_centisecs + dirty_writeback_centisecs) and a margin;
    // nothing is kept when periodic write-back is off.
    static std::chrono::nanoseconds writeBackHorizon();

    struct Hashes {
        std::optional<std::string> head;
        std::optional<std::string> whole;
    };
    // What was asked of the cache for one file, by hash type.
    using KnownHashes = std::map<int32_t, Hashes>;

    explicit VkHashCache(std::string path, size_t maxEntries = kDefaultMaxEntries,
                         std::optional<std::chrono::nanoseconds> settle = std::nullopt);
    ~VkHashCache();
    VkHashCache(const VkHashCache&) = delete;
    VkHashCache& operator=(const VkHashCache&) = delete;

    // The hashes of type `type` kept for a file standing exactly as `stamp` says; empty
    // when there are none.
    Hashes find(const VkFileStamp& stamp, int32_t type);
    // Keeps the hashes of the file open as `fd`, which stood as `stamp` says before and
    // after they were computed, when it has stood long enough on a file system that keeps
    // times; `path` is kept only to find vanished files later. Only queued here: the
    // queue is written by the next lookup once it is long enough, or by flush and prune, so
    // that judges hashing files never wait on the file or on each other for it.
    void remember(int fd, const VkFileStamp& stamp, int32_t type, const Hashes& hashes,
                  const std::string& path);
    // The same without the checks of the file, for a caller that made them: `mount` is the
    // unique id of the mount it was read through.
    void rememberChecked(const VkFileStamp& stamp, uint64_t mount, int32_t type,
                         const Hashes& hashes, const std::string& path);
    // The unique id of the mount the open file or folder is reached through, if the kernel
    // gives one.
    static std::optional<uint64_t> mountOf(int fd);
    // Whether lookups can find nothing for now: this instance made the file and has not
    // flushed since, so it holds only what it was given meanwhile.
    bool knowsNothing() const { return created_.load(); }
    // Writes what is pending.
    void flush();
    // Writes what is pending, forgets files that vanished (a slice of the entries each time)
    // and the oldest entries beyond the bound.
    void prune();
    // Entries now in the file (0 when it cannot be opened).
    size_t entryCount();

  private:
    // A connection that only looks entries up, with its own read transaction over a batch of
    // lookups. Judges and the walk each take a free one, so that they do not queue on one
    // lock for every file (the file is in WAL mode: readers go beside the writer).
    struct Reader {
        std::mutex mutex;
        VkSqliteDb db;
        VkSqliteStatement find;
        bool inTransaction = false;
        size_t pending = 0;
        std::chrono::steady_clock::time_point nextOpen{};
        void commit();
        void close();
    };
    static constexpr size_t kReaders = 4;

    bool openLocked();
    bool tryOpenLocked();
    bool openReader(Reader& reader);
    void closeLocked();
    void commitReaders();
    void noteError(int rc);
    void pruneLocked();
    void writeQueuedLocked();
    bool mountStands(uint64_t mount);

    struct Queued {
        VkFileStamp stamp;
        uint64_t mount = 0;
        int32_t type = 0;
        Hashes hashes;
        std::string path;
    };

    const std::string path_;
    const size_t maxEntries_;
    const std::chrono::nanoseconds settle_;
    // Lock order: mutex_, then a reader's, then queueMutex_ or mountsMutex_.
    std::mutex mutex_;  // the connection that writes, prunes and counts
    VkSqliteDb db_;
    VkSqliteStatement store_;
    std::atomic<bool> open_{false};
    // A corruption was met: every connection closes and the file is replaced at the next open.
    std::atomic<bool> broken_{false};
    // This instance made the file and has not flushed yet: no lookup can find anything.
    std::atomic<bool> created_{false};
    std::chrono::steady_clock::time_point nextOpen_{};
    Reader readers_[kReaders];
    // Entries waiting to be written; their own lock, so that queuing never waits on SQLite.
    std::mutex queueMutex_;
    std::vector<Queued> queue_;
    std::atomic<size_t> queued_{0};
    std::atomic<int64_t> lastWrite_{0};  // steady clock, nanoseconds
    // Whether mounts named by entries still stand, until the mount table changes.
    std::mutex mountsMutex_;
    VkFd mountTable_;
    std::map<uint64_t, bool> mounts_;
};
