#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

// Content hashes as lower-case hex text. Type 0 is MD5, 1 SHA-1, 2 SHA-256; any other type
// gives no hash.
class VkHashValue {
  public:
    // Hash of `length` bytes of memory.
    static std::optional<std::string> hashWithData(const void* bytes, uint32_t length,
                                                   int32_t hashType);
    // Hash of the first `length` bytes of a regular file, read in fixed-size chunks (the
    // file is never loaded whole). A file shorter than `length` is hashed as far as it
    // goes. The file is opened without following a final link and without blocking, and
    // must be a regular file: FIFOs, devices, sockets and links give no hash.
    static std::optional<std::string> hashFile(const std::string& path, uint64_t length,
                                               int32_t hashType);
    // Hash of the whole file, limited to the 32-bit byte count the system has always
    // hashed (a file of 4 GiB or more is hashed modulo 2^32 bytes).
    static std::optional<std::string> hashWholeFile(const std::string& path, int32_t hashType);
    // Hash of a buffer of exactly `bufferLength` bytes, filled by one read of the file and
    // zero past what the read returned; no hash when the read returned nothing.
    static std::optional<std::string> hashFileHead(const std::string& path, uint32_t bufferLength,
                                                   int32_t hashType);
    // The same for `name` inside the open folder `folderFd` (AT_FDCWD: name is a path), so
    // that a file deeper than a path can name is still read. On failure errno says why.
    static std::optional<std::string> hashWholeFileAt(int folderFd, const std::string& name,
                                                      int32_t hashType);
    static std::optional<std::string> hashFileHeadAt(int folderFd, const std::string& name,
                                                     uint32_t bufferLength, int32_t hashType);
    // The same for a file already open (a regular file the caller checked), read from its
    // start whatever the descriptor's offset, so that one descriptor serves both hashes.
    static std::optional<std::string> hashWholeOpenFile(int fd, int32_t hashType);
    // The same when the caller already read the descriptor's attributes: `size` bytes.
    static std::optional<std::string> hashWholeOpenFile(int fd, int32_t hashType, uint64_t size);
    static std::optional<std::string> hashOpenFileHead(int fd, uint32_t bufferLength,
                                                       int32_t hashType);
};

// A hash fed piece by piece, for contents that are read once as a stream (an archive's
// member). The same text as VkHashValue::hashWithData of all the pieces together.
class VkHashStream {
  public:
    // No hash (finish gives nullopt) for a type VkHashValue does not know.
    explicit VkHashStream(int32_t hashType);
    ~VkHashStream();
    VkHashStream(const VkHashStream&) = delete;
    VkHashStream& operator=(const VkHashStream&) = delete;
    void update(const void* bytes, size_t length);
    // The hash text; the stream is spent afterwards.
    std::optional<std::string> finish();

  private:
    struct State;
    std::unique_ptr<State> state_;
};
