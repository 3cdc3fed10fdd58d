// Marks the interface classes that host and plug-in share: they stay visible outside the library,
// so that both use the same copy of their type information.
#pragma once

#include <QtGlobal>

#define CHANNELAPI_EXPORT Q_DECL_EXPORT
