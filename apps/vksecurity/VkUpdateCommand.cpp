#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "database/VkAddTorjanItems.h"
#include "database/VkSqliteManager.h"
#include "support/VkCliOutput.h"

namespace {

using Action = VkUpdateReport::Action;

const char* actionWord(Action action) {
    switch (action) {
        case Action::Downloaded:
            return "downloaded";
        case Action::NotNewer:
            return "current";
        case Action::BadWebPath:
            return "skipped";
        case Action::DownloadFailed:
            return "failed";
        case Action::ChecksumMismatch:
            return "discarded";
        case Action::WriteFailed:
            return "unwritten";
        case Action::Unverifiable:
            return "skipped";
        case Action::NotTaken:
            return "removed";
    }
    return "?";
}

bool isProblem(Action action) {
    return action != Action::Downloaded && action != Action::NotNewer;
}

std::string explain(const VkUpdateReport::Entry& e) {
    switch (e.action) {
        case Action::Downloaded:
            return e.localVersion ? "newer than the local " + *e.localVersion : "new database";
        case Action::NotNewer:
            return e.localVersion ? "local version " + *e.localVersion
                                  : "not fetched: no local copy, but an earlier manifest entry "
                                    "was current";
        case Action::BadWebPath:
            return "\"" + e.webpath + "\" in the manifest is not a plain NAME.sql file name";
        case Action::Unverifiable:
            return "the signed manifest gives no SHA-256 and size for it";
        case Action::DownloadFailed:
        case Action::ChecksumMismatch:
        case Action::WriteFailed:
        case Action::NotTaken:
            return e.detail;
    }
    return "";
}

std::string dateText(const std::optional<VkDate>& date) {
    if (!date)
        return "";
    time_t seconds = static_cast<time_t>(date->secondsSince1970);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

const char* failureText(VkUpdateReport::Failure failure) {
    using Failure = VkUpdateReport::Failure;
    switch (failure) {
        case Failure::None:
        case Failure::Fetch:
            return "cannot reach the update server";
        case Failure::Decipher:
            return "the update manifest does not decipher (not an update server, or a damaged "
                   "file)";
        case Failure::Parse:
            return "the update manifest is not a list of databases";
        case Failure::Unsigned:
            return "update refused, the manifest is not signed";
        case Failure::BadSignature:
            return "update refused, the manifest's signature does not verify";
        case Failure::Rollback:
            return "update refused, the manifest is older than the one installed";
    }
    return "update failed";
}

nlohmann::json optionalText(const std::optional<std::string>& text) {
    return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

}  // namespace

// `vksecurity update [--server URL] [--allow-unsigned]`: one check of the update server, then
// the staged databases are moved into place.
static VkCliCommand registration(500, [](CLI::App& app, VkCli& cli) {
    auto server = std::make_shared<std::string>();
    auto allowUnsigned = std::make_shared<bool>(false);
    auto* cmd = app.add_subcommand(
        "update", "Fetch newer signature databases from the update server and install them");
    cmd->add_option("--server", *server,
                    "Update server base URL (default: VK_UPDATE_SERVER, else the setting "
                    "\"UpdateServer\", else https://update.velkora.com)");
    cmd->add_flag("--allow-unsigned", *allowUnsigned,
                  "For this run, take a manifest the server does not sign (a bad signature is "
                  "still refused)");
    cmd->callback([&cli, server, allowUnsigned] {
        auto ctx = cli.context();
        if (!server->empty()) {
            if (server->rfind("http://", 0) != 0 && server->rfind("https://", 0) != 0)
                return vkCliFail(cli, "--server " + *server +
                                          ": expected an http:// or "
                                          "https:// address");
            ctx->updateServer = *server;
        }
        VkAddTorjanItems updater(ctx);
        updater.setAllowUnsigned(*allowUnsigned);
        VkUpdateReport report = updater.checkUpdateOnce();
        // Files staged by an earlier check are applied even when this one fails.
        std::vector<std::string> refused;
        std::vector<std::string> installed = updater.copyToLocalPath(&refused);

        VkSqliteManager store(ctx);
        size_t problems = 0;
        for (const auto& e : report.entries)
            problems += isProblem(e.action);

        // What failed, if anything: the exit code and JSON's "success" say the same.
        std::string failure;
        if (!report.success)
            failure = std::string(failureText(report.failure)) + ": " + report.error;
        else if (!refused.empty())
            failure = std::to_string(refused.size()) + " staged database(s) not installed" +
                      (cli.json ? "" : " (see above)");
        else if (problems > 0)
            failure =
                std::to_string(problems) + " database(s) of the manifest could not be downloaded";

        if (cli.json) {
            nlohmann::json entries = nlohmann::json::array();
            for (const auto& e : report.entries) {
                nlohmann::json entry = {{"name", e.name},
                                        {"version", e.version},
                                        {"localVersion", optionalText(e.localVersion)},
                                        {"action", actionWord(e.action)},
                                        {"detail", explain(e)}};
                vkJsonSetPath(entry, "webpath", e.webpath);
                entries.push_back(std::move(entry));
            }
            nlohmann::json done = nlohmann::json::array();
            for (const auto& path : installed) {
                auto info = store.dataBaseForPath(path);
                nlohmann::json entry = {
                    {"name", optionalText(info ? info->name() : std::nullopt)},
                    {"version", optionalText(info ? info->version() : std::nullopt)}};
                vkJsonSetPath(entry, "path", path);
                done.push_back(std::move(entry));
            }
            nlohmann::json out = {
                {"server", ctx->updateServer},
                {"manifest", report.manifestUrl},
                {"success", failure.empty()},
                {"error", failure.empty() ? nlohmann::json(nullptr) : nlohmann::json(failure)},
                {"updateDate", report.manifestDate ? nlohmann::json(dateText(report.manifestDate))
                                                   : nlohmann::json(nullptr)},
                {"signer",
                 report.signer.empty() ? nlohmann::json(nullptr) : nlohmann::json(report.signer)},
                {"serial",
                 report.serial ? nlohmann::json(*report.serial) : nlohmann::json(nullptr)},
                {"entries", entries},
                {"installed", done},
                {"refused", refused}};
            std::printf("%s\n", vkJsonText(out, 2).c_str());
        } else {
            std::printf("update server: %s\n", vkCliText(ctx->updateServer).c_str());
            if (report.success) {
                std::printf("manifest: %zu database(s)%s%s\n", report.entries.size(),
                            report.manifestDate ? ", update date " : "",
                            dateText(report.manifestDate).c_str());
                if (report.signer.empty())
                    std::printf(
                        "manifest: UNSIGNED, taken because unsigned updates are "
                        "allowed\n");
                else
                    std::printf("manifest: serial %lld, signed by key %s (%s)\n",
                                static_cast<long long>(report.serial.value_or(0)),
                                report.signer.c_str(), vkCliText(report.signerKeyPath).c_str());
            }
            for (const auto& e : report.entries) {
                std::printf("  %-10s %s %s: %s\n", actionWord(e.action), vkCliText(e.name).c_str(),
                            vkCliText(e.version).c_str(), vkCliText(explain(e)).c_str());
            }
            for (const auto& path : installed) {
                auto info = store.dataBaseForPath(path);
                std::printf("installed %s", vkCliText(path).c_str());
                if (info)
                    std::printf(" (%s %s)", vkCliText(info->name().value_or("?")).c_str(),
                                vkCliText(info->version().value_or("?")).c_str());
                std::printf("\n");
            }
            for (const auto& line : refused)
                std::fprintf(stderr, "vksecurity: %s\n", vkCliText(line).c_str());
            if (report.success && problems == 0 && installed.empty() && refused.empty())
                std::printf("the signature databases are up to date\n");
        }

        if (!failure.empty())
            vkCliFail(cli, failure);
    });
});
