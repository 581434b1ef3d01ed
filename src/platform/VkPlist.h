#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/VkDate.h"
#include "platform/VkResult.h"

// A property-list value: boolean, integer, real, string, date, data, array, dictionary,
// or a keyed-archive UID. Arrays keep their order; dictionaries are keyed by string.
// Read from XML or binary through libplist; written as XML (or binary on request).
class VkPlist {
  public:
    enum class Type { None, Boolean, Integer, Real, String, Date, Data, Array, Dictionary, Uid };

    using Array = std::vector<VkPlist>;
    using Dictionary = std::map<std::string, VkPlist>;
    using Data = std::vector<uint8_t>;
    struct Uid {
        uint64_t value = 0;
        bool operator==(const Uid&) const = default;
    };
    // An integer above INT64_MAX, which a property list may hold: kept apart so that it is
    // written back as the same unsigned number, not as a negative one.
    struct BigUnsigned {
        uint64_t value = 0;
        bool operator==(const BigUnsigned&) const = default;
    };

    VkPlist() = default;
    VkPlist(const char* text) : value_(std::string(text)) {}
    VkPlist(std::string text) : value_(std::move(text)) {}
    VkPlist(Array items) : value_(std::move(items)) {}
    VkPlist(Dictionary items) : value_(std::move(items)) {}
    VkPlist(VkDate date) : value_(date) {}
    VkPlist(Data bytes) : value_(std::move(bytes)) {}

    static VkPlist boolean(bool v);
    static VkPlist integer(int64_t v);
    static VkPlist unsignedInteger(uint64_t v);
    static VkPlist real(double v);
    static VkPlist uid(uint64_t v);
    static VkPlist array(std::initializer_list<VkPlist> items = {});
    static VkPlist dictionary(
        std::initializer_list<std::pair<const std::string, VkPlist>> items = {});

    Type type() const {
        return std::holds_alternative<BigUnsigned>(value_) ? Type::Integer
                                                           : static_cast<Type>(value_.index());
    }
    bool isNone() const { return type() == Type::None; }
    bool isString() const { return type() == Type::String; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }
    bool isDate() const { return type() == Type::Date; }
    bool isNumber() const;  // boolean, integer or real

    // Typed views; nullptr / nullopt when the value has another type. Numbers convert
    // between each other the way the platform's number object does (an unsigned integer
    // above INT64_MAX reads as INT64_MAX through asInt64).
    const std::string* asString() const;
    const Array* asArray() const;
    Array* asArray();
    const Dictionary* asDictionary() const;
    Dictionary* asDictionary();
    const Data* asData() const;
    std::optional<bool> asBool() const;
    std::optional<int64_t> asInt64() const;
    std::optional<uint64_t> asUInt64() const;
    std::optional<double> asDouble() const;
    std::optional<VkDate> asDate() const;
    std::optional<uint64_t> asUid() const;

    // Dictionary member, or nullptr when this is no dictionary or the key is absent.
    const VkPlist* get(const std::string& key) const;
    // Dictionary member as a string, or nullptr.
    const std::string* getString(const std::string& key) const;
    // Sets a member; turns a None value into an empty dictionary first.
    void set(const std::string& key, VkPlist value);
    // Appends to an array; turns a None value into an empty array first.
    void append(VkPlist value);

    bool operator==(const VkPlist& other) const;

    // Parses XML or binary property-list bytes. Input nested deeper than kMaxDepth, whose
    // binary object graph is malformed or would expand past kMaxNodes, or with a NUL
    // character inside a string or key, is refused (the NUL before it reaches the parser,
    // whose getters would abort on it).
    static VkResult<VkPlist> parse(const void* bytes, size_t size);
    // Reads a file (following links); refuses files larger than maxBytes.
    static VkResult<VkPlist> readFile(const std::string& path,
                                      size_t maxBytes = kDefaultMaxFileBytes);
    // Reads a file; nullopt on any failure (the platform's "contents of file" reads).
    static std::optional<VkPlist> contentsOfFile(const std::string& path);

    // A NUL inside a string or key, which no property list can carry, is written as
    // U+FFFD, and so is, in the binary form only, each byte of text that is not UTF-8;
    // dates are clamped to the years 1 to 9999, which the XML form can write (and a date
    // that is not a number is written as the reference date). Integers keep their full
    // signed or unsigned 64-bit value.
    std::string toXml() const;
    std::vector<uint8_t> toBinary() const;
    // Writes the XML form atomically (temporary file in the same folder, then rename).
    VkResult<void> writeXmlFile(const std::string& path) const;
    VkResult<void> writeBinaryFile(const std::string& path) const;

    static constexpr size_t kMaxDepth = 256;
    static constexpr size_t kMaxNodes = 4'000'000;
    static constexpr size_t kDefaultMaxFileBytes = 64u << 20;

  private:
    // In the order of Type; BigUnsigned, last, is an Integer.
    std::variant<std::monostate, bool, int64_t, double, std::string, VkDate, Data, Array,
                 Dictionary, Uid, BigUnsigned>
        value_;
};
