#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <future>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/VkTorjanItem.h"

// One text column of a stored record as read: no value (NULL; the record keeps its default),
// nil (not UTF-8) or the text.
struct VkStoredText {
    enum class State : uint8_t { unset, nil, text };
    State state = State::unset;
    std::string_view text;
};

// One row of a signature database as read, its text fields still enciphered. The views need
// only live until VkTorjanRecords::appendStored returns.
struct VkStoredRecord {
    VkStoredText name, detail, version, headeCode, TorjanCode;
    int32_t level = 0;
    uint64_t fileSize = 0;
    std::optional<std::string_view> killArchive;  // the kill array's keyed archive, as stored
};

// The records of a list, in list order: records read from a database, kept compact, and
// records made by hand (VkTorjanItem objects, kept as they are).
//
// A stored record costs about 100 bytes instead of a VkTorjanItem's 500: its size, its hash
// as 16 binary bytes (a hash text of another form is kept as text), and its name, version,
// detail and kill array as stored, in one arena. The hashes are deciphered on worker threads
// while the rows are read; the rest only when a record is read as a VkTorjanItem (operator[]),
// which makes a record object whose name, version and detail are deciphered when first read.
// Reading the same record again gives the same object while anyone holds it.
class VkTorjanRecords {
  public:
    using Item = std::shared_ptr<VkTorjanItem>;

    VkTorjanRecords() = default;
    VkTorjanRecords(std::vector<Item> items);  // NOLINT: a hand-made list is a list
    VkTorjanRecords(std::initializer_list<Item> items);
    VkTorjanRecords(const VkTorjanRecords& other);
    VkTorjanRecords& operator=(const VkTorjanRecords& other);
    VkTorjanRecords(VkTorjanRecords&& other) noexcept;
    VkTorjanRecords& operator=(VkTorjanRecords&& other) noexcept;
    ~VkTorjanRecords();

    // ---- Building (one thread) ----
    void reserve(size_t records);
    // Appends a record made by hand, used as it is (never deciphered).
    void push_back(Item item);
    // Appends a stored record.
    void appendStored(const VkStoredRecord& record);
    // Appends the records [first, first + count) again: the same records, listed twice.
    void appendAgain(size_t first, size_t count);
    // Waits for the hashes being deciphered; the records are read only after this (a copy
    // made before holds only what was finished).
    void finishStored();
    // Stored texts that were too long to keep and read as nil.
    size_t oversizedTexts() const { return oversized_; }

    // ---- Reading (any thread, once built) ----
    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    uint64_t fileSizeAt(size_t index) const { return rows_[index].fileSize; }
    // False only for a null entry of a hand-made list (it is no record).
    bool holds(size_t index) const {
        return !rows_[index].handMade || objects_[rows_[index].where] != nullptr;
    }
    // The record at index as a record object (nullptr for a null hand-made entry).
    Item operator[](size_t index) const;
    // The record's hash type and whether its head or whole-file hash text is exactly `text`:
    // what judging compares, answered from the compact row without making the record object.
    int32_t hashTypeAt(size_t index) const;
    bool hashIs(size_t index, bool head, std::string_view text) const;
    Item front() const { return (*this)[0]; }
    Item back() const { return (*this)[rows_.size() - 1]; }
    // Bytes held, the arena included (for the benchmark).
    size_t memoryBytes() const;

    class const_iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Item;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Item;
        const_iterator(const VkTorjanRecords* records, size_t index)
            : records_(records), index_(index) {}
        Item operator*() const { return (*records_)[index_]; }
        const_iterator& operator++() {
            ++index_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++index_;
            return before;
        }
        bool operator==(const const_iterator& other) const { return index_ == other.index_; }

      private:
        const VkTorjanRecords* records_;
        size_t index_;
    };
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, rows_.size()}; }

  private:
    using Digest = std::array<uint8_t, 16>;
    enum HashState : uint8_t { kHashNone = 0, kHashDigest = 1, kHashText = 2 };
    struct Row {
        uint64_t fileSize = 0;
        Digest whole{};
        // Stored: offset of the record's block in the arena; made by hand: index in objects_.
        uint32_t where = 0;
        uint8_t handMade = 0;
        uint8_t wholeState = kHashNone;
        uint8_t headState = kHashNone;
        uint8_t alias = 0;  // listed again: aliasOf_ names the first listing
    };
    // What deciphering one batch of rows gave.
    struct Deciphered {
        uint32_t first = 0;
        std::vector<uint8_t> wholeState, headState;
        std::vector<Digest> whole, head;
        std::vector<std::pair<uint32_t, std::string>> wholeText, headText;
    };
    // The enciphered hashes of a batch of rows in one buffer (offset, length; nil: no
    // length), so that the reading thread allocates nothing per row for them.
    struct Batch {
        static constexpr uint32_t kNil = UINT32_MAX;
        uint32_t first = 0;
        std::string bytes;
        std::vector<std::pair<uint32_t, uint32_t>> whole, head;
        void add(const VkStoredText& wholeText, const VkStoredText& headText);
        std::optional<std::string> at(const std::pair<uint32_t, uint32_t>& where) const;
    };

    static Deciphered decipher(Batch batch);
    void launchBatch();
    void collect(Deciphered done);
    void waitForBatches(size_t atMost);
    size_t canonical(size_t index) const;
    uint32_t storeBlock(const std::string& block);
    const char* blockAt(uint32_t where) const;
    std::optional<std::string> hashText(size_t index, bool head) const;
    Item make(size_t index) const;

    std::vector<Row> rows_;
    std::vector<Item> objects_;
    // Arena of fixed-size chunks: offsets stay valid and no growth copies it.
    std::vector<std::unique_ptr<char[]>> chunks_;
    size_t chunkUsed_ = 0;
    std::vector<std::pair<uint32_t, Digest>> heads_;  // by row, rising
    std::vector<std::pair<uint32_t, std::string>> wholeTexts_, headTexts_;
    std::vector<std::pair<uint32_t, uint32_t>> aliasOf_;  // row, first listing; rising
    size_t oversized_ = 0;

    Batch batch_;
    std::deque<std::future<Deciphered>> running_;

    mutable std::mutex madeMutex_;
    mutable std::unordered_map<uint32_t, std::weak_ptr<VkTorjanItem>> made_;
    mutable size_t madeSwept_ = 0;
};

// A loaded list of signature records with an index by file size, built once and then only
// read (scan threads share it). Judging a file looks up the records of its size instead of
// walking the whole list, so a file whose size no record has costs nothing beyond its lstat.
// The index holds each record's fileSize as it was when the list was built: records must not
// be changed while they are part of a list.
class VkTorjanRecordList {
  public:
    using Items = VkTorjanRecords;

    VkTorjanRecordList() = default;
    explicit VkTorjanRecordList(Items items);
    static std::shared_ptr<const VkTorjanRecordList> make(Items items);

    // Every record, in list order.
    const Items& items() const { return items_; }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    // True when some record has this fileSize: a file of another size cannot match.
    bool hasSize(uint64_t size) const { return firstOfSize(size) != kNone; }
    // The records whose fileSize is size, in list order; empty when there are none.
    std::vector<std::shared_ptr<VkTorjanItem>> recordsOfSize(uint64_t size) const;
    // The same by index into items(), without making record objects: for (i = firstOfSize;
    // i != kNone; i = nextOfSize(i)).
    static constexpr uint32_t kNone = UINT32_MAX;
    uint32_t firstOfSize(uint64_t size) const;
    uint32_t nextOfSize(uint32_t index) const { return next_[index]; }

  private:
    size_t slotOf(uint64_t size) const;

    Items items_;
    // Open addressing over the distinct sizes: each slot holds the first record of its size
    // (kNone when free); next_ chains the records of one size in list order.
    std::vector<uint32_t> slots_;
    std::vector<uint32_t> next_;
    unsigned shift_ = 64;
};
