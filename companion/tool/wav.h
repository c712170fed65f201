// WAV files, through libsndfile. Failures are told on standard error. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sf_private_tag;

// Stereo, 16 bits, 48000 Hz.
class WavWriter {
  public:
    ~WavWriter();
    bool open(const std::string& path);
    bool write(const int16_t* samples, int frames);
    // Completes the file; false when it could not be written.
    bool close();

  private:
    sf_private_tag* file_ = nullptr;
};

// The left channel of a file of 48000 Hz; false for any other.
bool readWav(const std::string& path, std::vector<int16_t>* left);
