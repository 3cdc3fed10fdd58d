// The numbers by which hosts tell kinds of channels apart.
#pragma once

namespace ChannelType {

constexpr int dialUp = 2;

} // namespace ChannelType
