#include "engine/VkTorjanRecordList.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/VkKeyedArchiver.h"

namespace {

// Rows per deciphering batch: large enough that starting a thread costs nothing beside it,
// small enough that the enciphered hashes waiting in memory stay a few hundred KiB.
constexpr size_t kBatchRows = 8192;
// The arena's chunk. A record's texts never straddle two chunks, so a record whose texts
// are longer keeps them as nil (no name or detail is near this long).
constexpr size_t kChunkBytes = size_t{1} << 20;
constexpr size_t kMaxChunks = (size_t{1} << 32) / kChunkBytes;
// A hash text of another form than 32 lower-case hex digits is kept as text up to this
// length; a longer one equals no hash text of any algorithm and is kept as nil.
constexpr size_t kMaxHashText = 256;
// Field tags of a stored block: 0 no value, 1 nil, n + 2 a text of n bytes.
constexpr uint64_t kTagUnset = 0;
constexpr uint64_t kTagNil = 1;

size_t decipherThreads() {
    unsigned n = std::thread::hardware_concurrency();
    return std::clamp<size_t>(n == 0 ? 1 : n, 1, 4);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// 32 lower-case hex digits (what the hash facility gives for type 0) as 16 bytes.
bool digestOf(const std::string& text, std::array<uint8_t, 16>& digest) {
    if (text.size() != 32)
        return false;
    for (size_t i = 0; i < 16; ++i) {
        int high = hexValue(text[2 * i]);
        int low = hexValue(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        digest[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

// A digest as the hash facility writes it: lower-case hex.
constexpr char kHexDigits[] = "0123456789abcdef";

std::string hexOf(const std::array<uint8_t, 16>& digest) {
    std::string text(32, '0');
    for (size_t i = 0; i < 16; ++i) {
        text[2 * i] = kHexDigits[digest[i] >> 4];
        text[2 * i + 1] = kHexDigits[digest[i] & 15];
    }
    return text;
}

void putVarint(std::string& out, uint64_t value) {
    while (value >= 0x80) {
        out.push_back(static_cast<char>(value | 0x80));
        value >>= 7;
    }
    out.push_back(static_cast<char>(value));
}

uint64_t getVarint(const char*& p) {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        auto byte = static_cast<uint8_t>(*p++);
        value |= static_cast<uint64_t>(byte & 0x7F) << shift;
        if (!(byte & 0x80))
            break;
    }
    return value;
}

void putText(std::string& out, const VkStoredText& text) {
    switch (text.state) {
        case VkStoredText::State::unset:
            putVarint(out, kTagUnset);
            break;
        case VkStoredText::State::nil:
            putVarint(out, kTagNil);
            break;
        case VkStoredText::State::text:
            putVarint(out, text.text.size() + 2);
            out.append(text.text);
            break;
    }
}

// One field of a block: nullopt for no value, else the value (nil or text).
std::optional<std::optional<std::string>> getText(const char*& p) {
    uint64_t tag = getVarint(p);
    if (tag == kTagUnset)
        return std::nullopt;
    if (tag == kTagNil)
        return std::optional<std::string>();
    std::string text(p, tag - 2);
    p += tag - 2;
    return std::optional<std::string>(std::move(text));
}

template <class T>
const T* findRow(const std::vector<std::pair<uint32_t, T>>& table, size_t row) {
    auto it = std::lower_bound(table.begin(), table.end(), row,
                               [](const auto& entry, size_t r) { return entry.first < r; });
    return it != table.end() && it->first == row ? &it->second : nullptr;
}

}  // namespace

// ---- VkTorjanRecords ------------------------------------------------------------------

VkTorjanRecords::VkTorjanRecords(std::vector<Item> items) {
    reserve(items.size());
    for (Item& item : items)
        push_back(std::move(item));
}

VkTorjanRecords::VkTorjanRecords(std::initializer_list<Item> items) {
    reserve(items.size());
    for (const Item& item : items)
        push_back(item);
}

VkTorjanRecords::VkTorjanRecords(const VkTorjanRecords& other) {
    *this = other;
}

VkTorjanRecords& VkTorjanRecords::operator=(const VkTorjanRecords& other) {
    if (this == &other)
        return *this;
    finishStored();
    rows_ = other.rows_;
    objects_ = other.objects_;
    chunks_.clear();
    for (size_t i = 0; i < other.chunks_.size(); ++i) {
        chunks_.push_back(std::make_unique<char[]>(kChunkBytes));
        size_t used = i + 1 == other.chunks_.size() ? other.chunkUsed_ : kChunkBytes;
        std::memcpy(chunks_.back().get(), other.chunks_[i].get(), used);
    }
    chunkUsed_ = other.chunkUsed_;
    heads_ = other.heads_;
    wholeTexts_ = other.wholeTexts_;
    headTexts_ = other.headTexts_;
    aliasOf_ = other.aliasOf_;
    oversized_ = other.oversized_;
    batch_ = {};
    std::lock_guard lock(madeMutex_);
    made_.clear();
    madeSwept_ = 0;
    return *this;
}

VkTorjanRecords::VkTorjanRecords(VkTorjanRecords&& other) noexcept {
    *this = std::move(other);
}

VkTorjanRecords& VkTorjanRecords::operator=(VkTorjanRecords&& other) noexcept {
    if (this == &other)
        return *this;
    finishStored();
    rows_ = std::move(other.rows_);
    objects_ = std::move(other.objects_);
    chunks_ = std::move(other.chunks_);
    chunkUsed_ = other.chunkUsed_;
    heads_ = std::move(other.heads_);
    wholeTexts_ = std::move(other.wholeTexts_);
    headTexts_ = std::move(other.headTexts_);
    aliasOf_ = std::move(other.aliasOf_);
    oversized_ = other.oversized_;
    batch_ = std::move(other.batch_);
    running_ = std::move(other.running_);
    std::scoped_lock lock(madeMutex_, other.madeMutex_);
    made_ = std::move(other.made_);
    madeSwept_ = other.madeSwept_;
    other.rows_.clear();
    other.chunkUsed_ = 0;
    return *this;
}

VkTorjanRecords::~VkTorjanRecords() {
    // The deciphering threads own their batches; only their results would be lost.
    for (auto& running : running_)
        running.wait();
}

void VkTorjanRecords::reserve(size_t records) {
    rows_.reserve(records);
}

void VkTorjanRecords::push_back(Item item) {
    Row row;
    row.handMade = 1;
    row.fileSize = item ? item->fileSize() : 0;
    row.where = static_cast<uint32_t>(objects_.size());
    objects_.push_back(std::move(item));
    rows_.push_back(row);
}

uint32_t VkTorjanRecords::storeBlock(const std::string& block) {
    if (chunks_.empty() || chunkUsed_ + block.size() > kChunkBytes) {
        chunks_.push_back(std::make_unique<char[]>(kChunkBytes));
        chunkUsed_ = 0;
    }
    auto where = static_cast<uint32_t>((chunks_.size() - 1) * kChunkBytes + chunkUsed_);
    std::memcpy(chunks_.back().get() + chunkUsed_, block.data(), block.size());
    chunkUsed_ += block.size();
    return where;
}

const char* VkTorjanRecords::blockAt(uint32_t where) const {
    return chunks_[where / kChunkBytes].get() + where % kChunkBytes;
}

void VkTorjanRecords::appendStored(const VkStoredRecord& record) {
    // Level, then name, version, detail and the kill archive, each tagged.
    thread_local std::string block;
    block.clear();
    auto level = static_cast<uint32_t>(record.level);
    for (int shift = 0; shift < 32; shift += 8)
        block.push_back(static_cast<char>(level >> shift));
    putText(block, record.name);
    putText(block, record.version);
    putText(block, record.detail);
    VkStoredText kill;
    if (record.killArchive)
        kill = {VkStoredText::State::text, *record.killArchive};
    putText(block, kill);
    // Too long for a chunk (only a hostile row): the record keeps its size and hashes, so it
    // still finds its file, and reads its texts as nil.
    if (block.size() > kChunkBytes) {
        ++oversized_;
        block.resize(4);
        const VkStoredText nil{VkStoredText::State::nil, {}};
        for (int i = 0; i < 3; ++i)
            putText(block, nil);
        putText(block, VkStoredText{});
    }
    // Past 4 GiB of texts or 2^32 - 1 records nothing more is indexed.
    bool arenaFull = chunks_.size() >= kMaxChunks && chunkUsed_ + block.size() > kChunkBytes;
    if (arenaFull || rows_.size() >= UINT32_MAX - 1) {
        ++oversized_;
        return;
    }
    Row row;
    row.fileSize = record.fileSize;
    row.where = storeBlock(block);
    if (batch_.whole.empty())
        batch_.first = static_cast<uint32_t>(rows_.size());
    batch_.add(record.TorjanCode, record.headeCode);
    rows_.push_back(row);
    if (batch_.whole.size() >= kBatchRows)
        launchBatch();
}

void VkTorjanRecords::appendAgain(size_t first, size_t count) {
    for (size_t i = first; i < first + count && i < rows_.size(); ++i) {
        Row row = rows_[i];
        size_t original = canonical(i);
        row.alias = 1;
        aliasOf_.emplace_back(static_cast<uint32_t>(rows_.size()), static_cast<uint32_t>(original));
        rows_.push_back(row);
    }
}

void VkTorjanRecords::Batch::add(const VkStoredText& wholeText, const VkStoredText& headText) {
    auto put = [this](const VkStoredText& text) -> std::pair<uint32_t, uint32_t> {
        if (text.state != VkStoredText::State::text)
            return {0, kNil};
        auto offset = static_cast<uint32_t>(bytes.size());
        bytes.append(text.text);
        return {offset, static_cast<uint32_t>(text.text.size())};
    };
    whole.push_back(put(wholeText));
    head.push_back(put(headText));
}

std::optional<std::string> VkTorjanRecords::Batch::at(
    const std::pair<uint32_t, uint32_t>& where) const {
    if (where.second == kNil)
        return std::nullopt;
    return bytes.substr(where.first, where.second);
}

VkTorjanRecords::Deciphered VkTorjanRecords::decipher(Batch batch) {
    Deciphered out;
    out.first = batch.first;
    size_t n = batch.whole.size();
    out.wholeState.assign(n, kHashNone);
    out.headState.assign(n, kHashNone);
    out.whole.resize(n);
    out.head.resize(n);
    auto one = [](const std::optional<std::string>& cipher, uint8_t& state, Digest& digest,
                  std::vector<std::pair<uint32_t, std::string>>& texts, uint32_t row) {
        std::optional<std::string> plain = VkTorjanItem::deCodeString(cipher);
        if (!plain)
            return;
        if (digestOf(*plain, digest)) {
            state = kHashDigest;
        } else if (plain->size() <= kMaxHashText) {
            state = kHashText;
            texts.emplace_back(row, std::move(*plain));
        }
    };
    for (size_t k = 0; k < n; ++k) {
        auto row = static_cast<uint32_t>(batch.first + k);
        one(batch.at(batch.whole[k]), out.wholeState[k], out.whole[k], out.wholeText, row);
        one(batch.at(batch.head[k]), out.headState[k], out.head[k], out.headText, row);
    }
    return out;
}

void VkTorjanRecords::launchBatch() {
    if (batch_.whole.empty())
        return;
    // The reading thread goes on with the next rows meanwhile (reading is a fifth of the
    // work, deciphering the rest); beyond one batch per core it waits, so the enciphered
    // hashes in memory stay bounded.
    waitForBatches(decipherThreads());
    running_.push_back(
        std::async(std::launch::async, &VkTorjanRecords::decipher, std::exchange(batch_, Batch{})));
}

void VkTorjanRecords::collect(Deciphered done) {
    for (size_t k = 0; k < done.wholeState.size(); ++k) {
        Row& row = rows_[done.first + k];
        row.wholeState = done.wholeState[k];
        if (row.wholeState == kHashDigest)
            row.whole = done.whole[k];
        row.headState = done.headState[k];
        if (row.headState == kHashDigest)
            heads_.emplace_back(static_cast<uint32_t>(done.first + k), done.head[k]);
    }
    for (auto& text : done.wholeText)
        wholeTexts_.push_back(std::move(text));
    for (auto& text : done.headText)
        headTexts_.push_back(std::move(text));
}

void VkTorjanRecords::waitForBatches(size_t atMost) {
    // Batches end in the order they were started, and are taken in that order so that the
    // side tables stay sorted by row.
    while (running_.size() > atMost) {
        collect(running_.front().get());
        running_.pop_front();
    }
}

void VkTorjanRecords::finishStored() {
    launchBatch();
    waitForBatches(0);
    // A record listed again before its first listing's hashes were known takes them now.
    for (const auto& [row, original] : aliasOf_) {
        rows_[row].whole = rows_[original].whole;
        rows_[row].wholeState = rows_[original].wholeState;
        rows_[row].headState = rows_[original].headState;
    }
}

size_t VkTorjanRecords::canonical(size_t index) const {
    if (!rows_[index].alias)
        return index;
    const uint32_t* original = findRow(aliasOf_, index);
    return original ? *original : index;
}

std::optional<std::string> VkTorjanRecords::hashText(size_t index, bool head) const {
    const Row& row = rows_[index];
    uint8_t state = head ? row.headState : row.wholeState;
    if (state == kHashDigest) {
        if (!head)
            return hexOf(row.whole);
        const Digest* digest = findRow(heads_, index);
        return digest ? std::optional<std::string>(hexOf(*digest)) : std::nullopt;
    }
    if (state == kHashText) {
        const std::string* text = findRow(head ? headTexts_ : wholeTexts_, index);
        return text ? std::optional<std::string>(*text) : std::nullopt;
    }
    return std::nullopt;
}

int32_t VkTorjanRecords::hashTypeAt(size_t index) const {
    const Row& row = rows_[index];
    // Stored records carry no type of their own: they keep the record's default.
    static const int32_t kStoredType = VkTorjanItem().hashValueType();
    return row.handMade ? objects_[row.where]->hashValueType() : kStoredType;
}

bool VkTorjanRecords::hashIs(size_t index, bool head, std::string_view text) const {
    // A record listed again answers as its first listing, whose side tables hold its hashes.
    index = canonical(index);
    const Row& row = rows_[index];
    if (row.handMade) {
        std::optional<std::string> own =
            head ? objects_[row.where]->headeCode() : objects_[row.where]->TorjanCode();
        return own && *own == text;
    }
    uint8_t state = head ? row.headState : row.wholeState;
    if (state == kHashDigest) {
        const Digest* digest = head ? findRow(heads_, index) : &row.whole;
        if (!digest || text.size() != 32)
            return false;
        // Compared digit by digit, as hexOf would write it, without making the text.
        for (size_t i = 0; i < 16; ++i) {
            if (text[2 * i] != kHexDigits[(*digest)[i] >> 4] ||
                text[2 * i + 1] != kHexDigits[(*digest)[i] & 15])
                return false;
        }
        return true;
    }
    if (state == kHashText) {
        const std::string* own = findRow(head ? headTexts_ : wholeTexts_, index);
        return own && *own == text;
    }
    return false;
}

VkTorjanRecords::Item VkTorjanRecords::make(size_t index) const {
    const Row& row = rows_[index];
    auto item = std::make_shared<VkTorjanItem>();
    const char* p = blockAt(row.where);
    uint32_t level = 0;
    for (int shift = 0; shift < 32; shift += 8)
        level |= static_cast<uint32_t>(static_cast<uint8_t>(*p++)) << shift;
    item->setLevel(static_cast<int32_t>(level));
    if (auto name = getText(p))
        item->setName(std::move(*name));
    if (auto version = getText(p))
        item->setVersion(std::move(*version));
    if (auto detail = getText(p))
        item->setDetail(std::move(*detail));
    item->deferDecoding();
    item->setFileSize(row.fileSize);
    item->setHeadeCode(hashText(index, true));
    item->setTorjanCode(hashText(index, false));
    if (auto kill = getText(p); kill && *kill) {
        const std::string& bytes = **kill;
        // Anything but an archived array leaves the record without a kill array, so removal
        // falls back to deleting the detected file; malformed entries are dropped and counted.
        VkResult<VkPlist> root = VkKeyedUnarchiver::unarchiveObjectWithData(
            std::vector<uint8_t>(bytes.begin(), bytes.end()));
        if (root && root->isArray())
            item->setKillArray(VkKillList::parse(*root->asArray()));
    }
    return item;
}

VkTorjanRecords::Item VkTorjanRecords::operator[](size_t index) const {
    const Row& row = rows_[index];
    if (row.handMade)
        return objects_[row.where];
    auto key = static_cast<uint32_t>(canonical(index));
    std::lock_guard lock(madeMutex_);
    std::weak_ptr<VkTorjanItem>& slot = made_[key];
    if (Item alive = slot.lock())
        return alive;
    Item item = make(key);
    slot = item;
    // Records nobody holds any more leave the table now and then, so it stays as small as
    // what is held.
    if (made_.size() > 2 * madeSwept_ + 1024) {
        std::erase_if(made_, [](const auto& entry) { return entry.second.expired(); });
        madeSwept_ = made_.size();
    }
    return item;
}

size_t VkTorjanRecords::memoryBytes() const {
    return rows_.capacity() * sizeof(Row) + chunks_.size() * kChunkBytes +
           heads_.capacity() * sizeof(heads_[0]) + objects_.capacity() * sizeof(Item);
}

// ---- VkTorjanRecordList ---------------------------------------------------------------

VkTorjanRecordList::VkTorjanRecordList(Items items) : items_(std::move(items)) {
    items_.finishStored();
    size_t n = items_.size();
    if (n == 0)
        return;
    // At most half full, so a lookup of a size nobody has ends after a probe or two.
    size_t capacity = 16;
    shift_ = 60;
    while (capacity < 2 * n) {
        capacity <<= 1;
        --shift_;
    }
    slots_.assign(capacity, kNone);
    next_.assign(n, kNone);
    // From the back, so that each size's chain comes out in list order.
    for (size_t i = n; i-- > 0;) {
        if (!items_.holds(i))
            continue;
        uint64_t size = items_.fileSizeAt(i);
        size_t slot = slotOf(size);
        while (slots_[slot] != kNone && items_.fileSizeAt(slots_[slot]) != size)
            slot = (slot + 1) & (capacity - 1);
        next_[i] = slots_[slot];
        slots_[slot] = static_cast<uint32_t>(i);
    }
}

std::shared_ptr<const VkTorjanRecordList> VkTorjanRecordList::make(Items items) {
    return std::make_shared<const VkTorjanRecordList>(std::move(items));
}

size_t VkTorjanRecordList::slotOf(uint64_t size) const {
    return static_cast<size_t>((size * 0x9E3779B97F4A7C15ull) >> shift_);
}

uint32_t VkTorjanRecordList::firstOfSize(uint64_t size) const {
    if (slots_.empty())
        return kNone;
    size_t mask = slots_.size() - 1;
    for (size_t slot = slotOf(size);; slot = (slot + 1) & mask) {
        uint32_t first = slots_[slot];
        if (first == kNone || items_.fileSizeAt(first) == size)
            return first;
    }
}

std::vector<std::shared_ptr<VkTorjanItem>> VkTorjanRecordList::recordsOfSize(uint64_t size) const {
    std::vector<std::shared_ptr<VkTorjanItem>> records;
    for (uint32_t i = firstOfSize(size); i != kNone; i = next_[i])
        records.push_back(items_[i]);
    return records;
}
