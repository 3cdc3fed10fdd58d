#include "plugin/ccomplugin.h"

#include "com/worker/ccomserver.h"
#include "common/functiondebug.h"
#include "common/legacyrandom.h"
#include "plugin/api/channeltype.h"

namespace {

// Which band a timeout is in is decided by its value on entry; what comes out of a band
// may well lie in another one.
constexpr int longestShortTimeout = 29;
constexpr int longestTimeout = 900;

// Unseeded: the host decides what the generator starts from.
int randomBelow(int bound)
{
    return legacyRandom() % bound;
}

int lengthened(int timeout)
{
    if (timeout > longestTimeout)
        return 420 + randomBelow(480);
    const int base = timeout <= longestShortTimeout ? 30 + randomBelow(60) : timeout;
    return base + randomBelow(base);
}

int shortened(int timeout)
{
    if (timeout > longestTimeout)
        return 600 + randomBelow(300);
    const int base = timeout <= longestShortTimeout ? 20 + randomBelow(40) : timeout;
    const int spread = static_cast<int>(base / 2.5); // at least 8, as base is at least 20
    return base - (randomBelow(spread) + 10);
}

} // namespace

CComPlugin::~CComPlugin() = default;

int CComPlugin::type() const
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    return ChannelType::dialUp;
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

// The numbers are drawn before the scope opens: the first scope of a process reads the
// settings, and the test for write access that comes with it draws a number too.
void CComPlugin::incCallTimeout(int* timeout) const
{
    *timeout = lengthened(*timeout);
    _CFunctionDebug trace(Q_FUNC_INFO);
}

void CComPlugin::decCallTimeout(int* timeout) const
{
    *timeout = shortened(*timeout);
    _CFunctionDebug trace(Q_FUNC_INFO);
}
