// The noise of each port's last call, from which the next one starts: on a noisy line the first
// minute would otherwise go by with packets that are too large.
#pragma once

#include "com/link/noiseestimate.h"

#include <QString>

// Any thread may call both. Kept as long as the process lives.
NoiseEstimate rememberedNoise(const QString& portName);
void rememberNoise(const QString& portName, const NoiseEstimate& noise);
