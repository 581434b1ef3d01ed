#include "database/VkUpdatePublisher.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <set>
#include <unistd.h>

#include "database/VkAddTorjanItems.h"
#include "database/VkDataBaseCheck.h"
#include "database/VkManifestCipher.h"
#include "database/VkSqliteManager.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkSignature.h"

VkPlist VkUpdatePublisher::manifest(const std::vector<Entry>& entries, std::optional<VkDate> date,
                                    int64_t serial) {
    VkPlist root = VkPlist::array();
    if (serial != 0)
        root.append(VkPlist::integer(serial));
    for (const Entry& entry : entries) {
        VkPlist item = VkPlist::dictionary(
            {{"name", entry.name}, {"version", entry.version}, {"webpath", entry.webpath}});
        if (!entry.sha256.empty()) {
            item.set("sha256", entry.sha256);
            item.set("size", VkPlist::integer(static_cast<int64_t>(entry.size)));
        }
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

int64_t VkUpdatePublisher::publishedSerial(const std::string& outDir) {
    auto body = VkFile::readAll(VkFile::join(updateFolder(outDir), VkAddTorjanItems::kManifestName),
                                VkAddTorjanItems::kMaxManifestBytes);
    if (!body)
        return 0;
    auto plain = VkManifestCipher::decrypt(std::vector<uint8_t>(body->begin(), body->end()));
    auto elements = plain ? VkAddTorjanItems::arrayWithContentsOfData(*plain) : std::nullopt;
    if (!elements)
        return 0;
    for (const VkPlist& element : *elements) {
        if (element.type() == VkPlist::Type::Integer)
            return element.asInt64().value_or(0);
    }
    return 0;
}

VkResult<VkUpdatePublisher::Published> VkUpdatePublisher::publish(
    const std::string& outDir, const std::vector<std::string>& databases, const Options& options) {
    if (databases.empty())
        return VkError{"no database to publish"};
    Published published;
    // Clients refuse a signed manifest older than the last one they took, so the serial must
    // grow even when two publishes fall in the same second.
    const int64_t previous = publishedSerial(outDir);
    if (options.serial == 0 && previous >= kMaxSerial)
        return VkError{"the manifest already published has serial " + std::to_string(previous) +
                       ", and no serial above it may be published"};
    published.serial =
        options.serial != 0
            ? options.serial
            : std::max<int64_t>(static_cast<int64_t>(std::time(nullptr)), previous + 1);
    if (published.serial <= 0 || published.serial > kMaxSerial)
        return VkError{"the serial must be a number from 1 to " + std::to_string(kMaxSerial)};
    if (published.serial <= previous)
        return VkError{"serial " + std::to_string(published.serial) +
                       " is not above the serial of the manifest already published (" +
                       std::to_string(previous) + "): clients would refuse it"};
    if (!options.privateKeyPem.empty()) {
        auto publicPem = VkSignature::publicKeyOf(options.privateKeyPem);
        if (!publicPem)
            return VkError{"the key: " + publicPem.error()};
        auto fingerprint = VkSignature::fingerprint(*publicPem);
        published.signer = fingerprint ? *fingerprint : std::string("?");
    }

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
        entry.size = bytes->size();
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
    std::vector<uint8_t> body = manifestBody(manifest(entries, options.date, published.serial));
    std::string signaturePath = VkFile::join(folder, VkAddTorjanItems::kSignatureName);
    if (options.privateKeyPem.empty()) {
        // A signature left from an earlier publish would not match: clients would refuse.
        ::unlink(signaturePath.c_str());
    } else {
        auto signature = VkSignature::sign(options.privateKeyPem, body.data(), body.size());
        if (!signature)
            return VkError{signature.error()};
        auto signatureWritten =
            VkFile::writeAtomically(signaturePath, signature->data(), signature->size());
        if (!signatureWritten)
            return VkError{signatureWritten.error()};
    }
    auto written = VkFile::writeAtomically(VkFile::join(folder, VkAddTorjanItems::kManifestName),
                                           body.data(), body.size());
    if (!written)
        return VkError{written.error()};
    published.entries = std::move(entries);
    return published;
}
