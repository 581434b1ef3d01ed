#include "database/VkUpdatePublisher.h"

#include <memory>
#include <set>

#include "database/VkAddTorjanItems.h"
#include "database/VkDataBaseCheck.h"
#include "database/VkManifestCipher.h"
#include "database/VkSqliteManager.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"

VkPlist VkUpdatePublisher::manifest(const std::vector<Entry>& entries, std::optional<VkDate> date) {
    VkPlist root = VkPlist::array();
    for (const Entry& entry : entries) {
        VkPlist item = VkPlist::dictionary(
            {{"name", entry.name}, {"version", entry.version}, {"webpath", entry.webpath}});
        if (!entry.sha256.empty())
            item.set("sha256", entry.sha256);
        root.append(std::move(item));
    }
    if (date)
        root.append(*date);
    return root;
}

std::vector<uint8_t> VkUpdatePublisher::manifestBody(const VkPlist& manifest) {
    std::string xml = manifest.toXml();
    return VkManifestCipher::encrypt(std::vector<uint8_t>(xml.begin(), xml.end()))
        .value_or(std::vector<uint8_t>{});
}

std::string VkUpdatePublisher::updateFolder(const std::string& outDir) {
    return VkFile::join(outDir, VkAddTorjanItems::kManifestFolder);
}

VkResult<std::vector<VkUpdatePublisher::Entry>> VkUpdatePublisher::publish(
    const std::string& outDir, const std::vector<std::string>& databases,
    std::optional<VkDate> date) {
    if (databases.empty())
        return VkError{"no database to publish"};

    std::vector<Entry> entries;
    std::vector<std::string> contents;
    std::set<std::string> webpaths;
    std::set<std::string> names;
    VkSqliteManager manager(std::make_shared<VkContext>());
    for (const std::string& path : databases) {
        // Clients install only files ending in ".sql"; anything else would stay staged forever.
        if (VkFile::pathExtension(path) != "sql")
            return VkError{path + ": the file name must end in \".sql\""};
        if (auto format = VkDataBaseCheck::checkFormat(path); !format)
            return VkError{format.error()};
        auto info = manager.dataBaseForPath(path);
        if (!info || info->name().value_or("").empty() || info->version().value_or("").empty())
            return VkError{path + ": the database has no name and version"};
        Entry entry;
        entry.name = *info->name();
        entry.version = *info->version();
        entry.webpath = VkFile::lastPathComponent(path);
        // The update skips any other file name; publishing one would only mislead.
        if (!VkAddTorjanItems::isPlainWebPath(entry.webpath)) {
            return VkError{path +
                           ": the file name must be letters, digits, \".\", \"-\", \"_\" "
                           "or \"+\" before \".sql\""};
        }
        if (!webpaths.insert(entry.webpath).second)
            return VkError{path + ": another database has the file name " + entry.webpath};
        if (!names.insert(entry.name).second)
            return VkError{path + ": another database is also named " + entry.name};
        // The update refuses larger files, so there is no point in publishing them.
        auto bytes = VkFile::readAll(path, VkAddTorjanItems::kMaxDatabaseBytes);
        if (!bytes)
            return VkError{bytes.error()};
        auto digest =
            VkHashValue::hashWithData(bytes->data(), static_cast<uint32_t>(bytes->size()), 2);
        if (!digest)
            return VkError{path + ": cannot be hashed"};
        entry.sha256 = *digest;
        entries.push_back(std::move(entry));
        contents.push_back(std::move(*bytes));
    }

    std::string folder = updateFolder(outDir);
    if (!VkFile::createDirectory(folder, true))
        return VkError{folder + ": cannot be created"};
    for (size_t i = 0; i < entries.size(); ++i) {
        auto written =
            VkFile::writeAtomically(VkFile::join(folder, entries[i].webpath), contents[i]);
        if (!written)
            return VkError{written.error()};
    }
    std::vector<uint8_t> body = manifestBody(manifest(entries, date));
    auto written = VkFile::writeAtomically(VkFile::join(folder, VkAddTorjanItems::kManifestName),
                                           body.data(), body.size());
    if (!written)
        return VkError{written.error()};
    return entries;
}
