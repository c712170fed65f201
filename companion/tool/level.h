// Levels of sound, in dB below full scale. Pure.
#pragma once

#include <cstdint>
#include <string>

constexpr double kSilenceDb = -96;  // what 16 bits can tell from nothing

// The amplitude, in samples' units, of a sine of this level.
double amplitudeOf(double levelDb);
// The other way round; kSilenceDb at least.
double levelOf(double amplitude);
// A bar of `width` characters, empty at kSilenceDb / 2 and full at 0.
std::string barOf(double levelDb, int width);
