#include "plugin/cchannel.h"

CChannel::~CChannel() = default;
