#include "engine/VkDirectoryWalker.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

bool isDots(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The entries of an open folder, read from its descriptor. On Linux straight from the
// kernel into a buffer of its own: opendir() would read the folder's attributes and flags
// once more for each of the thousands of folders a scan lists twice.
class Listing {
  public:
    struct Item {
        const char* name;
        unsigned char type;
    };

    // Takes the descriptor; an invalid one makes no listing (errno kept).
    static std::unique_ptr<Listing> adopt(int fd) {
        if (fd < 0)
            return nullptr;
#ifdef __linux__
        return std::unique_ptr<Listing>(new Listing(fd));
#else
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            int error = errno;
            ::close(fd);
            errno = error;
            return nullptr;
        }
        return std::unique_ptr<Listing>(new Listing(dir));
#endif
    }
    ~Listing() {
#ifdef __linux__
        ::close(fd_);
#else
        ::closedir(dir_);
#endif
    }
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;

    int fd() const {
        return fd_;
    }

    // The next entry but "." and "..", valid until the next call; nothing at the end or when
    // the folder could not be read further (errno says which: 0 at the end).
    std::optional<Item> next() {
        for (;;) {
#ifdef __linux__
            if (at_ >= filled_) {
                // Made on the first read: a folder walked from the count's listing never reads.
                if (!buffer_)
                    buffer_.reset(new char[kBufferSize]);
                errno = 0;
                ssize_t n = ::getdents64(fd_, buffer_.get(), kBufferSize);
                if (n <= 0) {
                    if (n == 0)
                        errno = 0;
                    return std::nullopt;
                }
                filled_ = static_cast<size_t>(n);
                at_ = 0;
            }
            const auto* e = reinterpret_cast<const struct dirent64*>(buffer_.get() + at_);
            at_ += e->d_reclen;
#else
            errno = 0;
            const struct dirent* e = ::readdir(dir_);
            if (!e)
                return std::nullopt;
#endif
            if (!isDots(e->d_name))
                return Item{e->d_name, e->d_type};
        }
    }

  private:
#ifdef __linux__
    static constexpr size_t kBufferSize = 32768;
    explicit Listing(int fd) : fd_(fd) {}
    int fd_;
    std::unique_ptr<char[]> buffer_;
    size_t filled_ = 0;
    size_t at_ = 0;
#else
    explicit Listing(DIR* dir) : fd_(::dirfd(dir)), dir_(dir) {}
    int fd_;
    DIR* dir_;
#endif
};

struct Frame {
    std::string path;  // full path of the folder
    std::unique_ptr<Listing> dir;
    // Used instead of reading `dir` once the frame was read ahead to free its descriptor, or
    // when the count kept its listing.
    VkDirectoryWalker::Names pending;
    bool listed = false;
    size_t next = 0;
};

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens a folder below an open parent without following a link in its place.
std::unique_ptr<Listing> openChild(const Listing* parent, const std::string& fullPath,
                                   const char* name) {
    return Listing::adopt(parent ? ::openat(parent->fd(), name, kFolderFlags)
                                 : VkDirectoryWalker::openFolder(fullPath).release());
}

// Whether an entry is a real folder (links are not), asking the file system only when
// the listing could not say.
bool isFolder(const Listing* parent, const std::string& fullPath, const char* name,
              unsigned char type) {
    if (type == DT_DIR)
        return true;
    if (type != DT_UNKNOWN)
        return false;
    struct stat st {};
    int rc = parent ? ::fstatat(parent->fd(), name, &st, AT_SYMLINK_NOFOLLOW)
                    : ::lstat(fullPath.c_str(), &st);
    return rc == 0 && S_ISDIR(st.st_mode);
}

// An open folder's stamp, read only when something asks for it: folders never entered, or
// listings kept by a count.
std::optional<VkFileStamp> identify(const Listing& dir, bool wanted) {
    struct stat st {};
    if (!wanted || ::fstat(dir.fd(), &st) != 0)
        return std::nullopt;
    return VkFileStamp::of(st);
}

bool isSkipped(const std::optional<VkFileStamp>& stamp,
               const std::vector<VkDirectoryWalker::FolderId>& skip) {
    return stamp &&
           std::find(skip.begin(), skip.end(), VkDirectoryWalker::idOf(*stamp)) != skip.end();
}

// Opens the root of a walk; it may be a link to a folder: followed, as the platform's
// enumerator does for the folder it is asked to list.
std::unique_ptr<Listing> openRoot(const std::string& base) {
    return Listing::adopt(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Blocks this thread (or, where threads are not told apart, this process) has had to read
// from a disk so far.
long blocksRead() {
    struct rusage usage {};
#ifdef RUSAGE_THREAD
    const int who = RUSAGE_THREAD;
#else
    const int who = RUSAGE_SELF;
#endif
    return ::getrusage(who, &usage) == 0 ? usage.ru_inblock : 0;
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

}  // namespace

size_t VkDirectoryWalker::Listings::room() const {
    std::lock_guard lock(mutex_);
    return room_ - used_;
}

void VkDirectoryWalker::Listings::keep(const VkFileStamp& folder, Names names) {
    size_t bytes = names.bytes();
    std::lock_guard lock(mutex_);
    if (bytes > room_ - used_ || kept_.count(idOf(folder)))
        return;
    used_ += bytes;
    kept_.emplace(idOf(folder),
                  Kept{folder, std::move(names), bytes, std::chrono::steady_clock::now()});
}

std::optional<VkDirectoryWalker::Names> VkDirectoryWalker::Listings::take(
    const VkFileStamp& folder) {
    std::lock_guard lock(mutex_);
    auto it = kept_.find(idOf(folder));
    if (it == kept_.end())
        return std::nullopt;
    Kept kept = std::move(it->second);
    kept_.erase(it);
    used_ -= kept.bytes;
    // A folder changed since the count read it (or another on the same inode) may hold what
    // the listing misses, and an old listing is not trusted even so (a change within one tick
    // of a coarse file-system clock leaves the stamp as it was): the walk reads it afresh.
    if (kept.stamp != folder || std::chrono::steady_clock::now() - kept.when > fresh_)
        return std::nullopt;
    return std::move(kept.names);
}

VkFd VkDirectoryWalker::openFolder(const std::string& path) {
    if (path.size() < PATH_MAX)
        return VkFd(::open(path.c_str(), kFolderFlags));
    // Too long to name at once: from the start (the root, or the working folder for a
    // relative path), one component at a time.
    VkFd folder(::open(path[0] == '/' ? "/" : ".", kFolderFlags));
    size_t begin = 0;
    while (folder.valid() && begin < path.size()) {
        size_t end = path.find('/', begin);
        if (end == std::string::npos)
            end = path.size();
        if (end > begin) {
            std::string part = path.substr(begin, end - begin);
            folder.reset(part == "." ? ::dup(folder.get())
                                     : ::openat(folder.get(), part.c_str(), kFolderFlags));
        }
        begin = end + 1;
    }
    return folder;
}

bool VkDirectoryWalker::walk(const std::string& root,
                             const std::function<bool(const std::string&)>& visit,
                             const std::vector<FolderId>& skip,
                             const std::function<void(const std::string&, int)>& failed) {
    return walkEntries(
        root, [&](const Entry& entry) { return visit(entry.path); }, skip, failed);
}

bool VkDirectoryWalker::walkEntries(const std::string& root,
                                    const std::function<bool(const Entry&)>& visit,
                                    const std::vector<FolderId>& skip,
                                    const std::function<void(const std::string&, int)>& failed,
                                    Listings* listings) {
    auto fail = [&](const std::string& path) {
        if (failed)
            failed(path, errno != 0 ? errno : EIO);
    };
    const bool identified = listings || !skip.empty();
    std::vector<std::unique_ptr<Frame>> stack;
    // A folder to walk next, unless it is one never entered.
    auto push = [&](std::string path, std::unique_ptr<Listing> dir) {
        std::optional<VkFileStamp> stamp = identify(*dir, identified);
        if (isSkipped(stamp, skip))
            return;
        auto frame = std::make_unique<Frame>();
        frame->path = std::move(path);
        frame->dir = std::move(dir);
        if (std::optional<Names> kept = listings && stamp ? listings->take(*stamp) : std::nullopt) {
            frame->pending = std::move(*kept);
            frame->listed = true;
        }
        if (stack.size() >= kMaxOpenFolders) {
            // Read this deep folder ahead and give its descriptor back.
            if (!frame->listed) {
                while (std::optional<Listing::Item> e = frame->dir->next())
                    frame->pending.add(e->name, e->type);
                frame->listed = true;
            }
            frame->dir.reset();
        }
        stack.push_back(std::move(frame));
    };
    const std::string base = withoutTrailingSlashes(root);
    std::unique_ptr<Listing> rootDir = openRoot(base);
    if (!rootDir) {
        fail(root);
        return false;
    }
    push(base == "/" ? "" : base, std::move(rootDir));

    while (!stack.empty()) {
        Frame& f = *stack.back();
        std::string name;
        unsigned char type = DT_UNKNOWN;
        if (!f.listed) {
            std::optional<Listing::Item> e = f.dir->next();
            if (!e) {
                // The rest of a folder that fails midway was not listed.
                if (errno != 0)
                    fail(f.path.empty() ? "/" : f.path);
                stack.pop_back();
                continue;
            }
            name = e->name;
            type = e->type;
        } else {
            if (!f.pending.next(f.next, name, type)) {
                stack.pop_back();
                continue;
            }
        }
        std::string full = f.path + "/" + name;
        // A folder is opened before it is visited: one replaced by a link or a file since it
        // was listed (a kept listing can be seconds old) is then visited as what it is now,
        // so a file put in its place is judged, not passed over as a folder.
        std::unique_ptr<Listing> child;
        int openError = 0;
        bool folder = isFolder(f.dir.get(), full, name.c_str(), type);
        if (folder) {
            errno = 0;
            child = openChild(f.dir.get(), full, name.c_str());
            if (!child) {
                openError = errno != 0 ? errno : EIO;
                folder = openError != ELOOP && openError != ENOTDIR;
                if (!folder)
                    type = DT_UNKNOWN;
            }
        }
        if (!visit(Entry{full, f.dir ? f.dir->fd() : -1, name.c_str(), type}))
            return true;
        if (child) {
            push(std::move(full), std::move(child));
        } else if (folder) {
            errno = openError;
            fail(full);
        }
    }
    return true;
}

void VkDirectoryWalker::WalkGate::open() {
    {
        std::lock_guard lock(mutex_);
        open_.store(true);
    }
    opened_.notify_all();
}

void VkDirectoryWalker::WalkGate::wait(std::chrono::steady_clock::duration most,
                                       const std::function<bool()>& stopped) {
    const auto until = std::chrono::steady_clock::now() + most;
    std::unique_lock lock(mutex_);
    // A stop is not signalled here: it is looked for a few times a second.
    while (!open_.load() && !stopped() && std::chrono::steady_clock::now() < until)
        opened_.wait_for(lock, std::chrono::milliseconds(20), [&] { return open_.load(); });
}

uint64_t VkDirectoryWalker::countEntries(const std::string& root, const std::vector<FolderId>& skip,
                                         const std::function<bool()>& stopped,
                                         const std::function<bool(const std::string&)>& counts,
                                         Listings* keep, unsigned threads, bool atOnce,
                                         WalkGate* gate) {
    // Each folder is read whole when it is entered and its subfolders are put on a stack that
    // `threads` counters share: the order does not matter to a count, and several folders in
    // reading at once keep more of a cold disk's reads in flight. Taken last first, the
    // folders are counted roughly in the order the walk behind goes, and a folder's listing
    // is complete before the walk may ask for it. A folder stays open while its subfolders
    // wait, to open them relative to it, as long as few are held open.
    struct Waiting {
        std::shared_ptr<Listing> parent;  // none: opened by its path
        std::string path;
        std::string name;
    };
    const bool identified = keep || !skip.empty();
    std::atomic<size_t> heldOpen{0};  // outlives the folders left waiting after a stop
    std::atomic<uint64_t> entries{0};
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Waiting> waiting;
    unsigned busy = 0;
    bool ended = false;
    // Ahead of a walk that waits, every thread counts from the start.
    const bool ahead = gate && keep && threads > 1;
    if (gate && !ahead)
        gate->open();
    std::atomic<bool> fromDisk{false};

    // Lists one folder: counts its entries, keeps its listing and queues its subfolders.
    auto enter = [&](std::string path, std::unique_ptr<Listing> dir, std::string& full) {
        if (!dir)
            return true;
        std::optional<VkFileStamp> stamp = identify(*dir, identified);
        if (isSkipped(stamp, skip))
            return true;
        std::vector<std::string> subfolders;
        Names names;
        size_t room = keep && stamp ? keep->room() : 0;
        if (ahead && stamp && room == 0)
            gate->open();  // the walk would list what follows itself
        uint64_t counted = 0;
        for (size_t n = 0; std::optional<Listing::Item> e = dir->next(); ++n) {
            if (n % 1024 == 1023 && stopped())
                return false;
            bool maybeFolder = e->type == DT_DIR || e->type == DT_UNKNOWN;
            if (counts || maybeFolder)
                full.assign(path).append("/").append(e->name);
            if (!counts || counts(full))
                ++counted;
            if (maybeFolder && isFolder(dir.get(), full, e->name, e->type))
                subfolders.emplace_back(e->name);
            if (room != 0) {
                names.add(e->name, e->type);
                if (names.bytes() > room) {
                    room = 0;  // too large to keep: the walk lists this one itself
                    names.clear();
                    if (ahead)
                        gate->open();
                }
            }
        }
        // A folder that could not be read to its end is not kept.
        if (room != 0 && errno == 0)
            keep->keep(*stamp, std::move(names));
        entries.fetch_add(counted);
        std::shared_ptr<Listing> parent;
        if (!subfolders.empty() && heldOpen.load() < kMaxOpenFolders) {
            heldOpen.fetch_add(1);
            parent = std::shared_ptr<Listing>(dir.release(), [&heldOpen](Listing* l) {
                delete l;
                heldOpen.fetch_sub(1);
            });
        }
        if (subfolders.empty())
            return true;
        std::lock_guard lock(mutex);
        for (auto it = subfolders.rbegin(); it != subfolders.rend(); ++it)
            waiting.push_back({parent, path + "/" + *it, std::move(*it)});
        // This thread takes one of them next; the others are for whoever waits.
        if (subfolders.size() > 1)
            changed.notify_all();
        return true;
    };
    // Helpers start once the listings have to be read from the disk: then several reads in
    // flight are what makes the count quick, while on cached folders more threads would only
    // take processor time from the walk. Ahead of a waiting walk they have the processors to
    // themselves, until the gate opens.
    const long blocksBefore = threads > 1 ? blocksRead() : 0;
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> helpers;
    size_t listed = 0;
    auto count = [&](auto& self, bool first) -> void {
        std::string full;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return ended || !waiting.empty() || busy == 0; });
            if (ended || waiting.empty())
                break;
            if (!first && ahead && gate->isOpen() && !fromDisk.load()) {
                changed.notify_all();  // what this one would have taken is for the others
                break;
            }
            Waiting next = std::move(waiting.back());
            waiting.pop_back();
            ++busy;
            lock.unlock();
            bool going = !stopped();
            if (going) {
                std::unique_ptr<Listing> dir =
                    openChild(next.parent.get(), next.path, next.name.c_str());
                next.parent.reset();
                going = enter(std::move(next.path), std::move(dir), full);
            }
            next.parent.reset();
            if (first && threads > 1 && !fromDisk.load() && ++listed % 4 == 0 &&
                blocksRead() > blocksBefore) {
                fromDisk.store(true);
                if (ahead)
                    gate->open();
            }
            // Ahead of the walk on cached folders, one thread per processor: more would only
            // wait on each other.
            const unsigned wanted = fromDisk.load() || atOnce ? threads
                                    : ahead                   ? std::min(threads, processors)
                                                              : 1;
            if (first && helpers.size() + 1 < wanted) {
                try {
                    while (helpers.size() + 1 < wanted)
                        helpers.emplace_back([&] { self(self, false); });
                } catch (const std::system_error&) {
                    // No more threads to be had: those running count the rest.
                }
            }
            lock.lock();
            --busy;
            ended = ended || !going;
            // The others wait on until there is work, or nothing more can come.
            if (ended || (busy == 0 && waiting.empty()))
                changed.notify_all();
        }
    };

    const std::string base = withoutTrailingSlashes(root);
    std::string full;
    if (!enter(base == "/" ? "" : base, openRoot(base), full))
        return entries.load();
    count(count, true);
    for (auto& helper : helpers)
        helper.join();
    return entries.load();
}
