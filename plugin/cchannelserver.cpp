#include "plugin/cchannelserver.h"

#include "plugin/cabstractprotocolfactory.h"

CChannelServer::CChannelServer() = default;

CChannelServer::~CChannelServer()
{
    delete protocolFactory;
}

void CChannelServer::start() {}

void CChannelServer::stop() {}

void CChannelServer::settingsWasChanged() {}
