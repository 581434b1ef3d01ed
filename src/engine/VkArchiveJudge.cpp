#include "engine/VkArchiveJudge.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "engine/VkPbzx.h"
#include "platform/VkHandle.h"
#include "platform/VkHashValue.h"
#include <archive.h>
#include <archive_entry.h>
#include <zlib.h>

namespace {

// Contents longer than this are known by the hash of a buffer of exactly this many first
// bytes before their whole hash is compared, as files on disk are.
constexpr uint64_t kHeadLength = 1048576;
constexpr size_t kBlock = 64 * 1024;
// Hash types a record can name (VkHashValue's); every one is computed in one pass over a
// large member, since its data can be read only once.
constexpr int32_t kHashTypes = 3;
// Non-examinations reported one by one per archive; the rest are counted in one entry.
constexpr size_t kMaxReports = 32;
// A 7z can only be read with seeking: one inside another archive is held in memory up to
// this size (once per nesting level), larger ones are reported unexamined.
constexpr uint64_t kMaxHeldNested = 16u << 20;
constexpr uint8_t k7zMagic[4] = {'7', 'z', 0xBC, 0xAF};

const char* const kArchiveSuffixes[] = {".zip",  ".jar", ".pkg", ".mpkg",       ".xar",  ".xip",
                                        ".tar",  ".tgz", ".tbz", ".tbz2",       ".txz",  ".tlz",
                                        ".taz",  ".gz",  ".bz2", ".xz",         ".lzma", ".z",
                                        ".cpio", ".7z",  ".dmg", ".sparseimage"};
const char* const kDiskImageSuffixes[] = {".dmg", ".sparseimage"};
// Suffixes a single compressed stream drops to name what it holds ("a.txt.gz" holds "a.txt").
const char* const kStreamSuffixes[] = {".gz", ".bz2", ".xz", ".lzma", ".z"};
// The members of an installer package that are archives themselves without saying so.
const char* const kPackageStreams[] = {"Payload", "Scripts"};

using ArchiveHandle = VkHandle<archive, archive_read_free>;

// The last component of a path, trailing slashes left out.
std::string_view baseNameView(std::string_view path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string_view::npos)
        return path;
    size_t slash = path.rfind('/', end);
    size_t start = slash == std::string_view::npos ? 0 : slash + 1;
    return path.substr(start, end - start + 1);
}

std::string baseName(const std::string& path) {
    return std::string(baseNameView(path));
}

// Asked of every file a scan lists whose size no record has: no copy of the name is made.
template <size_t N>
const char* suffixOf(const std::string& name, const char* const (&suffixes)[N]) {
    std::string_view base = baseNameView(name);
    for (const char* suffix : suffixes) {
        size_t n = std::strlen(suffix);
        if (base.size() <= n)
            continue;
        std::string_view tail = base.substr(base.size() - n);
        bool same = true;
        for (size_t i = 0; i < n && same; ++i) {
            char c = tail[i];
            same = static_cast<char>((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c) == suffix[i];
        }
        if (same)
            return suffix;
    }
    return nullptr;
}

bool isDiskImage(const std::string& name) {
    return suffixOf(name, kDiskImageSuffixes) != nullptr;
}

bool isPackageStream(const std::string& name) {
    std::string base = baseName(name);
    return std::any_of(std::begin(kPackageStreams), std::end(kPackageStreams),
                       [&](const char* s) { return base == s; });
}

// The name a single compressed stream gives what it holds.
std::string streamName(const std::string& name) {
    std::string base = baseName(name);
    if (const char* suffix = suffixOf(base, kStreamSuffixes))
        base.resize(base.size() - std::strlen(suffix));
    return base.empty() ? "data" : base;
}

// A reader with only the decompressors built into the library: the catch-all set would
// run external programs on the data. streamOnly leaves the archive formats out: its one
// entry is the data decompressed, or as it is when it is no compressed stream.
ArchiveHandle newReader(bool streamOnly = false) {
    ArchiveHandle a(archive_read_new());
    if (!a)
        return a;
    int (*const filters[])(archive*) = {
        archive_read_support_filter_gzip,     archive_read_support_filter_bzip2,
        archive_read_support_filter_xz,       archive_read_support_filter_lzma,
        archive_read_support_filter_compress, archive_read_support_format_raw};
    int (*const formats[])(archive*) = {
        archive_read_support_format_zip, archive_read_support_format_tar,
        archive_read_support_format_cpio, archive_read_support_format_xar,
        archive_read_support_format_7zip};
    for (auto setup : filters) {
        if (setup(a.get()) != ARCHIVE_OK)
            return ArchiveHandle();
    }
    for (auto setup : formats) {
        if (!streamOnly && setup(a.get()) != ARCHIVE_OK)
            return ArchiveHandle();
    }
    return a;
}

std::string errorOf(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "";
}

// A xar (an installer package) starts with a table of its contents: zlib-compressed XML that
// the reader parses whole before it hands out the first member, with no call back to us on
// the way. A small file can hold a table that takes minutes to parse (a kilobyte of
// compressed text stands for a megabyte of elements), so the table is inflated here, as its
// bytes pass to the reader, and the archive is given up once it exceeds the limit.
class XarTableGuard {
  public:
    static constexpr size_t kHeaderSize = 28;
    static constexpr uint32_t kMagic = 0x78617221;  // "xar!"

    // tooLarge is told once, when the table passes the limit.
    XarTableGuard(uint64_t limit, std::function<void(const std::string&)> tooLarge)
        : limit_(limit), tooLarge_(std::move(tooLarge)) {}
    ~XarTableGuard() {
        if (inflating_)
            inflateEnd(&z_);
    }
    XarTableGuard(const XarTableGuard&) = delete;
    XarTableGuard& operator=(const XarTableGuard&) = delete;

    // Looks at the n bytes at offset `at` of the data before the reader gets them; false
    // once the table has grown past the limit. Bytes are taken in order, each once, so a
    // read elsewhere (a seek, a second look) changes nothing.
    bool pass(const uint8_t* p, size_t n, uint64_t at) {
        if (state_ == State::header && at <= next_ && at + n > next_) {
            size_t take = std::min<uint64_t>(at + n - next_, kHeaderSize - next_);
            std::memcpy(header_ + next_, p + (next_ - at), take);
            next_ += take;
            if (next_ == kHeaderSize)
                startTable();
        }
        if (state_ != State::table || at > next_ || at + n <= next_)
            return true;
        const uint64_t end = std::min(at + n, tableEnd_);
        z_.next_in = const_cast<Bytef*>(p + (next_ - at));
        z_.avail_in = static_cast<uInt>(end - next_);
        next_ = end;
        while (z_.avail_in > 0) {
            z_.next_out = out_.data();
            z_.avail_out = static_cast<uInt>(out_.size());
            int r = inflate(&z_, Z_NO_FLUSH);
            inflated_ += out_.size() - z_.avail_out;
            if (inflated_ > limit_) {
                state_ = State::tooLarge;
                tooLarge_("a table of contents of more than " + std::to_string(limit_ >> 20) +
                          " MiB");
                return false;
            }
            // The end of the table, or bytes that are no zlib stream: the reader judges them.
            if (r != Z_OK) {
                state_ = State::done;
                return true;
            }
        }
        if (next_ >= tableEnd_)
            state_ = State::done;
        return true;
    }
    bool tooLarge() const { return state_ == State::tooLarge; }

  private:
    enum class State { header, table, done, tooLarge };

    void startTable() {
        state_ = State::done;
        auto be = [&](size_t at, size_t bytes) {
            uint64_t v = 0;
            for (size_t i = 0; i < bytes; ++i)
                v = (v << 8) | header_[at + i];
            return v;
        };
        if (be(0, 4) != kMagic || be(4, 2) != kHeaderSize)
            return;
        const uint64_t compressed = be(8, 8);
        tableEnd_ = compressed > UINT64_MAX - kHeaderSize ? UINT64_MAX : kHeaderSize + compressed;
        if (inflateInit(&z_) != Z_OK)
            return;
        inflating_ = true;
        out_.resize(kBlock);
        state_ = State::table;
    }

    const uint64_t limit_;
    const std::function<void(const std::string&)> tooLarge_;
    State state_ = State::header;
    uint8_t header_[kHeaderSize] = {};
    uint64_t next_ = 0;  // the offset of the next byte to look at
    uint64_t tableEnd_ = 0;
    z_stream z_{};
    bool inflating_ = false;
    uint64_t inflated_ = 0;
    std::vector<uint8_t> out_;
};

// The file on disk, read with pread so the descriptor's offset is never relied on, or a
// member held in memory; seekable, so a zip is read through its central directory and a
// 7z can be read at all.
struct FileClient {
    int fd;
    int64_t size;
    const uint8_t* memory = nullptr;
    int64_t offset = 0;
    std::vector<uint8_t> block = std::vector<uint8_t>(kBlock);
    XarTableGuard* guard = nullptr;

    static la_ssize_t read(archive*, void* client, const void** buffer) {
        auto* c = static_cast<FileClient*>(client);
        if (c->memory) {
            int64_t n = std::clamp<int64_t>(c->size - c->offset, 0, kBlock);
            *buffer = c->memory + std::min(c->offset, c->size);
            c->offset += n;
            return n;
        }
        *buffer = c->block.data();
        for (;;) {
            ssize_t r = ::pread(c->fd, c->block.data(), c->block.size(), c->offset);
            if (r < 0 && errno == EINTR)
                continue;
            if (r < 0)
                return ARCHIVE_FATAL;
            if (c->guard && !c->guard->pass(c->block.data(), static_cast<size_t>(r), c->offset))
                return ARCHIVE_FATAL;
            c->offset += r;
            return r;
        }
    }
    static la_int64_t skip(archive*, void* client, la_int64_t request) {
        auto* c = static_cast<FileClient*>(client);
        la_int64_t n =
            std::clamp<la_int64_t>(request, 0, std::max<int64_t>(c->size - c->offset, 0));
        c->offset += n;
        return n;
    }
    static la_int64_t seek(archive*, void* client, la_int64_t offset, int whence) {
        auto* c = static_cast<FileClient*>(client);
        la_int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? c->offset : c->size;
        if (offset > INT64_MAX - base || base + offset < 0)
            return ARCHIVE_FATAL;
        c->offset = base + offset;
        return c->offset;
    }
};

class Walk;

// One member's data, read once through its archive: counted against the limits, and, for a
// member that may match a record, kept as its head and its whole hashes.
class MemberData {
  public:
    enum class State { ok, corrupt, overLimit };

    // charged: the bytes count against the limits (not when they are only passed through).
    // headOnly: only the head is kept, for data that can be read again if its whole hash is
    // wanted (hashing all of a large stream costs more than decompressing it).
    MemberData(archive* a, Walk& walk, std::optional<uint64_t> declared, bool keep,
               bool charged = true, bool headOnly = false)
        : a_(a),
          walk_(walk),
          declared_(declared),
          keep_(keep),
          charged_(charged),
          headOnly_(headOnly) {}

    // Up to n bytes: the count, 0 at the end, negative once anything failed.
    ssize_t read(void* bytes, size_t n);
    // Reads until the head buffer is full or the data ends; false on failure.
    bool readHead();
    // Reads to the end; false on failure.
    bool drain();
    State state() const { return state_; }
    const std::string& error() const { return error_; }
    uint64_t total() const { return total_; }
    // A whole hash was asked for that headOnly did not keep.
    bool wholeMissing() const { return wholeMissing_; }

    // The hasher of a member's contents, by the rules files on disk are hashed with.
    std::optional<std::string> hash(int32_t type, uint64_t head);

  private:
    void keepBytes(const uint8_t* p, size_t n);

    archive* a_;
    Walk& walk_;
    std::optional<uint64_t> declared_;
    bool keep_;
    bool charged_;
    bool headOnly_;
    bool wholeMissing_ = false;
    bool atEnd_ = false;
    State state_ = State::ok;
    std::string error_;
    uint64_t total_ = 0;
    std::vector<uint8_t> head_;
    std::array<std::unique_ptr<VkHashStream>, kHashTypes> streams_;
    std::array<std::optional<std::string>, kHashTypes> whole_;
    bool finished_ = false;
};

class Walk {
  public:
    Walk(const VkArchiveJudge::Records& records, const VkArchiveLimits& limits, uint64_t fileSize,
         const std::atomic<bool>* stop, VkArchiveReport& report)
        : records_(records), limits_(limits), fileSize_(fileSize), stop_(stop), report_(report) {}

    // Walks the archive open in a. self names it inside the file ("" for the file itself),
    // stream is the name a single compressed stream's contents go by. False when the whole
    // walk has to end (a limit was reached, or the scan is stopping).
    // inStream: a decompressed stream's contents, judged as a whole by the caller, so they
    // need not be an archive.
    bool walkArchive(archive* a, const std::string& self, int depth, const std::string& stream,
                     bool inStream = false);
    // Walks the one entry of a streamOnly reader: a compressed stream is judged as a whole
    // (named stream inside self) and as the archive it may hold; data that is no compressed
    // stream is passed through unchanged and must be an archive.
    // reopen, when given, opens the same stream again from its start.
    bool walkStream(archive* raw, const std::string& self, int depth, const std::string& stream,
                    const std::function<ArchiveHandle()>& reopen = {});
    // Counts n decompressed bytes; false (reported once) past a limit, or once the scan stops.
    bool charge(uint64_t n, bool produced);
    void skip(VkArchiveSkip::Reason reason, const std::string& member, std::string detail = {});
    // Ends the walk: the rest of the archive goes unexamined, for the reason given.
    void overLimit(const std::string& what);
    uint64_t tableLimit() const { return limits_.maxTableBytes; }
    void finish();

  private:
    bool judgeMember(archive* a, archive_entry* entry, const std::string& name, int depth,
                     bool warned);
    void walkNested(MemberData& data, const std::string& name, int depth);
    // Judges contents held whole (a link's target text) under name.
    void judgeBytes(const std::string& bytes, const std::string& name);

    const VkArchiveJudge::Records& records_;
    const VkArchiveLimits& limits_;
    const uint64_t fileSize_;
    const std::atomic<bool>* stop_;
    VkArchiveReport& report_;
    uint64_t spent_ = 0;  // produced by us plus what skipping inside a compressed stream cost
    uint64_t entries_ = 0;
    size_t unreported_ = 0;
    bool ended_ = false;
};

void MemberData::keepBytes(const uint8_t* p, size_t n) {
    size_t toHead =
        std::min<size_t>(n, kHeadLength - std::min<uint64_t>(head_.size(), kHeadLength));
    head_.insert(head_.end(), p, p + toHead);
    if (total_ <= kHeadLength || headOnly_)
        return;
    if (!streams_[0]) {
        // Past the head: from here on the whole hashes are streamed, starting with the head.
        for (int32_t t = 0; t < kHashTypes; ++t) {
            streams_[t] = std::make_unique<VkHashStream>(t);
            streams_[t]->update(head_.data(), head_.size());
        }
    }
    if (toHead < n) {
        for (auto& s : streams_)
            s->update(p + toHead, n - toHead);
    }
}

ssize_t MemberData::read(void* bytes, size_t n) {
    if (state_ != State::ok)
        return -1;
    if (atEnd_)
        return 0;
    la_ssize_t r = archive_read_data(a_, bytes, n);
    if (r < 0) {
        state_ = State::corrupt;
        error_ = errorOf(a_);
        return -1;
    }
    if (r == 0) {
        atEnd_ = true;
        if (declared_ && total_ != *declared_) {
            state_ = State::corrupt;
            error_ = "shorter than its header says";
            return -1;
        }
        return 0;
    }
    if (!walk_.charge(charged_ ? static_cast<uint64_t>(r) : 0, true)) {
        state_ = State::overLimit;
        return -1;
    }
    total_ += static_cast<uint64_t>(r);
    if (declared_ && total_ > *declared_) {
        state_ = State::corrupt;
        error_ = "longer than its header says";
        return -1;
    }
    if (keep_)
        keepBytes(static_cast<const uint8_t*>(bytes), static_cast<size_t>(r));
    return r;
}

bool MemberData::readHead() {
    std::vector<uint8_t> block(kBlock);
    while (head_.size() < kHeadLength) {
        ssize_t r = read(block.data(), block.size());
        if (r < 0)
            return false;
        if (r == 0)
            break;
    }
    return true;
}

bool MemberData::drain() {
    std::vector<uint8_t> block(kBlock);
    for (;;) {
        ssize_t r = read(block.data(), block.size());
        if (r < 0)
            return false;
        if (r == 0)
            return true;
    }
}

std::optional<std::string> MemberData::hash(int32_t type, uint64_t head) {
    if (type < 0 || type >= kHashTypes)
        return std::nullopt;
    if (head != 0) {
        if (head_.empty())
            return std::nullopt;
        // Always a buffer of exactly the head length, zero past the data, as on disk.
        std::vector<uint8_t> buffer(head_);
        buffer.resize(kHeadLength, 0);
        return VkHashValue::hashWithData(buffer.data(), static_cast<uint32_t>(kHeadLength), type);
    }
    if (!drain())
        return std::nullopt;
    if (total_ <= kHeadLength)
        return VkHashValue::hashWithData(head_.data(), static_cast<uint32_t>(head_.size()), type);
    wholeMissing_ = headOnly_;
    if (!finished_) {
        for (int32_t t = 0; t < kHashTypes; ++t)
            whole_[t] = streams_[t] ? streams_[t]->finish() : std::nullopt;
        finished_ = true;
    }
    return whole_[type];
}

// Feeds a nested archive reader from a member's data, through the pbzx unwrapper when the
// data starts with its magic.
struct NestedClient {
    MemberData& data;
    Walk& walk;
    std::vector<uint8_t> prefix;
    size_t prefixPos = 0;
    std::unique_ptr<VkPbzx> pbzx;
    std::vector<uint8_t> block = std::vector<uint8_t>(kBlock);
    XarTableGuard guard{walk.tableLimit(),
                        [this](const std::string& what) { walk.overLimit(what); }};
    uint64_t given = 0;  // bytes handed to the reader so far

    ssize_t raw(void* bytes, size_t n) {
        if (prefixPos < prefix.size()) {
            size_t take = std::min(n, prefix.size() - prefixPos);
            std::memcpy(bytes, prefix.data() + prefixPos, take);
            prefixPos += take;
            return static_cast<ssize_t>(take);
        }
        return data.read(bytes, n);
    }
    static la_ssize_t read(archive*, void* client, const void** buffer) {
        auto* c = static_cast<NestedClient*>(client);
        *buffer = c->block.data();
        ssize_t r = c->pbzx ? c->pbzx->read(c->block.data(), c->block.size())
                            : c->raw(c->block.data(), c->block.size());
        if (r > 0 && c->pbzx && !c->walk.charge(static_cast<uint64_t>(r), false))
            return ARCHIVE_FATAL;
        if (r > 0 && !c->guard.pass(c->block.data(), static_cast<size_t>(r), c->given))
            return ARCHIVE_FATAL;
        c->given += r > 0 ? static_cast<uint64_t>(r) : 0;
        return r < 0 ? ARCHIVE_FATAL : r;
    }
};

bool Walk::charge(uint64_t n, bool produced) {
    if (produced)
        report_.bytesDecompressed += n;
    spent_ += n;
    if (ended_)
        return false;
    // Asked at every block read, so that a stop is heeded inside a long member too.
    if (stop_ && stop_->load()) {
        ended_ = true;
        return false;
    }
    if (spent_ > limits_.maxTotalBytes) {
        overLimit("more than " + std::to_string(limits_.maxTotalBytes >> 20) + " MiB decompressed");
    } else if (spent_ > VkArchiveLimits::kRatioFloor &&
               spent_ / std::max<uint64_t>(fileSize_, 1) >= limits_.maxRatio) {
        overLimit("expands more than " + std::to_string(limits_.maxRatio) + " times");
    }
    return !ended_;
}

void Walk::overLimit(const std::string& what) {
    skip(VkArchiveSkip::Reason::overLimit, "", what);
    ended_ = true;
}

void Walk::skip(VkArchiveSkip::Reason reason, const std::string& member, std::string detail) {
    if (report_.notExamined.size() >= kMaxReports) {
        ++unreported_;
        return;
    }
    report_.notExamined.push_back({member, reason, std::move(detail)});
}

void Walk::finish() {
    if (unreported_ > 0)
        report_.notExamined.push_back({"", VkArchiveSkip::Reason::corrupt,
                                       std::to_string(unreported_) + " more not examined"});
}

void Walk::walkNested(MemberData& data, const std::string& name, int depth) {
    NestedClient client{data, *this, {}, 0, nullptr};
    client.prefix.resize(4);
    size_t got = 0;
    while (got < client.prefix.size()) {
        ssize_t r = data.read(client.prefix.data() + got, client.prefix.size() - got);
        if (r <= 0)
            break;
        got += static_cast<size_t>(r);
    }
    client.prefix.resize(got);
    if (data.state() != MemberData::State::ok)
        return;
    if (VkPbzx::hasMagic(client.prefix.data(), client.prefix.size())) {
        client.pbzx = std::make_unique<VkPbzx>(
            [&client](void* bytes, size_t n) { return client.raw(bytes, n); });
    }
    // A 7z is read from memory with seeking; anything else goes through a stream reader
    // first, which decompresses it when it is a compressed stream.
    bool is7z = got == sizeof k7zMagic && std::memcmp(client.prefix.data(), k7zMagic, got) == 0;
    ArchiveHandle reader = newReader(!is7z);
    if (!reader) {
        skip(VkArchiveSkip::Reason::unsupported, name, "no archive reader");
        return;
    }
    std::vector<uint8_t> held;
    FileClient heldClient{-1, 0};
    if (is7z) {
        held = client.prefix;
        std::vector<uint8_t> block(kBlock);
        for (ssize_t r; (r = data.read(block.data(), block.size())) > 0;) {
            if (held.size() + static_cast<size_t>(r) > kMaxHeldNested) {
                skip(VkArchiveSkip::Reason::unsupported, name,
                     "a 7z inside an archive larger than " + std::to_string(kMaxHeldNested >> 20) +
                         " MiB");
                return;
            }
            held.insert(held.end(), block.begin(), block.begin() + r);
        }
        if (data.state() != MemberData::State::ok)
            return;
        heldClient.memory = held.data();
        heldClient.size = static_cast<int64_t>(held.size());
        archive_read_set_read_callback(reader.get(), &FileClient::read);
        archive_read_set_skip_callback(reader.get(), &FileClient::skip);
        archive_read_set_seek_callback(reader.get(), &FileClient::seek);
        archive_read_set_callback_data(reader.get(), &heldClient);
    } else {
        archive_read_set_read_callback(reader.get(), &NestedClient::read);
        archive_read_set_callback_data(reader.get(), &client);
    }
    if (archive_read_open1(reader.get()) != ARCHIVE_OK) {
        if (!ended_)
            skip(VkArchiveSkip::Reason::corrupt, name, errorOf(reader.get()));
        return;
    }
    if (is7z)
        walkArchive(reader.get(), name, depth, streamName(name));
    else
        walkStream(reader.get(), name, depth, streamName(name));
}

bool Walk::walkStream(archive* raw, const std::string& self, int depth, const std::string& stream,
                      const std::function<ArchiveHandle()>& reopen) {
    archive_entry* entry = nullptr;
    int r = archive_read_next_header(raw, &entry);
    bool compressed = archive_filter_count(raw) > 1;
    if (r == ARCHIVE_EOF && compressed)
        return true;  // a stream of nothing
    if (r != ARCHIVE_OK && r != ARCHIVE_WARN) {
        if (!ended_)
            skip(VkArchiveSkip::Reason::corrupt, self, r == ARCHIVE_EOF ? "empty" : errorOf(raw));
        return !ended_;
    }
    const std::string name = (self.empty() ? "" : self + "!") + stream;
    if (compressed) {
        ++report_.members;
        ++report_.membersDecompressed;
    }
    // Decompressed once: the same bytes are hashed as a whole and read as an archive.
    MemberData data(raw, *this, std::nullopt, compressed, compressed, bool(reopen));
    NestedClient client{data, *this, {}, 0, nullptr};
    ArchiveHandle reader = newReader();
    if (!reader) {
        skip(VkArchiveSkip::Reason::unsupported, self, "no archive reader");
        return true;
    }
    archive_read_set_read_callback(reader.get(), &NestedClient::read);
    archive_read_set_callback_data(reader.get(), &client);
    if (archive_read_open1(reader.get()) == ARCHIVE_OK) {
        walkArchive(reader.get(), self, depth, stream, compressed);
    } else if (!ended_ && !compressed) {
        skip(VkArchiveSkip::Reason::corrupt, self, errorOf(reader.get()));
    }
    if (ended_ || data.state() == MemberData::State::overLimit)
        return false;
    if (!compressed)
        return true;
    // The file a decompressor would write ("x.jar" of "x.jar.gz") is judged as any file.
    // Read to its end: nullopt to go on, else what the walk answers.
    auto readWhole = [&](MemberData& read) -> std::optional<bool> {
        read.drain();
        if (read.state() == MemberData::State::overLimit || ended_)
            return false;
        if (read.state() == MemberData::State::corrupt) {
            skip(VkArchiveSkip::Reason::corrupt, name, read.error());
            return true;
        }
        return std::nullopt;
    };
    auto matchOf = [&](MemberData& read) {
        return records_.match(
            read.total(), [&read](int32_t type, uint64_t head) { return read.hash(type, head); });
    };
    if (std::optional<bool> ended = readWhole(data))
        return *ended;
    if (data.total() == 0 || !records_.hasSize(data.total()))
        return true;
    auto record = matchOf(data);
    if (!record && data.wholeMissing()) {
        // Its size and head hash match a record: read it again, hashing it whole.
        ArchiveHandle again = reopen();
        archive_entry* second = nullptr;
        if (!again || archive_read_next_header(again.get(), &second) != ARCHIVE_OK) {
            skip(VkArchiveSkip::Reason::corrupt, name, again ? errorOf(again.get()) : "");
            return true;
        }
        MemberData whole(again.get(), *this, data.total(), true);
        if (std::optional<bool> ended = readWhole(whole))
            return *ended;
        record = matchOf(whole);
    }
    if (record)
        report_.findings.push_back({name, record});
    return true;
}

void Walk::judgeBytes(const std::string& bytes, const std::string& name) {
    if (bytes.empty() || !records_.hasSize(bytes.size()))
        return;
    // Judged as the contents of a member of its own: counted as one, and as one read.
    ++report_.members;
    ++report_.membersDecompressed;
    auto record = records_.match(bytes.size(), [&bytes](int32_t type, uint64_t head) {
        if (type < 0 || type >= kHashTypes)
            return std::optional<std::string>();
        std::string buffer = bytes;
        if (head != 0)
            buffer.resize(kHeadLength, '\0');
        return VkHashValue::hashWithData(buffer.data(), static_cast<uint32_t>(buffer.size()), type);
    });
    if (record)
        report_.findings.push_back({name, record});
}

bool Walk::judgeMember(archive* a, archive_entry* entry, const std::string& name, int depth,
                       bool warned) {
    ++report_.members;
    if (archive_entry_is_encrypted(entry)) {
        skip(VkArchiveSkip::Reason::encrypted, name);
        return true;
    }
    // A header read with a warning (a zip whose local header and central directory disagree
    // on the size) gives no size to trust: the member is read whole and judged by its length.
    bool sizeKnown = !warned && archive_entry_size_is_set(entry) && archive_entry_size(entry) >= 0;
    uint64_t size = sizeKnown ? static_cast<uint64_t>(archive_entry_size(entry)) : 0;
    bool candidate = sizeKnown && size > 0 && records_.hasSize(size);
    bool nested =
        !isDiskImage(name) && (VkArchiveJudge::looksLikeArchive(name) ||
                               (archive_format(a) == ARCHIVE_FORMAT_XAR && isPackageStream(name)));
    if (isDiskImage(name))
        skip(VkArchiveSkip::Reason::diskImage, name);
    if (nested && depth >= limits_.maxDepth) {
        skip(VkArchiveSkip::Reason::tooDeep, name,
             "nested deeper than " + std::to_string(limits_.maxDepth));
        nested = false;
    }
    if (!candidate && !nested && sizeKnown) {
        // Skipping inside a compressed stream (or a 7z block) still decompresses: it counts,
        // and is done by reading here, where the limits and a stop are heeded block by block.
        bool costly = archive_filter_count(a) > 1 || archive_format(a) == ARCHIVE_FORMAT_7ZIP;
        if (costly) {
            if (size > limits_.maxTotalBytes - std::min(spent_, limits_.maxTotalBytes))
                return charge(size, false);  // over the limit already by what it says
            MemberData data(a, *this, size, false);
            if (data.drain())
                return true;
            if (data.state() == MemberData::State::corrupt && !ended_)
                skip(VkArchiveSkip::Reason::corrupt, name, data.error());
            return !ended_ && data.state() != MemberData::State::overLimit;
        }
        if (archive_read_data_skip(a) != ARCHIVE_OK) {
            if (!ended_)
                skip(VkArchiveSkip::Reason::corrupt, name, errorOf(a));
            return false;
        }
        return true;
    }
    ++report_.membersDecompressed;
    MemberData data(a, *this, sizeKnown ? std::optional(size) : std::nullopt,
                    candidate || !sizeKnown);
    if (nested) {
        walkNested(data, name, depth + 1);
        if (ended_)
            return false;
    }
    if (candidate || !sizeKnown) {
        if (!sizeKnown || size <= kHeadLength || nested)
            data.drain();
        else
            data.readHead();
        uint64_t contentSize = sizeKnown ? size : data.total();
        std::shared_ptr<VkTorjanItem> record;
        if (data.state() == MemberData::State::ok && contentSize > 0 &&
            (candidate || records_.hasSize(contentSize))) {
            record = records_.match(contentSize, [&data](int32_t type, uint64_t head) {
                return data.hash(type, head);
            });
        }
        if (data.state() == MemberData::State::ok && record)
            report_.findings.push_back({name, record});
    }
    if (data.state() == MemberData::State::overLimit || ended_)
        return false;
    if (data.state() == MemberData::State::corrupt) {
        // The reader gives no data for some types that declare some (a zip "directory").
        if (archive_entry_filetype(entry) != AE_IFREG)
            skip(VkArchiveSkip::Reason::unsupported, name, "data of an entry not typed a file");
        else
            skip(VkArchiveSkip::Reason::corrupt, name, data.error());
    }
    return true;
}

bool Walk::walkArchive(archive* a, const std::string& self, int depth, const std::string& stream,
                       bool inStream) {
    const std::string prefix = self.empty() ? "" : self + "!";
    bool damaged = false;
    for (;;) {
        if (stop_ && stop_->load()) {
            ended_ = true;
            return false;
        }
        archive_entry* entry = nullptr;
        int r = archive_read_next_header(a, &entry);
        if (r == ARCHIVE_EOF)
            return true;
        if (r == ARCHIVE_RETRY) {
            // A damaged header (a wrong checksum): the reader moves on to the next one, but
            // what the damaged one held is not examined.
            if (!damaged)
                skip(VkArchiveSkip::Reason::corrupt, self, errorOf(a));
            damaged = true;
            continue;
        }
        if (r < ARCHIVE_WARN) {
            if (!ended_)
                skip(VkArchiveSkip::Reason::corrupt, self, errorOf(a));
            return !ended_;
        }
        if (archive_format(a) == ARCHIVE_FORMAT_RAW && archive_filter_count(a) <= 1) {
            // The reader's last resort took the bytes as they are: no archive at all.
            if (!inStream)
                skip(VkArchiveSkip::Reason::corrupt, self, "not a readable archive");
            return true;
        }
        if (++entries_ > limits_.maxMembers) {
            overLimit("more than " + std::to_string(limits_.maxMembers) + " members");
            return false;
        }
        // A hard link carries data when its format lets it (a pax link with a body, the last
        // name of a newc file): only one known to be empty names data read elsewhere.
        bool empty = archive_entry_size_is_set(entry) && archive_entry_size(entry) == 0;
        if (archive_entry_hardlink(entry) && empty)
            continue;
        // Extractors disagree on what a type means (a zip "directory" or "link" with data, a
        // tar type 'M' or 'D' are written as files by some): whatever it says, an entry with
        // data is judged, a link's target text too.
        const char* target = archive_entry_symlink(entry);
        if (archive_entry_filetype(entry) != AE_IFREG && empty && !target)
            continue;
        std::string name;
        if (archive_format(a) == ARCHIVE_FORMAT_RAW) {
            name = stream;
        } else if (const char* path = archive_entry_pathname(entry)) {
            name = path;
        } else if (const char* utf8 = archive_entry_pathname_utf8(entry)) {
            name = utf8;
        } else {
            name = "(unnamed)";
        }
        if (target)
            judgeBytes(target, prefix + name);
        if (archive_entry_filetype(entry) != AE_IFREG && empty)
            continue;
        if (!judgeMember(a, entry, prefix + name, depth, r == ARCHIVE_WARN))
            return false;
    }
}

}  // namespace

std::string VkArchiveSkip::reasonText() const {
    std::string text;
    switch (reason) {
        case Reason::encrypted:
            text = "encrypted member";
            break;
        case Reason::corrupt:
            text = "truncated or corrupt archive";
            break;
        case Reason::overLimit:
            text = "archive over a limit, not fully examined";
            break;
        case Reason::tooDeep:
            text = "archive nested too deep";
            break;
        case Reason::diskImage:
            text = "disk image";
            break;
        case Reason::unsupported:
            text = "unsupported archive";
            break;
    }
    return detail.empty() ? "not examined: " + text : "not examined: " + text + " (" + detail + ")";
}

VkArchiveJudge::VkArchiveJudge(Records records, VkArchiveLimits limits)
    : records_(std::move(records)), limits_(limits) {}

bool VkArchiveJudge::looksLikeArchive(const std::string& name) {
    return suffixOf(name, kArchiveSuffixes) != nullptr;
}

VkArchiveReport VkArchiveJudge::judge(int fd, const std::string& name,
                                      const std::atomic<bool>* stop) const {
    VkArchiveReport report;
    struct stat st {};
    bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    Walk fileWalk(records_, limits_, regular ? static_cast<uint64_t>(st.st_size) : 0, stop, report);
    if (!regular) {
        fileWalk.skip(VkArchiveSkip::Reason::corrupt, "", "not a readable regular file");
        return report;
    }
    if (isDiskImage(name)) {
        fileWalk.skip(VkArchiveSkip::Reason::diskImage, "");
        return report;
    }
    ArchiveHandle reader = newReader();
    if (!reader) {
        fileWalk.skip(VkArchiveSkip::Reason::unsupported, "", "no archive reader");
        return report;
    }
    // A compressed stream is decompressed once, judged as a whole (the file a decompressor
    // would write) and walked as the archive it may hold.
    FileClient streamClient{fd, static_cast<int64_t>(st.st_size)};
    FileClient againClient{fd, static_cast<int64_t>(st.st_size)};
    auto openStream = [](FileClient& c) {
        ArchiveHandle a = newReader(true);
        if (!a)
            return a;
        archive_read_set_read_callback(a.get(), &FileClient::read);
        archive_read_set_skip_callback(a.get(), &FileClient::skip);
        archive_read_set_callback_data(a.get(), &c);
        if (archive_read_open1(a.get()) != ARCHIVE_OK)
            a.reset();
        return a;
    };
    if (ArchiveHandle stream = openStream(streamClient);
        stream && archive_filter_count(stream.get()) > 1) {
        fileWalk.walkStream(stream.get(), "", 1, streamName(name),
                            [&] { return openStream(againClient); });
        fileWalk.finish();
        return report;
    }
    FileClient client{fd, static_cast<int64_t>(st.st_size)};
    XarTableGuard guard(limits_.maxTableBytes,
                        [&](const std::string& what) { fileWalk.overLimit(what); });
    client.guard = &guard;
    archive_read_set_read_callback(reader.get(), &FileClient::read);
    archive_read_set_skip_callback(reader.get(), &FileClient::skip);
    archive_read_set_seek_callback(reader.get(), &FileClient::seek);
    archive_read_set_callback_data(reader.get(), &client);
    if (archive_read_open1(reader.get()) != ARCHIVE_OK) {
        // Telling the format can read far enough to meet a limit, which said so already.
        if (!guard.tooLarge())
            fileWalk.skip(VkArchiveSkip::Reason::corrupt, "", errorOf(reader.get()));
        return report;
    }
    fileWalk.walkArchive(reader.get(), "", 1, streamName(name));
    fileWalk.finish();
    return report;
}
