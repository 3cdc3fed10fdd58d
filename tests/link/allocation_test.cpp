// How often making a packet asks for memory.
#include "com/link/ccompacket.h"
#include "rig/allocations.h"

#include <QByteArray>
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

template <typename Work>
qint64 allocationsOf(Work work)
{
    const qint64 before = rig::allocationCount();
    work();
    return rig::allocationCount() - before;
}

} // namespace

// Or the test below would have nothing to count. The blocks go through a volatile, so that the
// compiler leaves their making alone.
TEST(Allocations, EveryWayToAskForMemoryIsCounted)
{
    void* volatile block = nullptr;
    EXPECT_EQ(allocationsOf([&] { block = std::malloc(10); }), 1);
    EXPECT_EQ(allocationsOf([&] { block = std::realloc(block, 100000); }), 1);
    std::free(block);
    EXPECT_EQ(allocationsOf([&] { block = std::calloc(10, 10); }), 1);
    std::free(block);
    EXPECT_EQ(allocationsOf([&] { block = ::operator new(10); }), 1);
    ::operator delete(block);

    EXPECT_EQ(allocationsOf([] {}), 0);
    QByteArray bytes;
    EXPECT_EQ(allocationsOf([&] { bytes.reserve(10); }), 1);
    EXPECT_EQ(allocationsOf([&] { bytes.append("0123456789", 10); }), 0) << "within what it has";
    EXPECT_EQ(allocationsOf([&] { bytes.append("0123456789", 10); }), 1) << "grown, in place or moved";
}

TEST(Allocations, APacketsWireImageIsMadeWithOne)
{
    for (const int size : {0, 1, 10, 1014, 65535}) {
        CComPacket packet;
        packet.data = QByteArray(size, 'a');
        EXPECT_EQ(allocationsOf([&] { packet.makePacket(); }), 1) << size << " bytes of payload";
        EXPECT_EQ(packet.bytes.size(), size + (size == 0 ? 7 : 11));
        EXPECT_EQ(allocationsOf([&] { packet.makePacket(); }), 1) << size << " bytes of payload, made again";
    }
}
