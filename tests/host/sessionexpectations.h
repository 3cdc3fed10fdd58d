// What tests expect of sessions that are over, and of where their messages have come to.
#pragma once

#include "tests/host/sessionpair.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace hosttest {

inline void expectInbox(const rig::MemoryStore& store, const std::vector<std::pair<QString, QByteArray>>& expected)
{
    ASSERT_EQ(store.inbox.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(store.inbox[i].fileName, expected[i].first);
        EXPECT_TRUE(store.inbox[i].content == expected[i].second)
            << i << " " << store.inbox[i].content.left(16).toHex().constData();
    }
}

inline void expectBothEndedWell(const SessionPair& pair)
{
    EXPECT_TRUE(pair.a.session->endedWell()) << qPrintable(pair.a.session->endReason());
    EXPECT_TRUE(pair.b.session->endedWell()) << qPrintable(pair.b.session->endReason());
}

} // namespace hosttest
