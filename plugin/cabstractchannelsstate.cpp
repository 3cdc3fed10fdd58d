#include "plugin/cabstractchannelsstate.h"

CAbstractChannelsState::~CAbstractChannelsState() = default;
