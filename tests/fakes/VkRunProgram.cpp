#include "fakes/VkRunProgram.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

VkProgramOutput vkRunProgram(const std::string& program, const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& env) {
    VkTempDir io;
    std::string outPath = io / "out", errPath = io / "err";
    pid_t pid = ::fork();
    if (pid == 0) {
        int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        for (const auto& [k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    VkProgramOutput result;
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    auto read = [](const std::string& path) {
        auto bytes = VkFile::readAll(path);
        return bytes ? *bytes : std::string();
    };
    result.out = read(outPath);
    result.err = read(errPath);
    return result;
}
