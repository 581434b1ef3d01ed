#include "fakes/VkTestArchives.h"

#include <memory>

#include <archive.h>
#include <archive_entry.h>
#include <lzma.h>

namespace {

struct WriterDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};

void bigEndian64(std::string& out, uint64_t v) {
    for (int i = 7; i >= 0; --i)
        out.push_back(static_cast<char>((v >> (i * 8)) & 0xFF));
}

}  // namespace

std::string vkMakeArchive(const std::string& format, const std::string& filter,
                          const std::vector<VkTestMember>& members, const std::string& options,
                          const std::string& passphrase) {
    std::unique_ptr<archive, WriterDeleter> a(archive_write_new());
    if (archive_write_set_format_by_name(a.get(), format.c_str()) != ARCHIVE_OK ||
        (!filter.empty() && archive_write_add_filter_by_name(a.get(), filter.c_str())) ||
        (!options.empty() && archive_write_set_options(a.get(), options.c_str()) < ARCHIVE_WARN) ||
        (!passphrase.empty() && archive_write_set_passphrase(a.get(), passphrase.c_str())))
        return {};
    size_t capacity = 4096;
    for (const auto& m : members)
        capacity += m.data.size() + m.name.size() + 1024;
    std::string buffer(capacity, '\0');
    size_t used = 0;
    archive_write_set_bytes_in_last_block(a.get(), 1);
    if (archive_write_open_memory(a.get(), buffer.data(), buffer.size(), &used) != ARCHIVE_OK)
        return {};
    for (const auto& m : members) {
        std::unique_ptr<archive_entry, decltype(&archive_entry_free)> e(archive_entry_new(),
                                                                        archive_entry_free);
        archive_entry_set_pathname(e.get(), m.name.c_str());
        archive_entry_set_filetype(e.get(), AE_IFREG);
        archive_entry_set_perm(e.get(), 0644);
        archive_entry_set_size(e.get(), static_cast<la_int64_t>(m.data.size()));
        if (archive_write_header(a.get(), e.get()) != ARCHIVE_OK)
            return {};
        if (!m.data.empty() && archive_write_data(a.get(), m.data.data(), m.data.size()) !=
                                   static_cast<la_ssize_t>(m.data.size()))
            return {};
    }
    if (archive_write_close(a.get()) != ARCHIVE_OK)
        return {};
    buffer.resize(used);
    return buffer;
}

std::string vkGzip(const std::string& data) {
    return vkMakeArchive("raw", "gzip", {{"data", data}});
}

std::string vkPbzx(const std::string& data, size_t chunkSize) {
    std::string out = "pbzx";
    bigEndian64(out, chunkSize);
    for (size_t pos = 0; pos < data.size(); pos += chunkSize) {
        size_t n = std::min(chunkSize, data.size() - pos);
        std::string xz(lzma_stream_buffer_bound(n), '\0');
        size_t xzSize = 0;
        if (lzma_easy_buffer_encode(
                6, LZMA_CHECK_CRC64, nullptr, reinterpret_cast<const uint8_t*>(data.data() + pos),
                n, reinterpret_cast<uint8_t*>(xz.data()), &xzSize, xz.size()) != LZMA_OK)
            return {};
        bool last = pos + n >= data.size();
        bigEndian64(out, last ? 0 : 0x01000000);
        bigEndian64(out, xzSize);
        out.append(xz.data(), xzSize);
    }
    return out;
}
