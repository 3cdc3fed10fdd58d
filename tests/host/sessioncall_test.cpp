#include "host/session/sessioncall.h"

#include <gtest/gtest.h>

#include <utility>

using host::endWord;
using host::SessionEnd;

// The table of docs/reference-host.md: programs read these words in the events.
TEST(SessionEndWord, IsTheDocumentedOne)
{
    const std::pair<SessionEnd, const char*> words[] = {
        {SessionEnd::Agreed, "agreed"},
        {SessionEnd::Stopped, "stopped"},
        {SessionEnd::StoppedByPeer, "stoppedByPeer"},
        {SessionEnd::RefusedByPeer, "refusedByPeer"},
        {SessionEnd::ConnectionLost, "connectionLost"},
        {SessionEnd::OpeningTimedOut, "openingTimedOut"},
        {SessionEnd::Silence, "silence"},
        {SessionEnd::Useless, "useless"},
        {SessionEnd::Stalled, "stalled"},
        {SessionEnd::TimeUsedUp, "timeUsedUp"},
        {SessionEnd::NotThisProtocol, "notThisProtocol"},
        {SessionEnd::OtherVersion, "otherVersion"},
        {SessionEnd::SelfCall, "selfCall"},
        {SessionEnd::WrongKey, "wrongKey"},
        {SessionEnd::UnknownKey, "unknownKey"},
        {SessionEnd::BlockedKey, "blockedKey"},
        {SessionEnd::DirectoryFailed, "directoryFailed"},
        {SessionEnd::Damaged, "damaged"},
        {SessionEnd::ProtocolError, "protocolError"},
    };
    for (const auto& [end, word] : words)
        EXPECT_EQ(endWord(end).toStdString(), word);
}
