#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Bytes written out in hexadecimal, as reference data is quoted.
inline std::vector<uint8_t> vkFromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// Deterministic bytes standing for a file's contents; seed gives other contents of one length.
inline std::string vkTestBytes(size_t length, unsigned seed) {
    std::string s(length, '\0');
    for (size_t i = 0; i < length; ++i)
        s[i] = static_cast<char>((i * 131 + seed * 7919 + (i >> 9)) & 0xFF);
    return s;
}

// The standard anti-virus test file, put together here so that the sources never hold it
// in one piece.
inline std::string vkAntiVirusTestFile() {
    std::string whole;
    for (const char* part :
         {"X5O!P%@AP[4\\PZX", "54(P^)7CC)7}$", "EICAR-STANDARD-ANTI", "VIRUS-TEST-FILE!", "$H+H*"})
        whole += part;
    return whole;
}
