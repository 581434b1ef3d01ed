#include <charconv>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "VkSig.h"
#include "database/VkUpdatePublisher.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

namespace {

// "YYYY-MM-DD" (midnight) or "YYYY-MM-DDTHH:MM:SS", with or without a final "Z"; always UTC.
std::optional<VkDate> parseDate(const std::string& text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int used = 0;
    bool parsed = false;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute,
                    &second, &used) == 6) {
        parsed = true;
    } else if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &used) == 3) {
        hour = minute = second = 0;
        parsed = true;
    }
    if (!parsed)
        return std::nullopt;
    std::string rest = text.substr(static_cast<size_t>(used));
    if (!rest.empty() && rest != "Z")
        return std::nullopt;
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    time_t seconds = ::timegm(&tm);
    // timegm normalises 2024-02-31 into March; such a date is a typing error.
    if (tm.tm_year != year - 1900 || tm.tm_mon != month - 1 || tm.tm_mday != day ||
        tm.tm_hour != hour || tm.tm_min != minute || tm.tm_sec != second) {
        return std::nullopt;
    }
    return VkDate{static_cast<double>(seconds)};
}

// Digits only, 1 to VkUpdatePublisher::kMaxSerial. A number too large for the integer must be
// refused, not clamped: clients keep the largest serial they took and refuse anything below it.
std::optional<int64_t> parseSerial(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    int64_t serial = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), serial);
    if (error != std::errc() || end != text.data() + text.size() || serial <= 0 ||
        serial > VkUpdatePublisher::kMaxSerial)
        return std::nullopt;
    return serial;
}

std::string dateText(VkDate date) {
    time_t seconds = static_cast<time_t>(date.secondsSince1970);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

}  // namespace

// `vksig publish OUTDIR DB... --key FILE [--serial N] [--date DATE | --no-date]`: an update
// folder for a static HTTP server, with the enciphered manifest listing every database with its
// SHA-256 and size, and the manifest's signature.
static VkSigCommand registration(80, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string outDir;
        std::vector<std::string> databases;
        std::string date;
        bool noDate = false;
        bool json = false;
        std::string key;
        std::string serial;
    };
    auto o = std::make_shared<Options>();
    auto* cmd = app.add_subcommand(
        "publish", "Write an update folder (enciphered manifest and databases) for a web server");
    cmd->add_option("OUTDIR", o->outDir,
                    "Folder to serve; the files go to "
                    "OUTDIR/velkora_soft_upgrade_files/trojanupdate/")
        ->required();
    cmd->add_option("DB", o->databases, "Signature databases (.sql) to publish")->required();
    auto* date = cmd->add_option("--date", o->date,
                                 "Update date shown to users: YYYY-MM-DD or YYYY-MM-DDTHH:MM:SSZ, "
                                 "UTC (default: now)");
    cmd->add_flag("--no-date", o->noDate, "Publish the manifest without an update date")
        ->excludes(date);
    cmd->add_option("--key", o->key,
                    "Ed25519 private key (vksig keygen) that signs the manifest; without it the "
                    "update is unsigned and clients refuse it unless they allow unsigned updates");
    auto* serial =
        cmd->add_option("--serial", o->serial,
                        "Publication serial, larger than the last one (default: the current time, "
                        "or the published serial + 1), at most " +
                            std::to_string(VkUpdatePublisher::kMaxSerial));
    cmd->add_flag("--json", o->json, "Machine-readable output");
    cmd->callback([o, serial, &cli] {
        std::optional<VkDate> when;
        if (!o->date.empty()) {
            when = parseDate(o->date);
            if (!when)
                return vkSigFail(
                    cli, "--date " + o->date + ": expected YYYY-MM-DD or YYYY-MM-DDTHH:MM:SSZ");
        } else if (!o->noDate) {
            when = VkDate{static_cast<double>(std::time(nullptr))};
        }
        VkUpdatePublisher::Options options;
        options.date = when;
        if (serial->count() > 0) {
            auto parsed = parseSerial(o->serial);
            if (!parsed)
                return vkSigFail(cli, "--serial " + o->serial +
                                          ": expected a whole number from 1 to " +
                                          std::to_string(VkUpdatePublisher::kMaxSerial));
            options.serial = *parsed;
        }
        if (!o->key.empty()) {
            auto pem = VkFile::readAll(o->key, 64 * 1024);
            if (!pem)
                return vkSigFail(cli, "--key: " + pem.error());
            options.privateKeyPem = std::move(*pem);
        } else {
            std::fprintf(stderr,
                         "vksig: warning: publishing unsigned (no --key); clients refuse it "
                         "unless unsigned updates are allowed\n");
        }
        auto published = VkUpdatePublisher::publish(o->outDir, o->databases, options);
        if (!published)
            return vkSigFail(cli, published.error());
        std::string folder = VkUpdatePublisher::updateFolder(o->outDir);
        if (o->json) {
            nlohmann::json files = nlohmann::json::array();
            for (const auto& e : published->entries)
                files.push_back({{"name", e.name},
                                 {"version", e.version},
                                 {"webpath", e.webpath},
                                 {"sha256", e.sha256},
                                 {"size", e.size}});
            nlohmann::json out = {
                {"date", when ? nlohmann::json(dateText(*when)) : nullptr},
                {"serial", published->serial},
                {"signer", published->signer.empty() ? nlohmann::json(nullptr)
                                                     : nlohmann::json(published->signer)},
                {"databases", files}};
            vkJsonSetPath(out, "folder", folder);
            std::printf("%s\n", vkJsonText(out, 2).c_str());
            return;
        }
        std::printf("published to %s\n", vkCliText(folder).c_str());
        for (const auto& e : published->entries)
            std::printf("  %s %s  %s  %llu bytes  sha256 %s\n", vkCliText(e.name).c_str(),
                        vkCliText(e.version).c_str(), e.webpath.c_str(),
                        static_cast<unsigned long long>(e.size), e.sha256.c_str());
        std::printf("update date: %s\nserial: %lld\nsigned by: %s\n",
                    when ? dateText(*when).c_str() : "(none)",
                    static_cast<long long>(published->serial),
                    published->signer.empty() ? "(unsigned)" : published->signer.c_str());
    });
});
