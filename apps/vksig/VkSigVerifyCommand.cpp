#include <cstdio>

#include "VkSig.h"
#include "database/VkDataBaseCheck.h"
#include "support/VkCliOutput.h"

// `vksig verify DB`: reads every row and reports what would not read as meant. Exit code 1
// when something was found.
static VkSigCommand registration(70, [](CLI::App& app, VkSigCli& cli) {
    auto path = std::make_shared<std::string>();
    auto* cmd = app.add_subcommand("verify", "Check every row of a signature database");
    cmd->add_option("DB", *path, "Signature database (.sql)")->required();
    cmd->callback([path, &cli] {
        const std::string shown = vkCliText(*path);
        auto problems = VkDataBaseCheck::verify(*path);
        if (!problems)
            return vkSigFail(cli, problems.error());
        for (const auto& p : *problems) {
            if (p.row == 0)
                std::printf("%s: %s%s%s\n", shown.c_str(), vkCliText(p.column).c_str(),
                            p.column.empty() ? "" : ": ", vkCliText(p.message).c_str());
            else
                std::printf("%s: row %lld: %s: %s\n", shown.c_str(), static_cast<long long>(p.row),
                            vkCliText(p.column).c_str(), vkCliText(p.message).c_str());
        }
        if (problems->empty()) {
            std::printf("%s: no problems\n", shown.c_str());
        } else {
            std::printf("%s: %zu problem(s)\n", shown.c_str(), problems->size());
            cli.exitCode = kSigExitProblems;
        }
    });
});
