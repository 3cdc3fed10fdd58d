// The plug-in object of the dial-up channel.
#pragma once

#include "plugin/api/cchannelplugin.h"

class CComPlugin : public CChannelPlugin
{
public:
    ~CComPlugin() override;

    int type() const override;
    QString name() const override;
    CChannelServer* create() const override;
    void incCallTimeout(int* timeout) const override;
    void decCallTimeout(int* timeout) const override;
};
