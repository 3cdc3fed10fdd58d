// The packets that judge the channel's own, held against values worked out by hand.
#include "rig/packetoracle.h"

#include <gtest/gtest.h>

namespace {

rig::WirePacket hello()
{
    rig::WirePacket packet;
    packet.number = 1;
    packet.payload = "Hello";
    return packet;
}

} // namespace

// Values worked out from the description of the wire.
TEST(PacketOracle, HasTheChecksAndImagesOfTheDescription)
{
    EXPECT_EQ(rig::headerCheck("123456789", 9), 0x29B1);
    EXPECT_EQ(rig::payloadCheck("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(rig::headerCheck("\x7C\x00\x80\x00\x00", 5), 0xD400);
    EXPECT_EQ(rig::headerCheck("\x7C\x00\x05\xC8\x00", 5), 0xB6AA);
    const char image[] = "\x7C\x00\x01\x05\x00\x64\x4F\x48\x65\x6C\x6C\x6F\xBB\x8A\xC4\x4F";
    EXPECT_EQ(rig::packetImage(hello()), std::string(image, sizeof(image) - 1));
}

TEST(PacketOracle, CutsAPacketOutOnceItsLastByteIsThere)
{
    rig::PacketCutter cutter;
    const std::string stream = "|||garbage" + rig::packetImage(hello());
    rig::WirePacket cut;
    for (const char byte : stream.substr(0, stream.size() - 1)) {
        cutter.append(&byte, 1);
        EXPECT_FALSE(cutter.next(&cut));
    }
    cutter.append(&stream.back(), 1);
    ASSERT_TRUE(cutter.next(&cut));
    EXPECT_EQ(cut.number, 1);
    EXPECT_EQ(cut.payload, "Hello");
}

TEST(PacketOracle, TellsWhereAPacketBeginsAndWhatCanNeverBecomeOne)
{
    const std::string image = rig::packetImage(hello());
    const auto find = [](const std::string& bytes) { return rig::findPacket(bytes.data(), bytes.size()); };
    rig::PacketPlace place = find("||" + image + "rest");
    EXPECT_EQ(place.kind, rig::PacketPlace::Kind::Whole);
    EXPECT_EQ(place.begin, 2u);
    EXPECT_EQ(place.end, 2 + image.size());
    place = find("||" + image.substr(0, 8));
    EXPECT_EQ(place.kind, rig::PacketPlace::Kind::Begun);
    EXPECT_EQ(place.begin, 2u);
    place = find("nothing of use");
    EXPECT_EQ(place.kind, rig::PacketPlace::Kind::None);
    EXPECT_EQ(place.begin, std::string("nothing of use").size() - 6); // a header may have begun there
}

// A packet with a wrong payload is passed by its header and one byte more.
TEST(PacketOracle, LooksOnBehindTheHeaderOfADamagedPacket)
{
    std::string damaged = rig::packetImage(hello());
    damaged[8] = static_cast<char>(damaged[8] ^ 1);
    const std::string bytes = damaged + rig::packetImage(hello());
    const rig::PacketPlace place = rig::findPacket(bytes.data(), bytes.size());
    EXPECT_EQ(place.kind, rig::PacketPlace::Kind::Whole);
    EXPECT_EQ(place.begin, damaged.size());
    EXPECT_EQ(rig::packetAt(bytes.data(), place).payload, "Hello");
}
