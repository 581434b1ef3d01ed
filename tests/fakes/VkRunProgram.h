#pragma once

#include <map>
#include <string>
#include <vector>

struct VkProgramOutput {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs a program with arguments and extra environment variables, waits for it and
// returns its exit code and what it printed.
VkProgramOutput vkRunProgram(const std::string& program, const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& env = {});
