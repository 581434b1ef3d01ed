#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/VkTorjanItem.h"

// Bounds on the work one archive may cost; past any of them the archive is reported as not
// fully examined (never as clean) and the scan goes on with the next file.
struct VkArchiveLimits {
    // Bytes decompressed for one archive, nested ones included (also what a compressed
    // stream costs to skip a member).
    uint64_t maxTotalBytes = 512ull << 20;
    // Entries of one archive, nested ones included.
    uint64_t maxMembers = 100000;
    // Decompressed bytes per byte of the file on disk, counted once past kRatioFloor.
    uint64_t maxRatio = 1000;
    static constexpr uint64_t kRatioFloor = 16ull << 20;
    // A xar's table of contents, decompressed (parsed whole before any member is read).
    uint64_t maxTableBytes = 16ull << 20;
    // Archives inside archives: the file on disk is depth 1.
    int maxDepth = 3;
};

// A member of an archive that matched a record. member names it inside the file, nested
// archives joined by '!' ("dir/inner.tar!x.bin").
struct VkArchiveFinding {
    std::string member;
    std::shared_ptr<VkTorjanItem> record;
};

// Something inside an archive (or the archive itself, member empty) that was not examined.
struct VkArchiveSkip {
    enum class Reason {
        encrypted,    // an encrypted member
        corrupt,      // truncated, a wrong checksum, or not readable as the archive it claims
        overLimit,    // a limit of VkArchiveLimits was reached: the rest went unexamined
        tooDeep,      // an archive nested deeper than maxDepth
        diskImage,    // a disk image: no reader for it here
        unsupported,  // a member whose data the reader cannot decode
    };
    std::string member;
    Reason reason = Reason::corrupt;
    std::string detail;  // the reader's own words, when it gave any

    // "encrypted member", "truncated or corrupt archive (...)", ...
    std::string reasonText() const;
};

struct VkArchiveReport {
    std::vector<VkArchiveFinding> findings;
    std::vector<VkArchiveSkip> notExamined;
    // Members seen, nested ones included: entries with data, and link targets judged as
    // contents (when some record has their length).
    uint64_t members = 0;
    uint64_t membersDecompressed = 0;  // of which the data was decompressed
    uint64_t bytesDecompressed = 0;    // member data produced by the decompressors
    // True when something inside went unexamined.
    bool incomplete() const { return !notExamined.empty(); }
};

// Judges the members of an archive by exact size and hash without writing anything to
// disk: only members of a size some record has are decompressed (the rest cost a header
// walk), archives inside are opened to a bounded depth, member names are text to report,
// never paths. Formats: zip, tar (plain, gzip, bzip2, xz, lzma, compress), cpio, xar (.pkg,
// with its Payload as gzip cpio or pbzx), 7z, and single gzip, bzip2 and xz streams.
class VkArchiveJudge {
  public:
    // The contents of a member as hash texts: of the whole (head 0) or of a buffer of the
    // first head bytes. nullopt when they could not be read.
    using Hasher = std::function<std::optional<std::string>(int32_t type, uint64_t head)>;
    // What the judge needs to know about the records.
    struct Records {
        // Does some record have this size?
        std::function<bool(uint64_t size)> hasSize;
        // The record that contents of this size match (by the same rules as a file on
        // disk), or nullptr.
        std::function<std::shared_ptr<VkTorjanItem>(uint64_t size, const Hasher& hasher)> match;
    };

    explicit VkArchiveJudge(Records records, VkArchiveLimits limits = {});

    // True for a name that archives and disk images carry (".zip", ".pkg", ".tar.gz", ...):
    // the cheap test that decides whether a file is opened as one at all.
    static bool looksLikeArchive(const std::string& name);
    // Judges the archive open at fd (a regular file, read with pread from offset 0; the
    // offset of fd is not used). name is its file name, for the disk image and stream
    // cases. stop, when given, is polled between members.
    VkArchiveReport judge(int fd, const std::string& name,
                          const std::atomic<bool>* stop = nullptr) const;

    const VkArchiveLimits& limits() const { return limits_; }

  private:
    Records records_;
    VkArchiveLimits limits_;
};
