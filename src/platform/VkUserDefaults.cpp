#include "platform/VkUserDefaults.h"

#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkFileLock.h"
#include "platform/VkFileUtil.h"

VkUserDefaults::VkUserDefaults(std::string path) : path_(std::move(path)) {
    std::lock_guard lock(mutex_);
    refreshLocked();
}

void VkUserDefaults::refreshLocked(bool force) {
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0) {
        // No file (any more): nothing stored. Keep what we had if we never read one.
        if (haveStamp_) {
            values_.clear();
            ++generation_;
        }
        haveStamp_ = false;
        return;
    }
    if (!force && haveStamp_ && st.st_dev == dev_ && st.st_ino == ino_ && st.st_size == size_ &&
        st.st_mtim.tv_sec == mtime_.tv_sec && st.st_mtim.tv_nsec == mtime_.tv_nsec) {
        return;
    }
    auto parsed = VkPlist::readFile(path_, kMaxFileBytes);
    ++generation_;
    if (parsed && parsed->isDictionary()) {
        values_ = *parsed->asDictionary();
    } else {
        // An unreadable file is moved aside, never overwritten: the user's data stays.
        char stamp[32];
        std::time_t t = std::time(nullptr);
        std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", std::gmtime(&t));
        std::string aside = path_ + ".unreadable-" + stamp + "-" + std::to_string(::getpid());
        if (::rename(path_.c_str(), aside.c_str()) == 0)
            quarantined_ = aside;
        values_.clear();
        haveStamp_ = false;
        return;
    }
    haveStamp_ = true;
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    size_ = st.st_size;
    mtime_ = st.st_mtim;
}

bool VkUserDefaults::saveLocked(bool* tooLarge) {
    std::string xml = VkPlist(values_).toXml();
    if (tooLarge)
        *tooLarge = xml.size() > kMaxFileBytes;
    if (xml.size() > kMaxFileBytes)
        return false;
    // The trust list lives here: readable by its owner only, like every other list.
    auto written = VkFile::writeAtomically(path_, xml, 0600);
    struct stat st {};
    if (written && ::stat(path_.c_str(), &st) == 0) {
        haveStamp_ = true;
        dev_ = st.st_dev;
        ino_ = st.st_ino;
        size_ = st.st_size;
        mtime_ = st.st_mtim;
    }
    return written.ok();
}

void VkUserDefaults::registerDefaults(const VkPlist::Dictionary& defaults) {
    std::lock_guard lock(mutex_);
    for (const auto& [k, v] : defaults)
        registered_[k] = v;
    ++generation_;
}

std::optional<VkPlist> VkUserDefaults::objectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    refreshLocked();
    if (auto it = values_.find(key); it != values_.end())
        return it->second;
    if (auto it = registered_.find(key); it != registered_.end())
        return it->second;
    return std::nullopt;
}

bool VkUserDefaults::boolForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v)
        return false;
    if (auto b = v->asBool())
        return *b;
    if (auto s = v->asString())
        return *s == "YES" || *s == "yes" || *s == "true" || *s == "1";
    return false;
}

int64_t VkUserDefaults::integerForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v)
        return 0;
    if (auto i = v->asInt64())
        return *i;
    if (auto s = v->asString())
        return std::strtoll(s->c_str(), nullptr, 10);
    return 0;
}

double VkUserDefaults::doubleForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v)
        return 0.0;
    if (auto d = v->asDouble())
        return *d;
    if (auto s = v->asString())
        return std::strtod(s->c_str(), nullptr);
    return 0.0;
}

std::optional<VkDate> VkUserDefaults::dateForKey(const std::string& key) {
    auto v = objectForKey(key);
    return v ? v->asDate() : std::nullopt;
}

std::optional<std::string> VkUserDefaults::stringForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v || !v->asString())
        return std::nullopt;
    return *v->asString();
}

std::optional<VkPlist::Array> VkUserDefaults::arrayForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v || !v->asArray())
        return std::nullopt;
    return *v->asArray();
}

bool VkUserDefaults::updateObject(const std::string& key,
                                  const std::function<void(std::optional<VkPlist>&)>& change) {
    std::lock_guard lock(mutex_);
    VkFile::createDirectory(VkFile::deletingLastPathComponent(path_), true, 0700);
    VkFileLock fileLock(path_);
    VkFileLock::removeStaleTemporaries(path_);
    // Under the lock the file is read whatever its stamp says: a change by another
    // process within the same time tick must not be missed.
    refreshLocked(true);
    std::optional<VkPlist> value;
    std::optional<VkPlist> before;
    if (auto it = values_.find(key); it != values_.end())
        value = before = it->second;
    change(value);
    ++generation_;
    if (value)
        values_[key] = std::move(*value);
    else
        values_.erase(key);
    bool tooLarge = false;
    if (saveLocked(&tooLarge))
        return true;
    // A change too large to write takes no effect here either: what is stored stays in use.
    if (tooLarge) {
        if (before)
            values_[key] = std::move(*before);
        else
            values_.erase(key);
    }
    return false;
}

bool VkUserDefaults::setObject(const std::string& key, VkPlist value) {
    return updateObject(key, [&](std::optional<VkPlist>& slot) { slot = std::move(value); });
}

bool VkUserDefaults::setBool(const std::string& key, bool value) {
    return setObject(key, VkPlist::boolean(value));
}
bool VkUserDefaults::setInteger(const std::string& key, int64_t value) {
    return setObject(key, VkPlist::integer(value));
}
bool VkUserDefaults::setDouble(const std::string& key, double value) {
    return setObject(key, VkPlist::real(value));
}

bool VkUserDefaults::removeObject(const std::string& key) {
    return updateObject(key, [](std::optional<VkPlist>& slot) { slot.reset(); });
}

uint64_t VkUserDefaults::generation() {
    std::lock_guard lock(mutex_);
    refreshLocked();
    return generation_;
}

std::string VkUserDefaults::quarantinedCopy() const {
    std::lock_guard lock(mutex_);
    return quarantined_;
}
