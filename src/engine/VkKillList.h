#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/VkPlist.h"

// One removal instruction of a signature record, as removal acts on it.
struct VkKillEntry {
    enum class Kind {
        deletePath,   // "d": delete folder/name
        killProcess,  // "k": end every process called name
        unknown,      // any other code: kept, removal ignores it
    };

    Kind kind = Kind::unknown;
    // The code as stored ("d", "k", or whatever an unknown entry said).
    std::string code;
    // deletePath only.
    std::string folder;
    // deletePath: the file or folder name below `folder`; killProcess: the process name.
    std::string name;
    // Strings stored after the ones above (a "k" entry's third element, an unknown entry's
    // arguments): removal reads nothing from them, a rewrite keeps them.
    std::vector<std::string> extra;

    static VkKillEntry deletion(std::string folder, std::string name);
    static VkKillEntry killing(std::string process);

    // Why removal refuses this "d" entry whatever the disk holds, or "" when it may go on to
    // the contained deletion (which has refusals of its own). "" for other kinds.
    std::string deleteRefusal() const;
    // The entry as stored: an array of strings.
    VkPlist toPlist() const;
    // For people: "d:FOLDER:NAME", "k:PROCESS", "CODE:ARG...".
    std::string text() const;

    bool operator==(const VkKillEntry&) const = default;
};

// A record's removal instructions ("kill list"), read once when the record is loaded: the
// well-formed entries in their order, and what was dropped with the reason. Nothing after
// the load looks at the stored arrays again.
class VkKillList {
  public:
    // An entry left out at load: its place in the stored list (from 1), why, and the value
    // as stored (kept only so that a rewrite loses nothing; removal never reads it).
    struct Dropped {
        size_t position = 0;
        std::string reason;
        VkPlist stored;
        bool operator==(const Dropped&) const = default;
    };

    VkKillList() = default;
    explicit VkKillList(std::vector<VkKillEntry> entries) : entries_(std::move(entries)) {}

    // Fails closed, never throws: an entry that is not an array of strings, or lacks what its
    // code needs (a "d" folder and name, a non-empty "k" process name), is dropped and noted.
    static VkKillList parse(const VkPlist::Array& stored);

    const std::vector<VkKillEntry>& entries() const { return entries_; }
    const std::vector<Dropped>& dropped() const { return dropped_; }
    size_t droppedCount() const { return dropped_.size(); }
    // Nothing was stored, not even a dropped entry: removal then deletes the detected file.
    // A list whose every entry was dropped still held instructions, so it deletes nothing.
    bool empty() const { return entries_.empty() && dropped_.empty(); }

    // The list as stored: the entries, with the dropped values back in their places, so
    // that a rewrite neither loses an entry nor turns a list of dropped ones into an empty
    // list (which would delete the detected file instead).
    VkPlist::Array toArray() const;

    bool operator==(const VkKillList&) const = default;

  private:
    std::vector<VkKillEntry> entries_;
    std::vector<Dropped> dropped_;
};
