#include "common/settingskeys.h"

#include <limits>

namespace {

constexpr int lowest = std::numeric_limits<int>::min();
constexpr int highest = std::numeric_limits<int>::max();

constexpr SettingKey category(Setting setting, const char* name, bool defaultValue)
{
    return {setting, name, SettingKey::Bool, defaultValue, 0, 1, nullptr};
}

constexpr SettingKey number(Setting setting, const char* name, int defaultValue, int minimum = lowest,
                            int maximum = highest)
{
    return {setting, name, SettingKey::Int, defaultValue, minimum, maximum, nullptr};
}

constexpr SettingKey text(Setting setting, const char* name, const char* defaultValue)
{
    return {setting, name, SettingKey::Text, 0, 0, 0, defaultValue};
}

constexpr SettingKey keys[] = {
    category(Setting::DebugAll, "Debug/all", false),
    category(Setting::DebugIpcData, "Debug/ipcData", false),
    category(Setting::DebugIpcExtra, "Debug/ipcExtra", false),
    category(Setting::DebugIpcSecurityDaemon, "Debug/ipcSecurityDaemon", true),
    category(Setting::DebugIpcTransport, "Debug/ipcTransport", false),
    category(Setting::DebugTransportAbonents, "Debug/transportAbonents", false),
    category(Setting::DebugTransportTransit, "Debug/transportTransit", true),
    category(Setting::DebugTransportConnects, "Debug/transportConnects", true),
    category(Setting::DebugTransportDataLifetime, "Debug/transportDataLifetime", false),
    category(Setting::DebugTransportBaseProtocol, "Debug/transportBaseProtocol", false),
    category(Setting::DebugTransportProtocol, "Debug/transportProtocol", true),
    category(Setting::DebugTransportProtocolAttaches, "Debug/transportProtocolAttaches", false),
    category(Setting::DebugTransportIpSocketError, "Debug/transportIpSocketError", true),
    category(Setting::DebugTransportComPortError, "Debug/transportComPortError", true),
    category(Setting::DebugTransportComAtCommands, "Debug/transportComAtCommands", true),
    category(Setting::DebugTransportComPackets, "Debug/transportComPackets", false),
    category(Setting::DebugTransportComData, "Debug/transportComData", false),
    category(Setting::DebugTransportTasks, "Debug/transportTasks", true),
    category(Setting::DebugJournals, "Debug/journals", true),
    category(Setting::DebugMessagesAutodelete, "Debug/messagesAutodelete", true),
    category(Setting::DebugMessagesLock, "Debug/messagesLock", false),

    // Sets of QFileDevice::Permission, compared as plain numbers.
    number(Setting::DirPermissions, "Permissions/dirPermissions", 0x7777, 0x7111, 0x7777),
    number(Setting::FilePermissions, "Permissions/filePermissions", 0x6666, 0x6000, 0x6666),

    // Milliseconds, and bytes where the name says so.
    number(Setting::DetailsMaxWritingTime, "Details/maxWritingTime", 5000, 100, 10000),
    number(Setting::DetailsTransportServerThreadStopTimeout, "Details/transportServerThreadStopTimeout", 10000, 100,
           60000),
    number(Setting::DetailsTransportComAtOkTimeout, "Details/transportComAtOkTimeout", 1000),
    number(Setting::DetailsTransportComAtReadyCheckTimeout, "Details/transportComAtReadyCheckTimeout", 60000),
    number(Setting::DetailsTransportComDsrCheckInterval, "Details/transportComDsrCheckInterval", 1000),
    number(Setting::DetailsTransportComOpenInterval, "Details/transportComOpenInterval", 3000),
    number(Setting::DetailsTransportComConnectTimeout, "Details/transportComConnectTimeout", 30000),
    number(Setting::DetailsTransportComResetTimeout, "Details/transportComResetTimeout", 2000, 1100, 60000),
    number(Setting::DetailsTransportComMaxBytesToWrite, "Details/transportComMaxBytesToWrite", 1024, 32, 32768),
    number(Setting::DetailsTransportComMaxBytesInQueue, "Details/transportComMaxBytesInQueue", 10240, 128, 1048576),
    number(Setting::DetailsTransportComResendInterval, "Details/transportComResendInterval", 2000, 100, 60000),
    number(Setting::DetailsTransportComConfirmationInterval, "Details/transportComConfirmationInterval", 500, 50,
           30000),
    number(Setting::DetailsTransportComAdaptive, "Details/transportComAdaptive", 0, 0, 1), // 1: on
    text(Setting::DetailsTransportComControlSymbol, "Details/transportComControlSymbol", "\r"),
};

constexpr bool inOrder()
{
    int position = 0;
    for (const SettingKey& key : keys) {
        if (int(key.setting) != position++)
            return false;
    }
    return position == settingCount;
}
static_assert(inOrder(), "the table lists every key in the order of the enumeration");

} // namespace

const SettingKey& settingKey(Setting setting)
{
    return keys[int(setting)];
}
