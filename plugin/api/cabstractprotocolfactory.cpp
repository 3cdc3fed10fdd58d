#include "plugin/api/cabstractprotocolfactory.h"

CAbstractProtocolFactory::~CAbstractProtocolFactory() = default;
