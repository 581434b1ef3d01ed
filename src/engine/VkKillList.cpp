#include "engine/VkKillList.h"

#include <optional>
#include <utility>

#include "platform/VkContainedFs.h"
#include "platform/VkFileUtil.h"

namespace {

bool hasDotDotComponent(const std::string& path) {
    for (const auto& part : VkFile::components(path)) {
        if (part == "..")
            return true;
    }
    return false;
}

// The entry's strings, or nullopt when it is not an array of strings.
std::optional<std::vector<std::string>> stringsOf(const VkPlist& value) {
    const VkPlist::Array* array = value.asArray();
    if (!array)
        return std::nullopt;
    std::vector<std::string> strings;
    strings.reserve(array->size());
    for (const VkPlist& element : *array) {
        const std::string* text = element.asString();
        if (!text)
            return std::nullopt;
        strings.push_back(*text);
    }
    return strings;
}

}  // namespace

VkKillEntry VkKillEntry::deletion(std::string folder, std::string name) {
    VkKillEntry entry;
    entry.kind = Kind::deletePath;
    entry.code = "d";
    entry.folder = std::move(folder);
    entry.name = std::move(name);
    return entry;
}

VkKillEntry VkKillEntry::killing(std::string process) {
    VkKillEntry entry;
    entry.kind = Kind::killProcess;
    entry.code = "k";
    entry.name = std::move(process);
    return entry;
}

std::string VkKillEntry::deleteRefusal() const {
    if (kind != Kind::deletePath)
        return "";
    if (folder.empty())
        return "refusing a removal entry without a folder";
    if (hasDotDotComponent(folder) || hasDotDotComponent(name))
        return "refusing a removal entry with a \"..\" component";
    // A name of "", "/", "." or "./" would make the entry name the folder itself.
    auto nameParts = VkContainedFs::normalise("/" + name);
    if (!nameParts || nameParts->empty())
        return "refusing a removal entry without a file name";
    return "";
}

VkPlist VkKillEntry::toPlist() const {
    VkPlist::Array strings;
    strings.emplace_back(code);
    if (kind == Kind::deletePath)
        strings.emplace_back(folder);
    if (kind != Kind::unknown)
        strings.emplace_back(name);
    for (const auto& s : extra)
        strings.emplace_back(s);
    return VkPlist(std::move(strings));
}

std::string VkKillEntry::text() const {
    std::string out = code;
    if (kind == Kind::deletePath)
        out += ":" + folder;
    if (kind != Kind::unknown)
        out += ":" + name;
    for (const auto& s : extra)
        out += ":" + s;
    return out;
}

VkKillList VkKillList::parse(const VkPlist::Array& stored) {
    VkKillList list;
    for (size_t i = 0; i < stored.size(); ++i) {
        auto drop = [&](std::string reason) {
            list.dropped_.push_back({i + 1, std::move(reason), stored[i]});
        };
        std::optional<std::vector<std::string>> strings = stringsOf(stored[i]);
        if (!strings) {
            drop("is not an array of strings");
            continue;
        }
        if (strings->empty()) {
            drop("is empty");
            continue;
        }
        VkKillEntry entry;
        entry.code = (*strings)[0];
        size_t used = 1;
        if (entry.code == "d") {
            if (strings->size() < 3) {
                drop("is a \"d\" entry without a folder and a name");
                continue;
            }
            entry.kind = VkKillEntry::Kind::deletePath;
            entry.folder = (*strings)[1];
            entry.name = (*strings)[2];
            used = 3;
        } else if (entry.code == "k") {
            if (strings->size() < 2 || (*strings)[1].empty()) {
                drop("is a \"k\" entry without a process name");
                continue;
            }
            entry.kind = VkKillEntry::Kind::killProcess;
            entry.name = (*strings)[1];
            used = 2;
        }
        entry.extra.assign(strings->begin() + static_cast<std::ptrdiff_t>(used), strings->end());
        list.entries_.push_back(std::move(entry));
    }
    return list;
}

VkPlist::Array VkKillList::toArray() const {
    VkPlist::Array array;
    array.reserve(entries_.size() + dropped_.size());
    auto dropped = dropped_.begin();
    for (const auto& entry : entries_) {
        while (dropped != dropped_.end() && dropped->position == array.size() + 1)
            array.push_back((dropped++)->stored);
        array.push_back(entry.toPlist());
    }
    for (; dropped != dropped_.end(); ++dropped)
        array.push_back(dropped->stored);
    return array;
}
