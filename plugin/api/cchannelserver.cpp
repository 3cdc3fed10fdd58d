#include "plugin/api/cchannelserver.h"

#include "plugin/api/cabstractprotocolfactory.h"

CChannelServer::CChannelServer() = default;

CChannelServer::~CChannelServer()
{
    delete protocolFactory;
}

void CChannelServer::start() {}

void CChannelServer::stop() {}

void CChannelServer::settingsWasChanged() {}
