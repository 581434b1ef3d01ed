#include "platform/VkKeyedArchiver.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr int64_t kArchiveVersion = 100000;
constexpr const char* kNullEntry = "$null";
constexpr const char* kClassKey = "$class";

// The platform's coder prefixes members whose names start with "$" with another "$", so
// that they never clash with its own "$class"; reading undoes the same.
std::string escapedKey(const std::string& key) {
    return !key.empty() && key[0] == '$' ? "$" + key : key;
}

std::string describe(uint64_t uid) {
    char text[32];
    std::snprintf(text, sizeof text, "%" PRIu64, uid);
    return text;
}

bool isScalar(VkPlist::Type type) {
    switch (type) {
        case VkPlist::Type::Boolean:
        case VkPlist::Type::Integer:
        case VkPlist::Type::Real:
        case VkPlist::Type::String:
        case VkPlist::Type::Date:
        case VkPlist::Type::Data:
            return true;
        default:
            return false;
    }
}

bool isClass(const std::string& name, const char* immutable) {
    return name == immutable || name == std::string("NSMutable") + (immutable + 2);
}

// The XML form of property lists has no UID type: the platform writes each UID there as a
// dictionary {"CF$UID": n}, which is turned back into a UID here.
void uidsFromXml(VkPlist& value) {
    if (VkPlist::Array* items = value.asArray()) {
        for (VkPlist& item : *items)
            uidsFromXml(item);
        return;
    }
    VkPlist::Dictionary* members = value.asDictionary();
    if (!members)
        return;
    if (members->size() == 1) {
        const VkPlist* uid = value.get("CF$UID");
        if (uid && uid->type() == VkPlist::Type::Integer) {
            uint64_t number = *uid->asUInt64();
            value = VkPlist::uid(number);
            return;
        }
    }
    for (auto& [key, member] : *members)
        uidsFromXml(member);
}

}  // namespace

// ---- VkArchivedValue ----------------------------------------------------------------------

VkArchivedValue::VkArchivedValue(const VkPlist& plain) {
    if (const VkPlist::Array* items = plain.asArray()) {
        Array out;
        out.reserve(items->size());
        for (const VkPlist& item : *items)
            out.emplace_back(item);
        value_ = std::move(out);
    } else if (const VkPlist::Dictionary* items = plain.asDictionary()) {
        Dictionary out;
        for (const auto& [key, item] : *items)
            out.emplace(key, VkArchivedValue(item));
        value_ = std::move(out);
    } else if (!plain.isNone()) {
        value_ = plain;
    }
}

VkArchivedValue::VkArchivedValue(const std::optional<std::string>& text) {
    if (text)
        value_ = VkPlist(*text);
}

VkArchivedValue::VkArchivedValue(const std::optional<VkDate>& date) {
    if (date)
        value_ = VkPlist(*date);
}

const std::string* VkArchivedValue::asString() const {
    const VkPlist* plain = asPlain();
    return plain ? plain->asString() : nullptr;
}

std::optional<VkDate> VkArchivedValue::asDate() const {
    const VkPlist* plain = asPlain();
    return plain ? plain->asDate() : std::nullopt;
}

VkArchivedValue::Object VkArchivedValue::asObject() const {
    const Object* object = std::get_if<Object>(&value_);
    return object ? *object : nullptr;
}

std::optional<VkPlist> VkArchivedValue::toPlist() const {
    if (isNil())
        return VkPlist();
    if (const VkPlist* plain = asPlain())
        return *plain;
    if (const Array* items = asArray()) {
        VkPlist::Array out;
        out.reserve(items->size());
        for (const VkArchivedValue& item : *items) {
            auto converted = item.toPlist();
            if (!converted)
                return std::nullopt;
            out.push_back(std::move(*converted));
        }
        return VkPlist(std::move(out));
    }
    if (const Dictionary* items = asDictionary()) {
        VkPlist::Dictionary out;
        for (const auto& [key, item] : *items) {
            auto converted = item.toPlist();
            if (!converted)
                return std::nullopt;
            out.emplace(key, std::move(*converted));
        }
        return VkPlist(std::move(out));
    }
    return std::nullopt;
}

bool VkArchivedValue::operator==(const VkArchivedValue& other) const {
    return value_ == other.value_;
}

// ---- VkKeyedArchiver ----------------------------------------------------------------------

VkKeyedArchiver::VkKeyedArchiver() {
    objects_.push_back(VkPlist(kNullEntry));
}

VkResult<std::vector<uint8_t>> VkKeyedArchiver::archivedDataWithRootObject(
    const VkArchivedValue& root) {
    VkKeyedArchiver archiver;
    uint64_t rootUid = archiver.encodeValue(root);
    if (archiver.error_)
        return VkError{"cannot archive: " + *archiver.error_};
    VkPlist top = VkPlist::dictionary({
        {"$archiver", kArchiverName},
        {"$version", VkPlist::integer(kArchiveVersion)},
        {"$top", VkPlist::dictionary({{"root", VkPlist::uid(rootUid)}})},
    });
    top.set("$objects", VkPlist(std::move(archiver.objects_)));
    auto bytes = top.toBinary();
    if (bytes.empty())
        return VkError{"cannot archive: the property-list writer failed"};
    return bytes;
}

uint64_t VkKeyedArchiver::reserveEntry() {
    objects_.emplace_back();
    return objects_.size() - 1;
}

uint64_t VkKeyedArchiver::classUid(const std::string& name, std::vector<std::string> classes) {
    auto found = classUids_.find(name);
    if (found != classUids_.end())
        return found->second;
    VkPlist::Array chain(classes.begin(), classes.end());
    objects_.push_back(
        VkPlist::dictionary({{"$classname", name}, {"$classes", VkPlist(std::move(chain))}}));
    uint64_t uid = objects_.size() - 1;
    classUids_.emplace(name, uid);
    return uid;
}

uint64_t VkKeyedArchiver::encodeValue(const VkArchivedValue& value) {
    if (error_ || value.isNil())
        return 0;
    if (depth_ >= kMaxDepth) {
        failWithError("objects nested too deeply");
        return 0;
    }
    struct DepthScope {
        size_t& depth;
        explicit DepthScope(size_t& d) : depth(d) { ++depth; }
        ~DepthScope() { --depth; }
    } scope(depth_);

    if (const VkPlist* plain = value.asPlain()) {
        if (const std::string* text = plain->asString()) {
            // Equal strings are stored once, as the platform's archiver does.
            auto [it, added] = stringUids_.emplace(*text, objects_.size());
            if (added)
                objects_.push_back(*plain);
            return it->second;
        }
        if (auto date = plain->asDate()) {
            uint64_t uid = reserveEntry();
            uint64_t cls = classUid("NSDate", {"NSDate", "NSObject"});
            objects_[uid] = VkPlist::dictionary(
                {{"NS.time", VkPlist::real(date->secondsSince1970 - VkDate::kReferenceDateOffset)},
                 {kClassKey, VkPlist::uid(cls)}});
            return uid;
        }
        if (plain->type() == VkPlist::Type::Uid) {
            failWithError("a UID is no object and cannot be archived");
            return 0;
        }
        objects_.push_back(*plain);
        return objects_.size() - 1;
    }

    if (const VkArchivedValue::Array* items = value.asArray()) {
        uint64_t uid = reserveEntry();
        VkPlist::Array refs;
        refs.reserve(items->size());
        for (const VkArchivedValue& item : *items) {
            if (item.isNil()) {
                failWithError("an array cannot hold nil");
                return 0;
            }
            refs.push_back(VkPlist::uid(encodeValue(item)));
        }
        uint64_t cls = classUid("NSArray", {"NSArray", "NSObject"});
        objects_[uid] = VkPlist::dictionary(
            {{"NS.objects", VkPlist(std::move(refs))}, {kClassKey, VkPlist::uid(cls)}});
        return uid;
    }

    if (const VkArchivedValue::Dictionary* items = value.asDictionary()) {
        uint64_t uid = reserveEntry();
        VkPlist::Array keys;
        VkPlist::Array refs;
        for (const auto& [key, item] : *items) {
            if (item.isNil()) {
                failWithError("a dictionary cannot hold nil");
                return 0;
            }
            keys.push_back(VkPlist::uid(encodeValue(VkArchivedValue(key))));
            refs.push_back(VkPlist::uid(encodeValue(item)));
        }
        uint64_t cls = classUid("NSDictionary", {"NSDictionary", "NSObject"});
        objects_[uid] = VkPlist::dictionary({{"NS.keys", VkPlist(std::move(keys))},
                                             {"NS.objects", VkPlist(std::move(refs))},
                                             {kClassKey, VkPlist::uid(cls)}});
        return uid;
    }

    VkArchivedValue::Object object = value.asObject();
    auto known = objectUids_.find(object.get());
    if (known != objectUids_.end()) {
        // Stored already; while it is still being written this is a cycle, which the
        // unarchiver would refuse, so it is refused here as well.
        if (inProgress_.count(object.get())) {
            failWithError("object of class " + object->className() + " contains itself");
            return 0;
        }
        return known->second;
    }
    std::string name = object->className();
    if (name.empty()) {
        failWithError("an object has an empty class name");
        return 0;
    }
    uint64_t uid = reserveEntry();
    objectUids_.emplace(object.get(), uid);
    inProgress_.insert(object.get());
    members_.emplace_back();
    object->encodeWithCoder(*this);
    VkPlist::Dictionary members = std::move(members_.back());
    members_.pop_back();
    inProgress_.erase(object.get());
    if (error_)
        return 0;
    members[kClassKey] = VkPlist::uid(classUid(name, {name, "NSObject"}));
    objects_[uid] = VkPlist(std::move(members));
    return uid;
}

void VkKeyedArchiver::setMember(const std::string& key, VkPlist value) {
    if (members_.empty()) {
        failWithError("encode called outside of encodeWithCoder");
        return;
    }
    members_.back()[escapedKey(key)] = std::move(value);
}

void VkKeyedArchiver::encodeObject(const VkArchivedValue& object, const std::string& key) {
    uint64_t uid = encodeValue(object);
    setMember(key, VkPlist::uid(uid));
}

void VkKeyedArchiver::encodeBool(bool value, const std::string& key) {
    setMember(key, VkPlist::boolean(value));
}

void VkKeyedArchiver::encodeInt64(int64_t value, const std::string& key) {
    setMember(key, VkPlist::integer(value));
}

void VkKeyedArchiver::encodeDouble(double value, const std::string& key) {
    setMember(key, VkPlist::real(value));
}

void VkKeyedArchiver::failWithError(std::string message) {
    if (!error_)
        error_ = std::move(message);
}

// ---- VkKeyedUnarchiver --------------------------------------------------------------------

void VkKeyedUnarchiver::registerClass(const std::string& className, Factory factory) {
    factories_[className] = std::move(factory);
}

VkResult<VkArchivedValue> VkKeyedUnarchiver::unarchiveRootObject(
    const std::vector<uint8_t>& bytes) {
    return unarchiveRootObject(bytes.data(), bytes.size());
}

VkResult<VkArchivedValue> VkKeyedUnarchiver::unarchiveRootObject(const void* bytes, size_t size) {
    if (busy_)
        return VkError{"keyed archive: the unarchiver is already decoding"};
    auto parsed = VkPlist::parse(bytes, size);
    if (!parsed)
        return VkError{"keyed archive: " + parsed.error()};
    if (size < 8 || std::memcmp(bytes, "bplist00", 8) != 0)
        uidsFromXml(*parsed);
    const VkPlist& top = *parsed;
    const std::string* archiver = top.getString("$archiver");
    if (!archiver || *archiver != kArchiverName)
        return VkError{"keyed archive: not a keyed archive (no \"$archiver\")"};
    const VkPlist* version = top.get("$version");
    if (version && !version->isNumber())
        return VkError{"keyed archive: \"$version\" is not a number"};
    const VkPlist* objects = top.get("$objects");
    if (!objects || !objects->isArray())
        return VkError{"keyed archive: \"$objects\" is missing or not an array"};
    const VkPlist* topObjects = top.get("$top");
    if (!topObjects || !topObjects->isDictionary())
        return VkError{"keyed archive: \"$top\" is missing or not a dictionary"};
    const VkPlist* root = topObjects->get("root");
    if (!root || !root->asUid())
        return VkError{"keyed archive: no root object reference in \"$top\""};

    // The state of one archive lives as long as this call, however the call is left.
    struct Session {
        VkKeyedUnarchiver& self;
        Session(VkKeyedUnarchiver& s, const VkPlist::Array* objects) : self(s) {
            self.busy_ = true;
            self.objects_ = objects;
            self.inProgress_.assign(objects->size(), 0);
            self.depth_ = self.decodedCount_ = self.decodedBytes_ = 0;
        }
        ~Session() {
            self.objects_ = nullptr;
            self.inProgress_.clear();
            self.decodedObjects_.clear();
            self.current_.clear();
            self.error_.reset();
            self.busy_ = false;
        }
    } session(*this, objects->asArray());

    VkArchivedValue result = decodeUid(*root->asUid());
    if (error_)
        return VkError{"keyed archive: " + *error_};
    return result;
}

VkResult<VkPlist> VkKeyedUnarchiver::unarchiveObjectWithData(const std::vector<uint8_t>& bytes) {
    VkKeyedUnarchiver unarchiver;
    auto decoded = unarchiver.unarchiveRootObject(bytes);
    if (!decoded)
        return VkError{decoded.error()};
    // No class is registered, so no object can be inside; kept as a check all the same.
    auto plain = decoded->toPlist();
    if (!plain)
        return VkError{"keyed archive: holds objects that are no property-list values"};
    return std::move(*plain);
}

void VkKeyedUnarchiver::failWithError(std::string message) {
    if (!error_)
        error_ = std::move(message);
}

bool VkKeyedUnarchiver::charge(size_t bytes) {
    // Shared references let a small archive name the same large value many times; each
    // repeat is copied, so repeats are what is counted.
    ++decodedCount_;
    decodedBytes_ += bytes;
    if (decodedCount_ > kMaxObjects || decodedBytes_ > kMaxBytes) {
        failWithError("archive expands past the size limit");
        return false;
    }
    return true;
}

VkArchivedValue VkKeyedUnarchiver::decodeUid(uint64_t uid) {
    if (error_ || !objects_ || uid == 0)
        return {};
    if (uid >= objects_->size()) {
        failWithError("reference " + describe(uid) + " is out of range");
        return {};
    }
    if (inProgress_[uid]) {
        failWithError("object " + describe(uid) + " contains itself (reference cycle)");
        return {};
    }
    if (depth_ >= kMaxDepth) {
        failWithError("objects nested too deeply");
        return {};
    }
    auto known = decodedObjects_.find(uid);
    if (known != decodedObjects_.end()) {
        charge(0);
        return VkArchivedValue(known->second);
    }
    const VkPlist& entry = (*objects_)[uid];
    if (isScalar(entry.type())) {
        size_t bytes = 0;
        if (const std::string* text = entry.asString())
            bytes = text->size();
        else if (const VkPlist::Data* data = entry.asData())
            bytes = data->size();
        if (!charge(bytes))
            return {};
        return VkArchivedValue(entry);
    }
    if (!entry.isDictionary()) {
        failWithError("object " + describe(uid) + " is neither a value nor an object");
        return {};
    }
    const std::string* name = classNameOf(uid, entry);
    if (!name || !charge(0))
        return {};
    inProgress_[uid] = 1;
    ++depth_;
    VkArchivedValue result = decodeInstance(uid, entry, *name);
    --depth_;
    inProgress_[uid] = 0;
    if (error_)
        return {};
    return result;
}

const std::string* VkKeyedUnarchiver::classNameOf(uint64_t uid, const VkPlist& entry) {
    const VkPlist* classRef = entry.get(kClassKey);
    auto classUid = classRef ? classRef->asUid() : std::nullopt;
    if (!classUid) {
        failWithError("object " + describe(uid) + " has no class reference");
        return nullptr;
    }
    if (*classUid == 0 || *classUid >= objects_->size()) {
        failWithError("class reference of object " + describe(uid) + " is out of range");
        return nullptr;
    }
    const std::string* name = (*objects_)[*classUid].getString("$classname");
    if (!name) {
        failWithError("class reference of object " + describe(uid) + " names no class description");
        return nullptr;
    }
    return name;
}

VkArchivedValue VkKeyedUnarchiver::decodeReferences(uint64_t uid, const VkPlist& entry,
                                                    const char* key) {
    const VkPlist* refs = entry.get(key);
    const VkPlist::Array* list = refs ? refs->asArray() : nullptr;
    if (!list) {
        failWithError(std::string("\"") + key + "\" of object " + describe(uid) +
                      " is not an array");
        return {};
    }
    VkArchivedValue::Array items;
    items.reserve(list->size());
    for (const VkPlist& ref : *list) {
        auto child = ref.asUid();
        if (!child) {
            failWithError(std::string("\"") + key + "\" of object " + describe(uid) +
                          " holds a non-reference");
            return {};
        }
        VkArchivedValue item = decodeUid(*child);
        if (error_)
            return {};
        if (item.isNil()) {
            failWithError("collection " + describe(uid) + " holds nil");
            return {};
        }
        items.push_back(std::move(item));
    }
    return VkArchivedValue(std::move(items));
}

VkArchivedValue VkKeyedUnarchiver::decodeInstance(uint64_t uid, const VkPlist& entry,
                                                  const std::string& name) {
    auto factory = factories_.find(name);
    if (factory != factories_.end()) {
        current_.push_back(&entry);
        std::shared_ptr<VkCodable> object = factory->second(*this);
        current_.pop_back();
        if (error_)
            return {};
        if (!object) {
            failWithError("object " + describe(uid) + " of class " + name + " was refused");
            return {};
        }
        decodedObjects_.emplace(uid, object);
        return VkArchivedValue(std::move(object));
    }
    if (isClass(name, "NSArray"))
        return decodeReferences(uid, entry, "NS.objects");
    if (isClass(name, "NSDictionary")) {
        VkArchivedValue keys = decodeReferences(uid, entry, "NS.keys");
        VkArchivedValue values = decodeReferences(uid, entry, "NS.objects");
        if (error_)
            return {};
        const VkArchivedValue::Array& keyList = *keys.asArray();
        const VkArchivedValue::Array& valueList = *values.asArray();
        if (keyList.size() != valueList.size()) {
            failWithError("dictionary " + describe(uid) + " has " + describe(keyList.size()) +
                          " keys but " + describe(valueList.size()) + " values");
            return {};
        }
        VkArchivedValue::Dictionary items;
        for (size_t i = 0; i < keyList.size(); ++i) {
            const std::string* key = keyList[i].asString();
            if (!key) {
                failWithError("dictionary " + describe(uid) + " has a key that is no string");
                return {};
            }
            items.insert_or_assign(*key, valueList[i]);
        }
        return VkArchivedValue(std::move(items));
    }
    if (isClass(name, "NSString")) {
        const VkPlist* text = entry.get("NS.string");
        if (!text || !text->isString()) {
            failWithError("string object " + describe(uid) + " has no \"NS.string\"");
            return {};
        }
        return charge(text->asString()->size()) ? VkArchivedValue(*text) : VkArchivedValue();
    }
    if (isClass(name, "NSData")) {
        const VkPlist* data = entry.get("NS.data");
        if (!data || !data->asData()) {
            failWithError("data object " + describe(uid) + " has no \"NS.data\"");
            return {};
        }
        return charge(data->asData()->size()) ? VkArchivedValue(*data) : VkArchivedValue();
    }
    if (name == "NSDate") {
        const VkPlist* time = entry.get("NS.time");
        auto seconds = time && time->isNumber() ? time->asDouble() : std::nullopt;
        if (!seconds) {
            failWithError("date object " + describe(uid) + " has no \"NS.time\"");
            return {};
        }
        return VkArchivedValue(VkDate{VkDate::kReferenceDateOffset + *seconds});
    }
    failWithError("cannot decode object " + describe(uid) + " of unknown class " + name);
    return {};
}

const VkPlist* VkKeyedUnarchiver::member(const std::string& key) const {
    if (current_.empty())
        return nullptr;
    return current_.back()->get(escapedKey(key));
}

bool VkKeyedUnarchiver::containsValueForKey(const std::string& key) const {
    return member(key) != nullptr;
}

VkArchivedValue VkKeyedUnarchiver::decodeObjectForKey(const std::string& key) {
    if (error_)
        return {};
    if (current_.empty()) {
        failWithError("decode called outside of a class factory");
        return {};
    }
    const VkPlist* value = member(key);
    if (!value)
        return {};
    if (auto uid = value->asUid())
        return decodeUid(*uid);
    if (isScalar(value->type()))
        return VkArchivedValue(*value);
    failWithError("member \"" + key + "\" is neither a reference nor a value");
    return {};
}

std::optional<std::string> VkKeyedUnarchiver::decodeStringForKey(const std::string& key) {
    VkArchivedValue value = decodeObjectForKey(key);
    if (value.isNil())
        return std::nullopt;
    if (const std::string* text = value.asString())
        return *text;
    failWithError("member \"" + key + "\" is not a string");
    return std::nullopt;
}

std::optional<VkDate> VkKeyedUnarchiver::decodeDateForKey(const std::string& key) {
    VkArchivedValue value = decodeObjectForKey(key);
    if (value.isNil())
        return std::nullopt;
    if (auto date = value.asDate())
        return date;
    failWithError("member \"" + key + "\" is not a date");
    return std::nullopt;
}

std::optional<VkPlist::Data> VkKeyedUnarchiver::decodeDataForKey(const std::string& key) {
    VkArchivedValue value = decodeObjectForKey(key);
    if (value.isNil())
        return std::nullopt;
    if (const VkPlist* plain = value.asPlain(); plain && plain->asData())
        return *plain->asData();
    failWithError("member \"" + key + "\" is not data");
    return std::nullopt;
}

const VkPlist* VkKeyedUnarchiver::numberMember(const std::string& key, const char* wanted) {
    if (error_)
        return nullptr;
    const VkPlist* value = member(key);
    if (value && !value->isNumber()) {
        failWithError("member \"" + key + "\" is not " + wanted);
        return nullptr;
    }
    return value;
}

bool VkKeyedUnarchiver::decodeBoolForKey(const std::string& key) {
    const VkPlist* value = numberMember(key, "a boolean");
    return value ? value->asBool().value_or(false) : false;
}

int64_t VkKeyedUnarchiver::decodeInt64ForKey(const std::string& key) {
    const VkPlist* value = numberMember(key, "an integer");
    return value ? value->asInt64().value_or(0) : 0;
}

double VkKeyedUnarchiver::decodeDoubleForKey(const std::string& key) {
    const VkPlist* value = numberMember(key, "a number");
    return value ? value->asDouble().value_or(0) : 0;
}
