// The functions that a host resolves in the loaded library.
#include "common/logger.h"
#include "plugin/api/entrypoints.h"
#include "plugin/ccomplugin.h"

#include <type_traits>

extern "C" {

Q_DECL_EXPORT int apiVersion()
{
    return channelApiVersion;
}

Q_DECL_EXPORT CChannelPlugin* instance()
{
    return new CComPlugin;
}

Q_DECL_EXPORT void deleteInstance(CChannelPlugin* plugin)
{
    delete plugin;
}

Q_DECL_EXPORT void initDebug(DebugData* data)
{
    LoggerData::initDebug(data);
}

} // extern "C"

static_assert(std::is_same_v<decltype(&apiVersion), ApiVersionFunction>);
static_assert(std::is_same_v<decltype(&instance), InstanceFunction>);
static_assert(std::is_same_v<decltype(&deleteInstance), DeleteInstanceFunction>);
static_assert(std::is_same_v<decltype(&initDebug), InitDebugFunction>);
