#include "platform/VkPlist.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

#include <plist/plist.h>

#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"
#include "platform/VkUtf8.h"

namespace {

using PlistHandle = VkHandle<void, plist_free>;

constexpr const char* kNulMessage = "a string or key holds a NUL character";
constexpr const char* kMalformed = "malformed or oversized binary property list";
constexpr const char* kTooDeep = "property list nested too deeply or too large";

// ---- Guards run before libplist sees the bytes -------------------------------------
// libplist parses recursively and copies shared binary objects; a hostile file could
// exhaust the stack or memory. These checks bound both.

// Index just past `end` searched from `from`, or npos.
size_t pastTerminator(std::string_view text, size_t from, std::string_view end) {
    size_t at = text.find(end, from);
    return at == std::string_view::npos ? at : at + end.size();
}

// Where the markup starting at "<!" or "<?" ends, skipped the way libplist skips it: a
// comment, CDATA section, document type (with its internal subset) or processing
// instruction may hold anything, tags included, and none of it is an element. npos when it
// does not end (libplist refuses that). Other "<!" markup, which libplist refuses, only
// its two characters.
size_t pastMarkup(std::string_view text, size_t i) {
    std::string_view rest = text.substr(i);
    if (rest.starts_with("<?"))
        return pastTerminator(text, i + 2, "?>");
    if (rest.starts_with("<!--"))
        return pastTerminator(text, i + 4, "-->");
    if (rest.starts_with("<![CDATA["))
        return pastTerminator(text, i + 9, "]]>");
    if (rest.starts_with("<!DOCTYPE")) {
        size_t stop = text.find_first_of("[>", i + 9);
        if (stop == std::string_view::npos || text[stop] == '>')
            return stop == std::string_view::npos ? stop : stop + 1;
        return pastTerminator(text, stop + 1, "]>");
    }
    return i + 2;
}

// Bounds the nesting of arrays and dictionaries, and the number of elements (each becomes a
// node), in one pass over the text. A tag broken by a "<" is refused rather than guessed at.
// Markup that is no element is skipped whole as libplist skips it: a closing tag inside a
// comment must not lower the count while libplist keeps nesting.
bool xmlWithinBounds(const char* p, size_t n, size_t maxDepth, size_t maxNodes) {
    std::string_view text(p, n);
    size_t depth = 0;
    size_t elements = 0;
    for (size_t i = 0; i + 1 < n; ++i) {
        if (p[i] != '<')
            continue;
        if (p[i + 1] == '!' || p[i + 1] == '?') {
            size_t past = pastMarkup(text, i);
            if (past == std::string_view::npos)
                return true;  // unterminated; libplist will refuse it
            i = past - 1;
            continue;
        }
        bool closing = p[i + 1] == '/';
        size_t nameStart = i + (closing ? 2 : 1);
        size_t j = nameStart;
        while (j < n && std::isalnum(static_cast<unsigned char>(p[j])))
            ++j;
        std::string_view name(p + nameStart, j - nameStart);
        if (!closing && !name.empty() && ++elements > maxNodes)
            return false;
        if (name != "array" && name != "dict")
            continue;
        size_t close = j;
        while (close < n && p[close] != '>' && p[close] != '<')
            ++close;
        if (close >= n)
            return true;  // truncated; libplist will refuse it
        if (p[close] == '<')
            return false;
        bool selfClosing = p[close - 1] == '/';
        i = close;
        if (selfClosing)
            continue;
        if (closing) {
            if (depth > 0)
                --depth;
        } else if (++depth > maxDepth) {
            return false;
        }
    }
    return true;
}

// Strings and data of a binary list, counted as often as they are referenced: the parser
// copies a shared object once per reference.
constexpr size_t kMaxExpandedBytes = 256u << 20;

uint64_t readBigEndian(const uint8_t* p, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i)
        v = (v << 8) | p[i];
    return v;
}

// Checks the binary layout: trailer, offset table, object headers and references in
// range; no reference cycles; no string (key or value) holding a NUL; nesting depth and the
// size of the expanded tree bounded, in nodes and in string and data bytes (an object named
// many times is copied each time). Answers why the list is refused, or nullptr.
const char* binaryPlistProblem(const uint8_t* data, size_t size, size_t maxDepth, size_t maxNodes,
                               size_t maxBytes) {
    if (size < 8 + 32)
        return kMalformed;
    const uint8_t* trailer = data + size - 32;
    size_t offsetSize = trailer[6];
    size_t refSize = trailer[7];
    uint64_t numObjects = readBigEndian(trailer + 8, 8);
    uint64_t topObject = readBigEndian(trailer + 16, 8);
    uint64_t tableOffset = readBigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8)
        return kMalformed;
    // Every object of a list that some writer made is reachable, so more objects than the
    // tree may have nodes is no list of ours; this also bounds the bookkeeping below.
    if (numObjects == 0 || topObject >= numObjects || numObjects > maxNodes)
        return kMalformed;
    if (numObjects > (size - 40))
        return kMalformed;
    if (tableOffset < 8 || tableOffset > size - 32)
        return kMalformed;
    if ((size - 32 - tableOffset) / offsetSize < numObjects)
        return kMalformed;

    uint64_t scanned = 0;      // string bytes looked at for a NUL
    uint64_t pendingRefs = 0;  // references held by the frames of the walk
    bool holdsNul = false;
    auto objectOffset = [&](uint64_t index) {
        return readBigEndian(data + tableOffset + index * offsetSize, offsetSize);
    };
    // Reads a container's references, or the payload size of a string or data object;
    // false when the object is malformed.
    auto childrenOf = [&](uint64_t index, std::vector<uint64_t>& out, uint64_t& bytes) -> bool {
        out.clear();
        bytes = 0;
        uint64_t off = objectOffset(index);
        if (off < 8 || off >= tableOffset)
            return false;
        uint8_t marker = data[off];
        uint8_t kind = marker >> 4;
        bool container = kind == 0xA || kind == 0xC || kind == 0xD;
        bool payload = kind == 0x4 || kind == 0x5 || kind == 0x6 || kind == 0x7;
        if (!container && !payload)
            return true;
        uint64_t count = marker & 0x0F;
        uint64_t pos = off + 1;
        if (count == 0x0F) {
            if (pos >= tableOffset)
                return false;
            uint8_t intMarker = data[pos];
            if ((intMarker >> 4) != 0x1)
                return false;
            size_t width = size_t{1} << (intMarker & 0x0F);
            if (width > 8 || pos + 1 + width > tableOffset)
                return false;
            count = readBigEndian(data + pos + 1, width);
            pos += 1 + width;
        }
        if (payload) {
            // Counted, not checked against the object area: the parser does that.
            bytes = count > size ? size : (kind == 0x6 ? count * 2 : count);
            if (kind == 0x4)
                return true;
            // A string holding a NUL: the parser cuts an ASCII one short there (a key
            // "a\0b" reads as "a") and its string getters abort on a UTF-16 one. Every
            // object is looked at once; the bytes looked at are bounded like the tree.
            uint64_t end = std::min<uint64_t>(pos + bytes, tableOffset);
            scanned += end - std::min(pos, end);
            if (scanned > maxBytes)
                return false;
            for (uint64_t i = pos; i < end; i += kind == 0x6 ? 2 : 1) {
                if (data[i] == 0 && (kind != 0x6 || (i + 1 < end && data[i + 1] == 0))) {
                    holdsNul = true;
                    return false;
                }
            }
            return true;
        }
        uint64_t refs = kind == 0xD ? count * 2 : count;
        if (count > tableOffset || refs > (tableOffset - pos) / refSize)
            return false;
        // Each reference becomes at least one node: references waiting on the walk's stack
        // beyond the node limit can only end in a refusal, so they are refused now, before
        // they are held.
        pendingRefs += refs;
        if (pendingRefs > maxNodes)
            return false;
        out.reserve(refs);
        for (uint64_t i = 0; i < refs; ++i) {
            uint64_t ref = readBigEndian(data + pos + i * refSize, refSize);
            if (ref >= numObjects)
                return false;
            out.push_back(ref);
        }
        return true;
    };

    // Iterative depth-first walk: colour 0 unseen, 1 on the path, 2 done.
    // Sized for the limits (depth 256, 4 M nodes, 256 MiB), which a value is checked
    // against before it is stored: 11 bytes per object.
    static_assert(VkPlist::kMaxDepth <= UINT16_MAX && VkPlist::kMaxNodes <= UINT32_MAX &&
                  kMaxExpandedBytes <= UINT32_MAX);
    if (maxDepth > UINT16_MAX || maxNodes > UINT32_MAX || maxBytes > UINT32_MAX)
        return kMalformed;
    std::vector<uint8_t> colour(numObjects, 0);
    std::vector<uint16_t> depthOf(numObjects, 0);
    std::vector<uint32_t> nodesOf(numObjects, 0);
    std::vector<uint32_t> bytesOf(numObjects, 0);
    struct Frame {
        uint64_t index;
        std::vector<uint64_t> children;
        uint64_t bytes = 0;
        size_t next = 0;
    };
    std::vector<Frame> stack;
    stack.push_back({topObject, {}, 0, 0});
    if (!childrenOf(topObject, stack.back().children, stack.back().bytes))
        return holdsNul ? kNulMessage : kMalformed;
    colour[topObject] = 1;
    while (!stack.empty()) {
        Frame& f = stack.back();
        if (f.next < f.children.size()) {
            uint64_t child = f.children[f.next++];
            if (colour[child] == 1)
                return kMalformed;  // cycle
            if (colour[child] == 2)
                continue;
            if (stack.size() >= maxDepth)
                return kMalformed;
            Frame nf{child, {}, 0, 0};
            if (!childrenOf(child, nf.children, nf.bytes))
                return holdsNul ? kNulMessage : kMalformed;
            colour[child] = 1;
            stack.push_back(std::move(nf));
            continue;
        }
        uint64_t depth = 1;
        uint64_t nodes = 1;
        uint64_t bytes = f.bytes;
        for (uint64_t c : f.children) {
            depth = std::max<uint64_t>(depth, depthOf[c] + 1);
            nodes += nodesOf[c];
            bytes += bytesOf[c];
            if (nodes > maxNodes || bytes > maxBytes)
                return kMalformed;
        }
        if (depth > maxDepth || bytes > maxBytes)
            return kMalformed;
        depthOf[f.index] = static_cast<uint16_t>(depth);
        nodesOf[f.index] = static_cast<uint32_t>(nodes);
        bytesOf[f.index] = static_cast<uint32_t>(bytes);
        colour[f.index] = 2;
        pendingRefs -= f.children.size();
        stack.pop_back();
    }
    return nullptr;
}

// ---- Conversion ---------------------------------------------------------------------

// libplist 2.2 keeps an integer with a flag that tells an unsigned one above INT64_MAX from
// a negative one, and a date as double seconds, but its getters give only the bare 64 bits
// and 32-bit seconds, and its constructors make only signed integers and 32-bit dates.
// Such values go through the library's own serialized forms, which carry them whole.

// Whether an integer node whose bits read above INT64_MAX is unsigned (else negative).
bool isBigUnsigned(plist_t node) {
    PlistHandle copy(plist_copy(node));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(copy.get(), &xml, &length);
    bool negative =
        !xml || std::string_view(xml, length).find("<integer>-") != std::string_view::npos;
    if (xml)
        plist_to_xml_free(xml);
    return !negative;
}

// A date's seconds since the reference date from its binary form: the one object, at
// offset 8, is a date marker and a big-endian double.
std::optional<double> exactDate(plist_t node) {
    PlistHandle copy(plist_copy(node));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(copy.get(), &bin, &length);
    std::optional<double> seconds;
    if (bin && length >= 17 && static_cast<uint8_t>(bin[8]) == 0x33) {
        uint64_t bits = readBigEndian(reinterpret_cast<const uint8_t*>(bin) + 9, 8);
        double v = 0;
        std::memcpy(&v, &bits, sizeof v);
        seconds = v;
    }
    if (bin)
        plist_to_bin_free(bin);
    return seconds;
}

plist_t bigUnsignedNode(uint64_t value) {
    std::string xml =
        "<plist version=\"1.0\"><integer>" + std::to_string(value) + "</integer></plist>";
    plist_t node = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
    return node ? node : plist_new_uint(value);
}

// A date node of any seconds, parsed from a one-object binary list.
plist_t exactDateNode(double seconds) {
    uint64_t bits = 0;
    std::memcpy(&bits, &seconds, sizeof bits);
    std::vector<uint8_t> b = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0x33};
    for (int shift = 56; shift >= 0; shift -= 8)
        b.push_back(static_cast<uint8_t>(bits >> shift));
    b.push_back(8);  // the offset table: the object is at byte 8
    uint8_t trailer[32] = {};
    trailer[6] = 1;    // offset size
    trailer[7] = 1;    // reference size
    trailer[15] = 1;   // one object, the top one
    trailer[31] = 17;  // the offset table's place
    b.insert(b.end(), trailer, trailer + 32);
    plist_t node = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(b.data()), static_cast<uint32_t>(b.size()), &node);
    return node;
}

// libplist 2.2's string and key getters assert that the length it stored equals strlen, so
// a NUL inside one would abort the process. The guards above refuse such documents before
// parsing (keys can only be read through those getters); strings are read here with their
// length all the same, and a NUL found there still fails the document.
// The reader recurses once per level, so it keeps its own depth bound: a tree deeper than
// the guards let through (should the two parsers ever disagree) fails the document instead
// of exhausting the stack.
class NodeReader {
  public:
    const char* problem = nullptr;

    explicit NodeReader(size_t maxDepth) : maxDepth_(maxDepth) {}

    VkPlist read(plist_t node) {
        if (depth_ >= maxDepth_) {
            problem = kTooDeep;
            return VkPlist();
        }
        ++depth_;
        VkPlist value = readNode(node);
        --depth_;
        return value;
    }

  private:
    size_t maxDepth_;
    size_t depth_ = 0;

    VkPlist readNode(plist_t node) {
        switch (plist_get_node_type(node)) {
            case PLIST_BOOLEAN: {
                uint8_t v = 0;
                plist_get_bool_val(node, &v);
                return VkPlist::boolean(v != 0);
            }
            case PLIST_UINT: {
                uint64_t v = 0;
                plist_get_uint_val(node, &v);
                if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) &&
                    isBigUnsigned(node)) {
                    return VkPlist::unsignedInteger(v);
                }
                return VkPlist::integer(static_cast<int64_t>(v));
            }
            case PLIST_REAL: {
                double v = 0;
                plist_get_real_val(node, &v);
                return VkPlist::real(v);
            }
            case PLIST_STRING: {
                uint64_t length = 0;
                const char* text = plist_get_string_ptr(node, &length);
                if (!text)
                    return VkPlist(std::string());
                if (std::memchr(text, 0, length)) {
                    problem = kNulMessage;
                    return VkPlist();
                }
                return VkPlist(std::string(text, length));
            }
            case PLIST_DATE: {
                int32_t sec = 0, usec = 0;
                plist_get_date_val(node, &sec, &usec);
                // A date beyond 32-bit seconds comes out of the getter at a bound.
                if (sec == std::numeric_limits<int32_t>::min() ||
                    sec == std::numeric_limits<int32_t>::max()) {
                    if (auto exact = exactDate(node); exact && std::isfinite(*exact))
                        return VkPlist(VkDate{VkDate::kReferenceDateOffset + *exact});
                }
                return VkPlist(VkDate{VkDate::kReferenceDateOffset + sec + usec / 1e6});
            }
            case PLIST_DATA: {
                uint64_t length = 0;
                const auto* bytes =
                    reinterpret_cast<const uint8_t*>(plist_get_data_ptr(node, &length));
                return VkPlist(bytes ? VkPlist::Data(bytes, bytes + length) : VkPlist::Data());
            }
            case PLIST_ARRAY: {
                // libplist 2.2 finds an item by index by walking the list from its start, so
                // indexing every item is quadratic; its iterator walks once.
                VkPlist::Array items;
                items.reserve(plist_array_get_size(node));
                plist_array_iter it = nullptr;
                plist_array_new_iter(node, &it);
                for (;;) {
                    plist_t item = nullptr;
                    plist_array_next_item(node, it, &item);
                    if (!item || problem)
                        break;
                    items.push_back(read(item));
                }
                free(it);
                return VkPlist(std::move(items));
            }
            case PLIST_DICT: {
                VkPlist::Dictionary items;
                plist_dict_iter it = nullptr;
                plist_dict_new_iter(node, &it);
                for (;;) {
                    char* key = nullptr;
                    plist_t value = nullptr;
                    plist_dict_next_item(node, it, &key, &value);
                    if (!key || problem) {
                        free(key);
                        break;
                    }
                    std::string name(key);
                    free(key);
                    if (value)
                        items[std::move(name)] = read(value);
                }
                free(it);
                return VkPlist(std::move(items));
            }
            case PLIST_UID: {
                uint64_t v = 0;
                plist_get_uid_val(node, &v);
                return VkPlist::uid(v);
            }
            default:
                return VkPlist();
        }
    }
};

// Text as libplist can write it. No property list carries a NUL inside a string (libplist
// would cut the string there and write something else than was meant): one that slipped in
// is written as U+FFFD, visibly. Its binary writer stores non-ASCII text in UTF-16 and cuts
// short, or garbles, text that is not UTF-8 (a Linux file name may be anything), so there
// such bytes become U+FFFD as well; XML carries them as they are, and reads them back.
std::string writable(const std::string& text, bool binary) {
    std::string out = text;
    if (binary && !VkUtf8::isValid(out))
        out = VkUtf8::repaired(out);
    if (out.find('\0') == std::string::npos)
        return out;
    std::string clean;
    for (char c : out)
        clean += c == '\0' ? std::string("\xEF\xBF\xBD") : std::string(1, c);
    return clean;
}

// The years 1 to 9999 in seconds since the reference date: libplist's XML writer writes
// four-digit years and garbles others.
constexpr double kFirstDate = -63113904000.0;  // 0001-01-01T00:00:00Z
constexpr double kLastDate = 252423993599.0;   // 9999-12-31T23:59:59Z

// Seconds since the platform's reference date as libplist's date constructor takes them
// (32-bit), for a date in that range.
std::pair<int32_t, int32_t> dateFields(double rel) {
    rel = std::clamp<double>(rel, std::numeric_limits<int32_t>::min(),
                             std::numeric_limits<int32_t>::max());
    double sec = std::floor(rel);
    auto usec = static_cast<int32_t>(std::llround((rel - sec) * 1e6));
    if (usec >= 1000000) {
        sec += 1;
        usec -= 1000000;
    }
    if (sec > std::numeric_limits<int32_t>::max()) {
        sec = std::numeric_limits<int32_t>::max();
        usec = 0;
    }
    return {static_cast<int32_t>(sec), usec};
}

plist_t toNode(const VkPlist& value, bool binary) {
    switch (value.type()) {
        case VkPlist::Type::None:
            return plist_new_string("");
        case VkPlist::Type::Boolean:
            return plist_new_bool(*value.asBool() ? 1 : 0);
        case VkPlist::Type::Integer: {
            int64_t v = *value.asInt64();
            uint64_t u = *value.asUInt64();
            // Only an unsigned value above INT64_MAX reads differently through the two.
            if (v >= 0 && u != static_cast<uint64_t>(v))
                return bigUnsignedNode(u);
            return plist_new_uint(static_cast<uint64_t>(v));
        }
        case VkPlist::Type::Real:
            return plist_new_real(*value.asDouble());
        case VkPlist::Type::String:
            return plist_new_string(writable(*value.asString(), binary).c_str());
        case VkPlist::Type::Date: {
            // A date that is not a number is written as the reference date.
            double rel = value.asDate()->secondsSince1970 - VkDate::kReferenceDateOffset;
            rel = std::isfinite(rel) ? std::clamp(rel, kFirstDate, kLastDate) : 0.0;
            if (rel < std::numeric_limits<int32_t>::min() ||
                rel >= std::numeric_limits<int32_t>::max()) {
                if (plist_t node = exactDateNode(rel))
                    return node;
            }
            auto [sec, usec] = dateFields(rel);
            return plist_new_date(sec, usec);
        }
        case VkPlist::Type::Data: {
            const auto& d = *value.asData();
            return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
        }
        case VkPlist::Type::Array: {
            plist_t node = plist_new_array();
            for (const auto& item : *value.asArray())
                plist_array_append_item(node, toNode(item, binary));
            return node;
        }
        case VkPlist::Type::Dictionary: {
            plist_t node = plist_new_dict();
            for (const auto& [k, v] : *value.asDictionary())
                plist_dict_set_item(node, writable(k, binary).c_str(), toNode(v, binary));
            return node;
        }
        case VkPlist::Type::Uid:
            return plist_new_uid(*value.asUid());
    }
    return plist_new_string("");
}

}  // namespace

VkPlist VkPlist::boolean(bool v) {
    VkPlist p;
    p.value_ = v;
    return p;
}
VkPlist VkPlist::integer(int64_t v) {
    VkPlist p;
    p.value_ = v;
    return p;
}
VkPlist VkPlist::unsignedInteger(uint64_t v) {
    if (v <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return integer(static_cast<int64_t>(v));
    VkPlist p;
    p.value_ = BigUnsigned{v};
    return p;
}
VkPlist VkPlist::real(double v) {
    VkPlist p;
    p.value_ = v;
    return p;
}
VkPlist VkPlist::uid(uint64_t v) {
    VkPlist p;
    p.value_ = Uid{v};
    return p;
}
VkPlist VkPlist::array(std::initializer_list<VkPlist> items) {
    return VkPlist(Array(items));
}
VkPlist VkPlist::dictionary(std::initializer_list<std::pair<const std::string, VkPlist>> items) {
    return VkPlist(Dictionary(items));
}

bool VkPlist::isNumber() const {
    Type t = type();
    return t == Type::Boolean || t == Type::Integer || t == Type::Real;
}

const std::string* VkPlist::asString() const {
    return std::get_if<std::string>(&value_);
}
const VkPlist::Array* VkPlist::asArray() const {
    return std::get_if<Array>(&value_);
}
VkPlist::Array* VkPlist::asArray() {
    return std::get_if<Array>(&value_);
}
const VkPlist::Dictionary* VkPlist::asDictionary() const {
    return std::get_if<Dictionary>(&value_);
}
VkPlist::Dictionary* VkPlist::asDictionary() {
    return std::get_if<Dictionary>(&value_);
}
const VkPlist::Data* VkPlist::asData() const {
    return std::get_if<Data>(&value_);
}

std::optional<bool> VkPlist::asBool() const {
    if (auto b = std::get_if<bool>(&value_))
        return *b;
    if (auto i = std::get_if<int64_t>(&value_))
        return *i != 0;
    if (auto d = std::get_if<double>(&value_))
        return *d != 0.0;
    if (std::holds_alternative<BigUnsigned>(value_))
        return true;
    return std::nullopt;
}

std::optional<int64_t> VkPlist::asInt64() const {
    if (auto i = std::get_if<int64_t>(&value_))
        return *i;
    if (std::holds_alternative<BigUnsigned>(value_))
        return std::numeric_limits<int64_t>::max();
    if (auto b = std::get_if<bool>(&value_))
        return *b ? 1 : 0;
    if (auto d = std::get_if<double>(&value_)) {
        if (std::isnan(*d))
            return 0;
        if (*d >= 9.2e18)
            return std::numeric_limits<int64_t>::max();
        if (*d <= -9.2e18)
            return std::numeric_limits<int64_t>::min();
        return static_cast<int64_t>(*d);
    }
    return std::nullopt;
}

std::optional<uint64_t> VkPlist::asUInt64() const {
    if (auto u = std::get_if<BigUnsigned>(&value_))
        return u->value;
    if (auto d = std::get_if<double>(&value_)) {
        if (std::isnan(*d) || *d <= 0)
            return 0;
        if (*d >= 1.8e19)
            return std::numeric_limits<uint64_t>::max();
        return static_cast<uint64_t>(*d);
    }
    auto i = asInt64();
    if (!i)
        return std::nullopt;
    return static_cast<uint64_t>(*i);
}

std::optional<double> VkPlist::asDouble() const {
    if (auto d = std::get_if<double>(&value_))
        return *d;
    if (auto i = std::get_if<int64_t>(&value_))
        return static_cast<double>(*i);
    if (auto u = std::get_if<BigUnsigned>(&value_))
        return static_cast<double>(u->value);
    if (auto b = std::get_if<bool>(&value_))
        return *b ? 1.0 : 0.0;
    return std::nullopt;
}

std::optional<VkDate> VkPlist::asDate() const {
    if (auto d = std::get_if<VkDate>(&value_))
        return *d;
    return std::nullopt;
}

std::optional<uint64_t> VkPlist::asUid() const {
    if (auto u = std::get_if<Uid>(&value_))
        return u->value;
    return std::nullopt;
}

const VkPlist* VkPlist::get(const std::string& key) const {
    const Dictionary* d = asDictionary();
    if (!d)
        return nullptr;
    auto it = d->find(key);
    return it == d->end() ? nullptr : &it->second;
}

const std::string* VkPlist::getString(const std::string& key) const {
    const VkPlist* v = get(key);
    return v ? v->asString() : nullptr;
}

void VkPlist::set(const std::string& key, VkPlist value) {
    if (isNone())
        value_ = Dictionary{};
    if (Dictionary* d = asDictionary())
        (*d)[key] = std::move(value);
}

void VkPlist::append(VkPlist value) {
    if (isNone())
        value_ = Array{};
    if (Array* a = asArray())
        a->push_back(std::move(value));
}

bool VkPlist::operator==(const VkPlist& other) const {
    return value_ == other.value_;
}

VkResult<VkPlist> VkPlist::parse(const void* bytes, size_t size) {
    if (size == 0)
        return VkError{"empty property list"};
    if (size > std::numeric_limits<uint32_t>::max())
        return VkError{"property list too large"};
    const char* p = static_cast<const char*>(bytes);
    bool binary = size >= 8 && std::memcmp(p, "bplist00", 8) == 0;
    if (binary) {
        // The walker also refuses a string holding a NUL, with the other malformed layouts.
        if (const char* problem = binaryPlistProblem(reinterpret_cast<const uint8_t*>(p), size,
                                                     kMaxDepth, kMaxNodes, kMaxExpandedBytes)) {
            return VkError{problem};
        }
    } else {
        // XML allows no NUL character at all, not even as a reference (libplist refuses
        // those); zero bytes after the document, as a writer that kept a C string's end
        // leaves, are harmless and dropped.
        while (size > 0 && p[size - 1] == '\0')
            --size;
        if (size == 0)
            return VkError{"empty property list"};
        if (std::memchr(p, 0, size))
            return VkError{kNulMessage};
        if (!xmlWithinBounds(p, size, kMaxDepth, kMaxNodes))
            return VkError{kTooDeep};
    }
    plist_t root = nullptr;
    if (binary) {
        plist_from_bin(p, static_cast<uint32_t>(size), &root);
    } else {
        // libplist's XML reader expects to find the document start itself; give it the
        // bytes as they are.
        plist_from_xml(p, static_cast<uint32_t>(size), &root);
    }
    PlistHandle owner(root);
    if (!root)
        return VkError{binary ? "not a valid binary property list" : "not a valid property list"};
    // The guards allow kMaxDepth containers, and a leaf inside the deepest.
    NodeReader reader(kMaxDepth + 1);
    VkPlist value = reader.read(root);
    if (reader.problem)
        return VkError{reader.problem};
    return value;
}

VkResult<VkPlist> VkPlist::readFile(const std::string& path, size_t maxBytes) {
    auto bytes = VkFile::readAll(path, maxBytes);
    if (!bytes)
        return VkError{bytes.error()};
    auto parsed = parse(bytes->data(), bytes->size());
    if (!parsed)
        return VkError{path + ": " + parsed.error()};
    return parsed;
}

std::optional<VkPlist> VkPlist::contentsOfFile(const std::string& path) {
    auto r = readFile(path);
    if (!r)
        return std::nullopt;
    return std::move(r).value();
}

std::string VkPlist::toXml() const {
    PlistHandle node(toNode(*this, false));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node.get(), &xml, &length);
    std::string out = xml ? std::string(xml, length) : std::string();
    if (xml)
        plist_to_xml_free(xml);
    return out;
}

std::vector<uint8_t> VkPlist::toBinary() const {
    PlistHandle node(toNode(*this, true));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(node.get(), &bin, &length);
    std::vector<uint8_t> out;
    if (bin) {
        out.assign(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
        plist_to_bin_free(bin);
    }
    return out;
}

VkResult<void> VkPlist::writeXmlFile(const std::string& path) const {
    return VkFile::writeAtomically(path, toXml());
}

VkResult<void> VkPlist::writeBinaryFile(const std::string& path) const {
    auto bytes = toBinary();
    return VkFile::writeAtomically(path, bytes.data(), bytes.size());
}
