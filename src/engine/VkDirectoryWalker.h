#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "engine/VkFileStamp.h"
#include "platform/VkHandle.h"

// Lists every entry below a folder, files and folders alike, hidden entries and package
// contents included, in pre-order (a folder before what it holds). Symbolic links are
// listed but never descended into; folders that cannot be opened are listed, skipped and
// handed to the caller's error callback. Memory stays small however wide or deep the tree: at most
// kMaxOpenFolders folders are held open, deeper ones are read ahead and closed.
class VkDirectoryWalker {
  public:
    static constexpr size_t kMaxOpenFolders = 48;

    // A folder by identity (device, inode).
    using FolderId = std::pair<dev_t, ino_t>;
    static FolderId idOf(const VkFileStamp& folder) {
        return {static_cast<dev_t>(folder.device), static_cast<ino_t>(folder.inode)};
    }
    // A folder's entries, name and d_type, packed one after the other.
    class Names {
      public:
        void add(const char* name, unsigned char type) {
            packed_.push_back(static_cast<char>(type));
            packed_.append(name);
            packed_.push_back('\0');
        }
        // The entry at `at`, which then moves past it; false after the last.
        bool next(size_t& at, std::string& name, unsigned char& type) const {
            if (at >= packed_.size())
                return false;
            type = static_cast<unsigned char>(packed_[at]);
            name.assign(packed_.c_str() + at + 1);
            at += name.size() + 2;
            return true;
        }
        size_t bytes() const { return packed_.size(); }
        void clear() { std::string().swap(packed_); }

      private:
        std::string packed_;
    };

    // What a count read of its folders, kept for a walk of the same tree that follows it, so
    // that each folder is listed once. A listing is handed only to the folder it was read from,
    // unchanged since (its stamp, taken before the count read it, equals the one the walk finds
    // on the folder it opened: a folder that gained, lost or renamed an entry, or another one
    // on a reused inode, is listed afresh), once, and only while fresh; what does not fit in
    // the room is not kept and the walk lists it itself.
    class Listings {
      public:
        static constexpr size_t kRoom = 8u << 20;
        static constexpr std::chrono::seconds kFresh{2};

        explicit Listings(size_t room = kRoom, std::chrono::steady_clock::duration fresh = kFresh)
            : room_(room), fresh_(fresh) {}
        size_t room() const;
        void keep(const VkFileStamp& folder, Names names);
        std::optional<Names> take(const VkFileStamp& folder);

      private:
        struct Kept {
            VkFileStamp stamp;
            Names names;
            size_t bytes;
            std::chrono::steady_clock::time_point when;
        };
        mutable std::mutex mutex_;
        const size_t room_;
        const std::chrono::steady_clock::duration fresh_;
        size_t used_ = 0;
        std::map<FolderId, Kept> kept_;
    };

    // Holds a walk back while the count of the same tree runs ahead of it on every processor.
    // On folders the system has cached, listing is all there is to a count, and a count that
    // shares the processors with the walk and its judges ends late; the walk loses nothing by
    // waiting, as it then takes the folders the count kept instead of listing them itself.
    // Opened for good when the count ends or stops, when it has to read from a disk (the
    // walk's reads then belong beside its own), or when it has no more room to keep listings.
    class WalkGate {
      public:
        void open();
        bool isOpen() const { return open_.load(); }
        // Returns once open, once stopped() says so, or after `most`.
        void wait(std::chrono::steady_clock::duration most, const std::function<bool()>& stopped);

      private:
        std::atomic<bool> open_{false};
        std::mutex mutex_;
        std::condition_variable opened_;
    };

    // Calls visit(fullPath) for each entry below root (root itself excluded); fullPath is
    // root + "/" + the relative path. Stops as soon as visit returns false. Returns false
    // when root itself could not be opened as a folder. Folders in `skip` (this program's
    // own data folder) are listed but never entered, and a root that is one is not walked.
    // failed(path, errno) hears of every folder that could not be opened or read, the root
    // included.
    static bool walk(const std::string& root, const std::function<bool(const std::string&)>& visit,
                     const std::vector<FolderId>& skip = {},
                     const std::function<void(const std::string&, int)>& failed = {});

    // One listed entry, valid during the visit only.
    struct Entry {
        const std::string& path;  // root + "/" + the relative path
        int folderFd;             // the open folder holding it; -1 once read ahead and closed
        const char* name;         // its name inside that folder
        unsigned char type;       // the listing's d_type (DT_UNKNOWN when it could not say)
    };
    // walk(), handing each entry with the open folder it was listed from, so that callers
    // can look at it relative to that folder without resolving the path again.
    // With `listings`, a folder the count kept is walked from its listing.
    static bool walkEntries(const std::string& root, const std::function<bool(const Entry&)>& visit,
                            const std::vector<FolderId>& skip = {},
                            const std::function<void(const std::string&, int)>& failed = {},
                            Listings* listings = nullptr);
    // How many entries walkEntries() would list below root, read from the listings alone (an
    // entry's attributes only when the listing cannot say whether it is a folder). When
    // `counts` is given, an entry counts only if it says so of its path; without it no path
    // is built, which is what makes the count cheap beside a walk that judges. Gives up,
    // returning what it counted so far, as soon as stopped() says so. Each folder read whole
    // is kept in `keep` while there is room. Up to `threads` threads list folders at once
    // (`counts` is then called from each of them): the calling one starts the others as soon
    // as it has had to read from a disk, or at once with `atOnce`. With a `gate` (and more
    // than one thread) they start at once, and the count opens it as WalkGate says; opened
    // without a disk read, the others stop there and the calling thread counts on alone,
    // leaving the processors to the walk.
    static uint64_t countEntries(const std::string& root, const std::vector<FolderId>& skip,
                                 const std::function<bool()>& stopped,
                                 const std::function<bool(const std::string&)>& counts = {},
                                 Listings* keep = nullptr, unsigned threads = 1,
                                 bool atOnce = false, WalkGate* gate = nullptr);
    // Opens a folder without following a link in its place, one component at a time when
    // the path is too long for the system to take whole (links met on the way refused).
    static VkFd openFolder(const std::string& path);
};
