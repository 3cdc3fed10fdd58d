#include "plugin/api/cchannelplugin.h"

CChannelPlugin::~CChannelPlugin() = default;
