#include "plugin/api/cchannel.h"

CChannel::~CChannel() = default;
