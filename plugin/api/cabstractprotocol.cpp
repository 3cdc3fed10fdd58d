#include "plugin/api/cabstractprotocol.h"

CAbstractProtocol::~CAbstractProtocol()
{
    delete channel;
}

void CAbstractProtocol::start()
{
    wasUseful = false;
}

void CAbstractProtocol::stop() {}
