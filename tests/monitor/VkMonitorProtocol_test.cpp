#include "monitor/VkMonitorProtocol.h"

#include <gtest/gtest.h>

namespace {

using P = VkMonitorProtocol;

TEST(VkMonitorProtocolTest, DecodesFramesSplitAnywhereAndSeveralAtOnce) {
    std::string stream =
        P::encode(P::kHello) + P::encode(P::kWatch, std::string(300, 'x')) + P::encode(P::kGetLogs);
    // Every frame as "opcode body", each frame once.
    auto frames = [](VkFrameDecoder& decoder) {
        std::vector<std::string> out;
        while (auto frame = decoder.next())
            out.push_back(std::to_string(frame->opcode) + " " + frame->body);
        EXPECT_FALSE(decoder.partial() || decoder.failed());
        return out;
    };
    const std::vector<std::string> expected{"1 ", "6 " + std::string(300, 'x'), "2 "};
    VkFrameDecoder decoder(P::kMaxRequestBytes);
    for (char c : stream)
        decoder.feed(&c, 1);
    EXPECT_EQ(frames(decoder), expected);

    VkFrameDecoder whole(P::kMaxRequestBytes);
    whole.feed(stream.data(), 7);
    EXPECT_TRUE(whole.partial());
    whole.feed(stream.data() + 7, stream.size() - 7);
    EXPECT_EQ(frames(whole), expected);
}

TEST(VkMonitorProtocolTest, AnOversizedOrEmptyFrameFailsKeepingNothingOfIt) {
    VkFrameDecoder decoder(16);
    std::string header("\x7f\xff\xff\xff\x01", 5);
    decoder.feed(header.data(), header.size());
    EXPECT_TRUE(decoder.failed());
    EXPECT_FALSE(decoder.partial());  // nothing buffered
    std::string more(1000, 'a');
    decoder.feed(more.data(), more.size());
    EXPECT_FALSE(decoder.partial() || decoder.next());

    VkFrameDecoder limit(16);
    std::string exactly = P::encode(P::kWatch, std::string(15, 'p'));
    limit.feed(exactly.data(), exactly.size());
    EXPECT_FALSE(limit.failed());
    ASSERT_TRUE(limit.next());
    std::string over = P::encode(P::kWatch, std::string(16, 'p'));
    limit.feed(over.data(), over.size());
    EXPECT_TRUE(limit.failed());

    VkFrameDecoder empty(16);
    std::string good = P::encode(P::kHello);
    std::string stream = good + std::string(4, '\0') + good;
    empty.feed(stream.data(), stream.size());
    EXPECT_TRUE(empty.next());  // what came before is kept
    EXPECT_FALSE(empty.next());
    EXPECT_TRUE(empty.failed());
    EXPECT_EQ(empty.failure(), "empty message");
}

}  // namespace
