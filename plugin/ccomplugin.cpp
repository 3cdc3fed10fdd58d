#include "plugin/ccomplugin.h"

#include "com/ccomserver.h"
#include "common/functiondebug.h"
#include "common/legacyrandom.h"

namespace {

constexpr int comChannelType = 2;

// Which band a timeout is in is decided by its value on entry; what comes out of a band
// may well lie in another one.
constexpr int longestShortTimeout = 29;
constexpr int longestTimeout = 900;

// Unseeded: the host decides what the generator starts from.
int randomBelow(int bound)
{
    return legacyRandom() % bound;
}

} // namespace

CComPlugin::~CComPlugin() = default;

int CComPlugin::type() const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    return comChannelType;
}

QString CComPlugin::name() const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    return CComServer::name();
}

CChannelServer* CComPlugin::create() const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    return new CComServer;
}

void CComPlugin::incCallTimeout(int* timeout) const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    if (*timeout > longestTimeout) {
        *timeout = 420 + randomBelow(480);
        return;
    }
    const int base = *timeout <= longestShortTimeout ? 30 + randomBelow(60) : *timeout;
    *timeout = base + randomBelow(base);
}

void CComPlugin::decCallTimeout(int* timeout) const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    if (*timeout > longestTimeout) {
        *timeout = 600 + randomBelow(300);
        return;
    }
    const int base = *timeout <= longestShortTimeout ? 20 + randomBelow(40) : *timeout;
    const int spread = static_cast<int>(base / 2.5); // at least 8, as base is at least 20
    *timeout = base - (randomBelow(spread) + 10);
}
