#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "platform/VkDate.h"
#include "platform/VkPlist.h"
#include "platform/VkResult.h"

// The platform's keyed-archive format: a binary property list {"$archiver": "NSKeyedArchiver",
// "$version": 100000, "$top": {"root": UID}, "$objects": ["$null", ...]} in which every object
// is an entry of "$objects" and objects refer to each other by UID. Signature databases keep
// kill lists in it and the file monitor hands its records over in it, so files written by the
// platform's own archiver must stay readable.

class VkKeyedArchiver;
class VkKeyedUnarchiver;

// An object of one of our own classes that travels through keyed archives.
class VkCodable {
  public:
    virtual ~VkCodable() = default;
    // The name stored as "$classname"; the unarchiver finds the class again by it.
    virtual std::string className() const = 0;
    // Writes the object's state with the coder's encode calls.
    virtual void encodeWithCoder(VkKeyedArchiver& coder) const = 0;
};

// One archived object: nil, a plain value (string, number, date, data), an object of a
// registered class, or an array / string-keyed dictionary of such values. Objects compare
// by identity, everything else by value.
class VkArchivedValue {
  public:
    using Array = std::vector<VkArchivedValue>;
    using Dictionary = std::map<std::string, VkArchivedValue>;
    using Object = std::shared_ptr<VkCodable>;

    VkArchivedValue() = default;  // nil
    // Arrays and dictionaries are taken apart recursively; a None value is nil.
    VkArchivedValue(const VkPlist& plain);
    VkArchivedValue(const char* text) : VkArchivedValue(VkPlist(text)) {}
    VkArchivedValue(std::string text) : VkArchivedValue(VkPlist(std::move(text))) {}
    VkArchivedValue(VkDate date) : VkArchivedValue(VkPlist(date)) {}
    // nullopt is nil, as the platform's nil string or date property.
    VkArchivedValue(const std::optional<std::string>& text);
    VkArchivedValue(const std::optional<VkDate>& date);
    VkArchivedValue(Array items) : value_(std::move(items)) {}
    VkArchivedValue(Dictionary items) : value_(std::move(items)) {}
    template <std::derived_from<VkCodable> T>
    VkArchivedValue(std::shared_ptr<T> object) {
        if (object)
            value_ = Object(std::move(object));
    }

    bool isNil() const { return std::holds_alternative<std::monostate>(value_); }
    // Typed views; nullptr / nullopt when the value holds something else.
    const VkPlist* asPlain() const { return std::get_if<VkPlist>(&value_); }
    const std::string* asString() const;
    std::optional<VkDate> asDate() const;
    const Array* asArray() const { return std::get_if<Array>(&value_); }
    const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&value_); }
    Object asObject() const;
    template <class T>
    std::shared_ptr<T> asObject() const {
        return std::dynamic_pointer_cast<T>(asObject());
    }
    // The value as a property list (nil is None); nullopt when an object sits anywhere inside.
    std::optional<VkPlist> toPlist() const;

    bool operator==(const VkArchivedValue& other) const;

  private:
    std::variant<std::monostate, VkPlist, Array, Dictionary, Object> value_;
};

// Writes keyed archives. Strings are stored once and shared; one class description per
// class name; an object reached twice is stored once. Arrays go out as "NSArray",
// dictionaries as "NSDictionary", dates as "NSDate".
class VkKeyedArchiver {
  public:
    // The binary property-list bytes of an archive whose root is root; an error for UID
    // values, objects that contain themselves, nesting past kMaxDepth, or an object whose
    // encodeWithCoder failed.
    static VkResult<std::vector<uint8_t>> archivedDataWithRootObject(const VkArchivedValue& root);

    // ---- Called from encodeWithCoder: members of the object being written ----
    // Stores object (nil included) under key as a reference to its own entry.
    void encodeObject(const VkArchivedValue& object, const std::string& key);
    // Store numbers inline in the object, as the platform's coder does.
    void encodeBool(bool value, const std::string& key);
    void encodeInt64(int64_t value, const std::string& key);
    void encodeDouble(double value, const std::string& key);
    // Makes the whole archiving fail with message.
    void failWithError(std::string message);

    static constexpr size_t kMaxDepth = 128;

  private:
    VkKeyedArchiver();
    uint64_t encodeValue(const VkArchivedValue& value);
    uint64_t reserveEntry();
    uint64_t classUid(const std::string& name, std::vector<std::string> classes);
    void setMember(const std::string& key, VkPlist value);

    VkPlist::Array objects_;
    std::map<std::string, uint64_t> stringUids_;
    std::map<std::string, uint64_t> classUids_;
    std::map<const VkCodable*, uint64_t> objectUids_;
    std::set<const VkCodable*> inProgress_;
    std::vector<VkPlist::Dictionary> members_;  // one per object whose encodeWithCoder runs
    size_t depth_ = 0;
    std::optional<std::string> error_;
};

// Reads keyed archives. Understands NSArray, NSDictionary, NSString, NSData (each also in its
// mutable form), NSDate, the plain values, and the classes registered with registerClass.
// An object of any other class makes the archive unreadable (an error, nothing is skipped),
// as with the platform's own unarchiver. Malformed input (bad UID, reference cycle, wrong
// type, truncated bytes, nesting past kMaxDepth, expansion past kMaxObjects / kMaxBytes) is
// an error, never a crash. One instance decodes one archive at a time.
class VkKeyedUnarchiver {
  public:
    // Builds an object from the coder's members; nullptr refuses the object (and the archive).
    using Factory = std::function<std::shared_ptr<VkCodable>(VkKeyedUnarchiver& coder)>;

    VkKeyedUnarchiver() = default;

    // Lets archives hold objects stored under className; the factory decodes one of them.
    void registerClass(const std::string& className, Factory factory);
    // Decodes the root object of archive bytes. An object reached twice is built once.
    VkResult<VkArchivedValue> unarchiveRootObject(const void* bytes, size_t size);
    VkResult<VkArchivedValue> unarchiveRootObject(const std::vector<uint8_t>& bytes);
    // Decodes an archive of plain values only (an object of our own classes is an error).
    static VkResult<VkPlist> unarchiveObjectWithData(const std::vector<uint8_t>& bytes);

    // ---- Called from a factory: members of the object being decoded ----
    bool containsValueForKey(const std::string& key) const;
    // The member under key; nil when absent or stored as nil.
    VkArchivedValue decodeObjectForKey(const std::string& key);
    // nullopt when absent or nil; a member of another type fails the archive.
    std::optional<std::string> decodeStringForKey(const std::string& key);
    std::optional<VkDate> decodeDateForKey(const std::string& key);
    std::optional<VkPlist::Data> decodeDataForKey(const std::string& key);
    // 0 / false when absent, as the platform's coder; a non-number fails the archive.
    bool decodeBoolForKey(const std::string& key);
    int64_t decodeInt64ForKey(const std::string& key);
    double decodeDoubleForKey(const std::string& key);
    // Makes the whole unarchiving fail with message (a factory's way to refuse bad data).
    void failWithError(std::string message);

    static constexpr size_t kMaxDepth = 128;
    static constexpr size_t kMaxObjects = 1'000'000;  // decoded values, repeats counted
    static constexpr size_t kMaxBytes = 256u << 20;   // decoded string and data bytes

  private:
    VkArchivedValue decodeUid(uint64_t uid);
    VkArchivedValue decodeInstance(uint64_t uid, const VkPlist& entry, const std::string& name);
    VkArchivedValue decodeReferences(uint64_t uid, const VkPlist& entry, const char* key);
    const std::string* classNameOf(uint64_t uid, const VkPlist& entry);
    const VkPlist* member(const std::string& key) const;
    const VkPlist* numberMember(const std::string& key, const char* wanted);
    bool charge(size_t bytes);

    std::map<std::string, Factory> factories_;
    // State of the archive being decoded.
    const VkPlist::Array* objects_ = nullptr;
    std::vector<uint8_t> inProgress_;
    std::map<uint64_t, VkArchivedValue::Object> decodedObjects_;
    std::vector<const VkPlist*> current_;  // members of the objects whose factories run
    size_t depth_ = 0;
    size_t decodedCount_ = 0;
    size_t decodedBytes_ = 0;
    bool busy_ = false;
    std::optional<std::string> error_;
};
