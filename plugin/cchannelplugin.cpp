#include "plugin/cchannelplugin.h"

CChannelPlugin::~CChannelPlugin() = default;
