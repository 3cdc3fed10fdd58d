// Every key of settings.ini as its page tells it: type, default, range, getter.
#pragma once

#include "common/csettings.h"
#include "tests/common/logsupport.h"

#include <QString>
#include <QStringList>
#include <gtest/gtest.h>

#include <limits>

namespace logtest {

struct BoolKey
{
    const char* key;
    bool defaultValue;
    bool (CSettings::*getter)();
    int level; // of the logger; 0: none
};

inline const BoolKey boolKeys[] = {
    {"Debug/all", false, &CSettings::debugAll, 0},
    {"Debug/ipcData", false, &CSettings::debugIpcData, 1},
    {"Debug/ipcExtra", false, &CSettings::debugIpcExtra, 2},
    {"Debug/ipcSecurityDaemon", true, &CSettings::debugIpcSecurityDaemon, 3},
    {"Debug/ipcTransport", false, &CSettings::debugIpcTransport, 4},
    {"Debug/transportAbonents", false, &CSettings::debugTransportAbonents, 5},
    {"Debug/transportTransit", true, &CSettings::debugTransportTransit, 6},
    {"Debug/transportConnects", true, &CSettings::debugTransportConnects, 7},
    {"Debug/transportDataLifetime", false, &CSettings::debugTransportDataLifetime, 8},
    {"Debug/transportBaseProtocol", false, &CSettings::debugTransportBaseProtocol, 9},
    {"Debug/transportProtocol", true, &CSettings::debugTransportProtocol, 10},
    {"Debug/transportProtocolAttaches", false, &CSettings::debugTransportProtocolAttaches, 11},
    {"Debug/transportIpSocketError", true, &CSettings::debugTransportIpSocketError, 12},
    {"Debug/transportComPortError", true, &CSettings::debugTransportComPortError, 13},
    {"Debug/transportComAtCommands", true, &CSettings::debugTransportComAtCommands, 14},
    {"Debug/transportComPackets", false, &CSettings::debugTransportComPackets, 15},
    {"Debug/transportComData", false, &CSettings::debugTransportComData, 16},
    {"Debug/transportTasks", true, &CSettings::debugTransportTasks, 17},
    {"Debug/journals", true, &CSettings::debugJournals, 18},
    {"Debug/messagesAutodelete", true, &CSettings::debugMessagesAutodelete, 19},
    {"Debug/messagesLock", false, &CSettings::debugMessagesLock, 20},
};

inline constexpr int lowest = std::numeric_limits<int>::min();
inline constexpr int highest = std::numeric_limits<int>::max();

struct IntKey
{
    const char* key;
    int defaultValue;
    int minimum;
    int maximum;
    int (CSettings::*getter)();
};

inline const IntKey intKeys[] = {
    {"Permissions/dirPermissions", 30583, 28945, 30583, &CSettings::dirPermissions},
    {"Permissions/filePermissions", 26214, 24576, 26214, &CSettings::filePermissions},
    {"Details/maxWritingTime", 5000, 100, 10000, &CSettings::detailsMaxWritingTime},
    {"Details/transportServerThreadStopTimeout", 10000, 100, 60000,
     &CSettings::detailsTransportServerThreadStopTimeout},
    {"Details/transportComAtOkTimeout", 1000, lowest, highest, &CSettings::detailsTransportComAtOkTimeout},
    {"Details/transportComAtReadyCheckTimeout", 60000, lowest, highest,
     &CSettings::detailsTransportComAtReadyCheckTimeout},
    {"Details/transportComDsrCheckInterval", 1000, lowest, highest, &CSettings::detailsTransportComDsrCheckInterval},
    {"Details/transportComOpenInterval", 3000, lowest, highest, &CSettings::detailsTransportComOpenInterval},
    {"Details/transportComConnectTimeout", 30000, lowest, highest, &CSettings::detailsTransportComConnectTimeout},
    {"Details/transportComResetTimeout", 2000, 1100, 60000, &CSettings::detailsTransportComResetTimeout},
    {"Details/transportComMaxBytesToWrite", 1024, 32, 32768, &CSettings::detailsTransportComMaxBytesToWrite},
    {"Details/transportComMaxBytesInQueue", 10240, 128, 1048576, &CSettings::detailsTransportComMaxBytesInQueue},
    {"Details/transportComResendInterval", 2000, 100, 60000, &CSettings::detailsTransportComResendInterval},
    {"Details/transportComConfirmationInterval", 500, 50, 30000, &CSettings::detailsTransportComConfirmationInterval},
    {"Details/transportComAdaptive", 0, 0, 1, &CSettings::detailsTransportComAdaptive},
};

inline const QString symbolKey = QStringLiteral("Details/transportComControlSymbol");

inline QString keyText(const char* key)
{
    return QString::fromLatin1(key);
}

inline bool boolOf(const BoolKey& key)
{
    CSettings settings;
    return (settings.*key.getter)();
}

inline int intOf(const IntKey& key)
{
    CSettings settings;
    return (settings.*key.getter)();
}

inline QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// Data of level 0 cannot be written: a file stands in its place.
inline void blockData()
{
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
}

inline QStringList expectedKeys()
{
    QStringList keys{symbolKey};
    for (const BoolKey& key : boolKeys)
        keys.append(keyText(key.key));
    for (const IntKey& key : intKeys)
        keys.append(keyText(key.key));
    keys.sort();
    return keys;
}

inline void consultEverything()
{
    CSettings settings;
    for (const BoolKey& key : boolKeys)
        (settings.*key.getter)();
    for (const IntKey& key : intKeys)
        (settings.*key.getter)();
    settings.detailsTransportComControlSymbol();
}

} // namespace logtest
