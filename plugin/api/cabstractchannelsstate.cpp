#include "plugin/api/cabstractchannelsstate.h"

CAbstractChannelsState::~CAbstractChannelsState() = default;
