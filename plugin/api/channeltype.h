// The numbers by which hosts distinguish kinds of channels.
#pragma once

namespace ChannelType {

constexpr int dialUp = 2;

} // namespace ChannelType
