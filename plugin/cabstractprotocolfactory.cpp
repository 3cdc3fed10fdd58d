#include "plugin/cabstractprotocolfactory.h"

CAbstractProtocolFactory::~CAbstractProtocolFactory() = default;
