// Every key of settings.ini: name, type, default and limits, declared once.
#pragma once

#include <QString>

// The keys of categories are in the order of the logger's levels, with DebugAll in the place of
// level 0.
enum class Setting
{
    DebugAll,
    DebugIpcData,
    DebugIpcExtra,
    DebugIpcSecurityDaemon,
    DebugIpcTransport,
    DebugTransportAbonents,
    DebugTransportTransit,
    DebugTransportConnects,
    DebugTransportDataLifetime,
    DebugTransportBaseProtocol,
    DebugTransportProtocol,
    DebugTransportProtocolAttaches,
    DebugTransportIpSocketError,
    DebugTransportComPortError,
    DebugTransportComAtCommands,
    DebugTransportComPackets,
    DebugTransportComData,
    DebugTransportTasks,
    DebugJournals,
    DebugMessagesAutodelete,
    DebugMessagesLock,

    DirPermissions,
    FilePermissions,

    DetailsMaxWritingTime,
    DetailsTransportServerThreadStopTimeout,
    DetailsTransportComAtOkTimeout,
    DetailsTransportComAtReadyCheckTimeout,
    DetailsTransportComDsrCheckInterval,
    DetailsTransportComOpenInterval,
    DetailsTransportComConnectTimeout,
    DetailsTransportComResetTimeout,
    DetailsTransportComMaxBytesToWrite,
    DetailsTransportComMaxBytesInQueue,
    DetailsTransportComResendInterval,
    DetailsTransportComConfirmationInterval,
    DetailsTransportComAdaptive,
    DetailsTransportComControlSymbol,

    Count
};

constexpr int settingCount = int(Setting::Count);

// The category keys are those of the levels 1 to this one.
constexpr int lastDebugCategory = int(Setting::DebugMessagesLock);

struct SettingKey
{
    enum Type
    {
        Bool,
        Int, // any integer from minimum to maximum
        Text,
    };

    Setting setting;
    const char* name; // with its group
    Type type;
    int defaultNumber; // of Bool (0 or 1) and Int
    int minimum; // of Int, inclusive
    int maximum;
    const char* defaultText; // of Text

    QString key() const { return QString::fromLatin1(name); }
};

const SettingKey& settingKey(Setting setting);
