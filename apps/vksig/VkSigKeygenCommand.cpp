#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "VkSig.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"
#include "support/VkCliOutput.h"
#include "support/VkSignature.h"

namespace {

// Creates a new file with exactly these bytes; never replaces one, never writes through a link.
VkResult<void> createNew(const std::string& path, const std::string& text, mode_t mode) {
    VkFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd.valid())
        return VkError{path + ": " + std::strerror(errno)};
    // The mode given to open is masked by the umask; a private key is 0600 whatever it says.
    if (::fchmod(fd.get(), mode) != 0 ||
        ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::fsync(fd.get()) != 0) {
        std::string error = path + ": " + std::strerror(errno);
        ::unlink(path.c_str());
        return VkError{error};
    }
    return {};
}

}  // namespace

// `vksig keygen NAME`: an Ed25519 key pair for signing published updates, NAME.key (private,
// mode 0600) and NAME.pub (public, to give to clients).
static VkSigCommand registration(75, [](CLI::App& app, VkSigCli& cli) {
    auto name = std::make_shared<std::string>();
    auto* cmd = app.add_subcommand(
        "keygen", "Make an Ed25519 key pair for signing updates: NAME.key (private) and NAME.pub");
    cmd->add_option("NAME", *name, "Path and name of the two files, without extension")->required();
    cmd->callback([name, &cli] {
        const std::string privatePath = *name + ".key";
        const std::string publicPath = *name + ".pub";
        for (const std::string& path : {privatePath, publicPath}) {
            if (VkFile::existsNoFollow(path))
                return vkSigFail(cli, path + ": exists; a key is never overwritten");
        }
        auto pair = VkSignature::generateKeyPair();
        if (!pair)
            return vkSigFail(cli, pair.error());
        if (auto made = createNew(privatePath, pair->privatePem, 0600); !made)
            return vkSigFail(cli, made.error());
        if (auto made = createNew(publicPath, pair->publicPem, 0644); !made) {
            ::unlink(privatePath.c_str());
            return vkSigFail(cli, made.error());
        }
        auto fingerprint = VkSignature::fingerprint(pair->publicPem);
        std::printf("private key %s (keep it secret; mode 0600)\npublic key  %s\nfingerprint %s\n",
                    vkCliText(privatePath).c_str(), vkCliText(publicPath).c_str(),
                    fingerprint ? fingerprint->c_str() : "?");
    });
});
