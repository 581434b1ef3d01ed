#include "engine/VkArchiveJudge.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>

#include <gtest/gtest.h>

#include "engine/VkEngineTestData.h"
#include "fakes/VkTestArchives.h"
#include "platform/VkHandle.h"
#include <zlib.h>

namespace {

const std::string kPlanted = vkTestBytes(3000, 1);
const std::string kBig = vkTestBytes(kMiB + 4321, 2);

// The tar header at offset gets type flag `type`, its checksum made right again.
std::string retyped(std::string tar, size_t offset, char type) {
    tar[offset + 156] = type;
    std::fill_n(tar.begin() + offset + 148, 8, ' ');
    unsigned sum = 0;
    for (size_t i = 0; i < 512; ++i)
        sum += static_cast<unsigned char>(tar[offset + i]);
    std::snprintf(tar.data() + offset + 148, 8, "%06o", sum);
    return tar;
}

// A xar holding `data` as member "x", its table of contents padded with `padding` spaces.
std::string xarWith(const std::string& data, size_t padding) {
    const std::string n = std::to_string(data.size());
    std::string toc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xar><toc>" +
                      std::string(padding, ' ') + "<file id=\"1\"><data><length>" + n +
                      "</length><offset>0</offset><size>" + n +
                      "</size><encoding style=\"application/octet-stream\"/></data>"
                      "<name>x</name><type>file</type></file></toc></xar>";
    uLongf size = compressBound(toc.size());
    std::string packed(size, '\0');
    compress(reinterpret_cast<Bytef*>(packed.data()), &size,
             reinterpret_cast<const Bytef*>(toc.data()), toc.size());
    packed.resize(size);
    std::string header = {'x', 'a', 'r', '!', 0, 28, 0, 1};
    for (uint64_t v : {uint64_t(packed.size()), uint64_t(toc.size())}) {
        for (int shift = 56; shift >= 0; shift -= 8)
            header.push_back(static_cast<char>(v >> shift));
    }
    header.append(4, '\0');  // no checksum
    return header + packed + data;
}

// data as pbzx of one chunk that holds two xz streams, one after the other.
std::string twoStreamChunk(const std::string& data) {
    const size_t half = data.size() / 2;
    // Each one-chunk pbzx is "pbzx", the chunk size, the flags and the length: 28 bytes.
    const std::string xz = vkPbzx(data.substr(0, half), data.size()).substr(28) +
                           vkPbzx(data.substr(half), data.size()).substr(28);
    std::string out = "pbzx";
    for (uint64_t v : {uint64_t(data.size()), uint64_t(0), uint64_t(xz.size())}) {
        for (int shift = 56; shift >= 0; shift -= 8)
            out.push_back(static_cast<char>(v >> shift));
    }
    return out + xz;
}

class VkArchiveJudgeTest : public VkEngineScanTest<> {
  protected:
    // The judge alone, with a record list of one record, for what it did not examine.
    VkArchiveReport judge(const std::string& path, const std::string& contents,
                          VkArchiveLimits limits = {}) {
        auto records = VkTorjanRecordList::make({recordFor("Test.Archived", contents)});
        VkArchiveJudge judge(
            {[records](uint64_t size) { return !records->recordsOfSize(size).empty(); },
             [records](uint64_t size, const VkArchiveJudge::Hasher& hasher) {
                 auto r = records->recordsOfSize(size);
                 return !r.empty() && hasher(0, 0) == r[0]->TorjanCode() ? r[0] : nullptr;
             }},
            limits);
        VkFd fd(::open(path.c_str(), O_RDONLY));
        return judge.judge(fd.get(), path);
    }
};

TEST_F(VkArchiveJudgeTest, PlantedMembersAreFoundInEveryFormatAndNamedByTheirMember) {
    std::string inner = vkMakeArchive("zip", "", {{"x.bin", kPlanted}});
    std::string cpio = vkMakeArchive("cpio", "", {{"./usr/bin/x", kPlanted}});
    // Two newc names of one file, the data after the last: a hard link that carries it.
    auto newc = [](const std::string& name, unsigned links, const std::string& data) {
        char header[111];
        std::snprintf(header, sizeof header,
                      "070701%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X", 7u, 0100644u,
                      0u, 0u, links, 0u, static_cast<unsigned>(data.size()), 0u, 0u, 0u, 0u,
                      static_cast<unsigned>(name.size() + 1), 0u);
        std::string record = std::string(header, 110) + name + '\0';
        record.resize((record.size() + 3) / 4 * 4, '\0');
        record += data;
        record.resize((record.size() + 3) / 4 * 4, '\0');
        return record;
    };

    struct Case {
        const char* file;
        std::string contents;
        std::string member;
        std::string planted = kPlanted;
        bool rightHead = true;
    } cases[] = {
        {"a.zip", vkMakeArchive("zip", "", {{"dir/x.bin", kPlanted}}), "dir/x.bin"},
        {"a.tar.gz", vkMakeArchive("ustar", "gzip", {{"c.txt", "clean"}, {"x", kPlanted}}), "x"},
        {"a.tar.xz", vkMakeArchive("ustar", "xz", {{"x", kPlanted}}), "x"},
        {"a.7z", vkMakeArchive("7zip", "", {{"x", kPlanted}}), "x"},
        {"n.tar", vkMakeArchive("ustar", "", {{"in/inner.zip", inner}}), "in/inner.zip!x.bin"},
        {"x.bin.gz", vkGzip(kPlanted), "x.bin"},
        {"n7.tar",
         vkMakeArchive("ustar", "", {{"in.7z", vkMakeArchive("7zip", "", {{"x", kPlanted}})}}),
         "in.7z!x"},
        {"a.pkg", vkMakeArchive("xar", "", {{"Payload", vkGzip(cpio)}}), "Payload!./usr/bin/x"},
        {"toc.pkg", xarWith(kPlanted, 4096), "x"},
        {"b.pkg", vkMakeArchive("xar", "", {{"Payload", vkPbzx(cpio, 1024)}}),
         "Payload!./usr/bin/x"},
        {"c.pkg", vkMakeArchive("xar", "", {{"Payload", twoStreamChunk(cpio)}}),
         "Payload!./usr/bin/x"},
        {"big.zip", vkMakeArchive("zip", "", {{"big", kBig}}), "big", kBig},
        {"link.cpio",
         newc("first", 2, "") + newc("second", 2, kPlanted) + newc("TRAILER!!!", 1, ""), "second"},
        // Types some extractors write as files whatever they say.
        {"m.tar", retyped(vkMakeArchive("ustar", "", {{"x", kPlanted}}), 0, 'M'), "x"},
        {"x.jar.gz", vkGzip(inner), "x.jar", inner},
        // Over 1 MiB the head code must match first, as for a file on disk.
        {"head.zip", vkMakeArchive("zip", "", {{"big", kBig}}), "", kBig, false},
    };
    // A stopped walk leaves its stop flag set; single-file checks must not heed it.
    scan->stopCurrentScan();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        ASSERT_FALSE(c.contents.empty());
        std::string path = dir.write(c.file, c.contents);
        // The first member found by the scanner's judging of the file.
        auto result = check(path, {recordFor("Test.Archived", c.planted, c.rightHead)});
        if (c.member.empty()) {
            EXPECT_EQ(result, nullptr);
            continue;
        }
        ASSERT_NE(result, nullptr);
        // Trust binds the file acted on: the archive's own hash.
        EXPECT_EQ(
            std::tuple(result->path(), result->member(), result->shownPath(), result->hashCode()),
            std::tuple(path, c.member, path + "!" + c.member, md5(c.contents)));
    }
}

TEST_F(VkArchiveJudgeTest, HostileArchivesAreReportedNotExaminedAndNeverClean) {
    std::string stored = vkMakeArchive("zip", "", {{"x", kPlanted}}, "zip:compression=store");
    std::string badCrc = stored;
    badCrc[badCrc.find(kPlanted.substr(0, 64)) + 10] ^= 1;
    // A local header that says one byte more than the central directory and the data.
    std::string sizes = stored;
    sizes[22] = static_cast<char>((kPlanted.size() + 1) & 0xFF);
    sizes[23] = static_cast<char>((kPlanted.size() + 1) >> 8);
    std::string nest = vkMakeArchive("zip", "", {{"x", kPlanted}});
    for (int i = 0; i < 3; ++i)
        nest = vkMakeArchive("zip", "", {{"n" + std::to_string(i) + ".zip", nest}});
    const std::string bombData(64 * kMiB, '\0');
    // A 7z header whose counts make the reader ask for gigabytes (found by fuzzing): refused
    // as corrupt, the memory never used.
    const std::string hugeCounts(
        "\x03\x37\x7a\xbc\xaf\x27\x1c\x00\x03\x67\x29\x93\x41\x23\x00\x00\x00\x00\x00\x00\x00\x36"
        "\x00\x00\x00\x00\x00\x00\x00\x22\xd5\x7f\x79\x00\x39\x9e\x4a\x01\x01\xfc\xa2\xfc\xd4\x1c"
        "\x36\x6f\x0f\x67\x92\x95\xfc\x72\x1f\xbe\xac\xbd\x82\x05\xe1\x15\xa7\xde\x1f\xff\xfa\xe6"
        "\xf0\x00\x01\x04\x06\x00\x01\x09\x23\x00\x07\x0b\x01\x00\x01\x23\x03\x01\x01\x05\x5d\x00"
        "\x00\x80\x00\x0c\x19\x00\x08\x0a\x01\xf0\xd3\x30\x66\x00\x00\x05\xe1\x15\xa7\xde\x1f\xff"
        "\xfa\xe6\xf0\x00\x01\x01\x11\x05\x00\x78\x00\x00\x00\x15\x06\x01\x00\x20\x80\xa4\x81\x00"
        "\x00",
        133);
    VkArchiveLimits small;
    small.maxTotalBytes = 4 * kMiB;
    // A zip member whose Unix mode says "directory": the reader gives none of its data.
    std::string dirMode = stored;
    size_t central = dirMode.find("PK\1\2");
    dirMode[central + 40] = static_cast<char>(0xED);
    dirMode[central + 41] = 0x41;
    std::string badSum = vkMakeArchive("ustar", "", {{"c.txt", "clean"}, {"x", kPlanted}});
    badSum[1024 + 148] ^= 1;
    // Data of a type the walk passes over still costs its decompression.
    std::string typeBomb =
        vkGzip(retyped(vkMakeArchive("ustar", "", {{"z", std::string(8 * kMiB, '\0')}}), 0, 'M'));
    // A table of contents is parsed whole before any member: its size is a limit of its own.
    VkArchiveLimits table;
    table.maxTableBytes = kMiB;
    const std::string bigTable = xarWith(kPlanted, 2 * kMiB);
    struct Case {
        const char* file;
        std::string contents;
        VkArchiveSkip::Reason reason;
        std::string planted = kPlanted;
        VkArchiveLimits limits = {};
    } cases[] = {
        {"cut.zip", nest.substr(0, nest.size() / 2), VkArchiveSkip::Reason::corrupt},
        {"crc.zip", badCrc, VkArchiveSkip::Reason::corrupt},
        {"sizes.zip", sizes, VkArchiveSkip::Reason::corrupt},
        {"enc.zip", vkMakeArchive("zip", "", {{"x", kPlanted}}, "zip:encryption=zipcrypt", "pw"),
         VkArchiveSkip::Reason::encrypted},
        {"deep.zip", nest, VkArchiveSkip::Reason::tooDeep},
        {"bomb.zip", vkMakeArchive("zip", "", {{"zeros", bombData}}),
         VkArchiveSkip::Reason::overLimit, bombData, small},
        {"disk.dmg", kPlanted, VkArchiveSkip::Reason::diskImage},
        {"fake.zip", "not an archive at all", VkArchiveSkip::Reason::corrupt},
        {"counts.7z", hugeCounts, VkArchiveSkip::Reason::corrupt},
        {"sum.tar", badSum, VkArchiveSkip::Reason::corrupt},
        {"dir.zip", dirMode, VkArchiveSkip::Reason::unsupported},
        {"type.tar.gz", typeBomb, VkArchiveSkip::Reason::overLimit, kPlanted, small},
        {"toc.pkg", bigTable, VkArchiveSkip::Reason::overLimit, kPlanted, table},
        {"toc.tar", vkMakeArchive("ustar", "", {{"in.pkg", bigTable}}),
         VkArchiveSkip::Reason::overLimit, kPlanted, table},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        ASSERT_FALSE(c.contents.empty());
        std::string path = dir.write(c.file, c.contents);
        VkArchiveReport report = judge(path, c.planted, c.limits);
        EXPECT_TRUE(report.findings.empty());
        EXPECT_TRUE(std::any_of(report.notExamined.begin(), report.notExamined.end(),
                                [&](const VkArchiveSkip& s) { return s.reason == c.reason; }));
        EXPECT_LE(report.bytesDecompressed, std::max<uint64_t>(c.limits.maxTotalBytes, 1) + kMiB);
    }
}

TEST_F(VkArchiveJudgeTest, OnlyCandidateSizesAreDecompressedAndNamesAreNeverPaths) {
    std::vector<VkTestMember> members;
    for (int i = 0; i < 20; ++i)
        members.push_back({"m" + std::to_string(i), vkTestBytes(5000 + i, 3)});
    std::string path = dir.write("many.zip", vkMakeArchive("zip", "", members));
    VkArchiveReport clean = judge(path, kPlanted);
    EXPECT_EQ(std::tuple(clean.members, clean.membersDecompressed, clean.bytesDecompressed,
                         clean.notExamined.size()),
              std::tuple(20u, 0u, 0u, 0u));

    // Names that climb out or are absolute are text to report, nothing is written.
    std::string hostile = dir.write(
        "h.tar", vkMakeArchive("ustar", "", {{"../../escape", kPlanted}, {"/abs/x", kPlanted}}));
    auto before = dir.snapshot();
    VkArchiveReport found = judge(hostile, kPlanted);
    ASSERT_EQ(found.findings.size(), 2u);
    EXPECT_EQ(std::tuple(found.findings[0].member, found.findings[1].member),
              std::tuple("../../escape", "/abs/x"));
    EXPECT_EQ(dir.snapshot(), before);
}

}  // namespace

TEST(VkArchiveNames, ArchivesAreKnownByTheSuffixOfTheirLastComponent) {
    const std::pair<const char*, bool> names[] = {
        {"/a/b.zip", true},  {"/a/B.ZIP", true},  {"/a/b.tar.Gz", true},   {"/a/b.Z", true},
        {"/a/b.7z", true},   {"/a/b.zip/", true}, {"/a/.gz", false},       {"/a/b.zipx", false},
        {"/a.zip/b", false}, {"/a/b.txt", false}, {"b.sparseimage", true}, {"", false},
    };
    for (const auto& [name, archive] : names)
        EXPECT_EQ(VkArchiveJudge::looksLikeArchive(name), archive) << name;
}
