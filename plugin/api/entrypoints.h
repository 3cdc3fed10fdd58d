// The four functions through which a host uses a channel plug-in. They have C linkage: resolve them
// by these names from the loaded library.
#pragma once

class CChannelPlugin;
struct DebugData;

// The version of this interface. A host refuses a library that returns another one.
constexpr int channelApiVersion = 16;

extern "C" {

// Returns channelApiVersion as it was when the library was built. Call it first.
using ApiVersionFunction = int (*)();

// Returns a new plug-in object on every call; give each back to deleteInstance.
using InstanceFunction = CChannelPlugin* (*)();

// Deletes a plug-in object; null is ignored. Servers it created may live on.
using DeleteInstanceFunction = void (*)(CChannelPlugin* plugin);

// Hands the host's logging record over, so that host and plug-in write their log
// under one lock. Call it before instance(); the record must outlive the library.
using InitDebugFunction = void (*)(DebugData* data);
}
