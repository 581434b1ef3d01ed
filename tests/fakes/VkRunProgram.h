#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

struct VkProgramOutput {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs a program with arguments and extra environment variables, waits for it and
// returns its exit code and what it printed.
inline VkProgramOutput vkRunProgram(const std::string& program,
                                    const std::vector<std::string>& args,
                                    const std::map<std::string, std::string>& env = {}) {
    VkTempDir io;
    std::string outPath = io / "out", errPath = io / "err";
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(::open("/dev/null", O_RDONLY), 0);
        ::dup2(::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
        ::dup2(::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        for (const auto& [k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
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
    result.out = VkFile::readAll(outPath).ok() ? *VkFile::readAll(outPath) : "";
    result.err = VkFile::readAll(errPath).ok() ? *VkFile::readAll(errPath) : "";
    return result;
}
