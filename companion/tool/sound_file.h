// SPDX-License-Identifier: Apache-2.0
// Sound in files and pipes: WAV, or raw as in the FIFOs: stereo, 16 bits, 48000 Hz, without a
// header. "-" is standard input or output. Errors are reported on standard error. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace uafd {

// Writes stereo sound, replacing the file's contents.
class SoundWriter {
  public:
    ~SoundWriter() { close(); }
    bool open(const std::string& path, bool raw);
    // After each call the file is valid and can be played, even if the process is killed. The
    // header states no length in a pipe, or when a file exceeds 4 GiB, after six hours.
    bool write(const int16_t* samples, int frames);
    // False when something could not be written.
    bool close();

  private:
    bool writeHeader();

    std::string name;
    int fd = -1;
    bool hasHeader = false;   // WAV
    bool isSeekable = false;  // the header can be rewritten
    uint64_t bytes = 0;       // of sound
};

// Reads the left channel.
class SoundReader {
  public:
    ~SoundReader();
    // Opens the file. For WAV it waits for the header and reads it: any number of channels, 16, 24
    // or 32 bits or floating point, 48000 Hz.
    bool open(const std::string& path, bool raw);
    // Fills a block of UAFD_BLOCK_FRAMES, the last one padded with silence; false at the end, or
    // when there is not enough to read yet. Never waits.
    bool readBlock(int16_t* left);
    // False when an error caused the end.
    bool isGood() const { return good; }
    bool isAtEnd() const { return buffer.size() < frameBytes && bytesLeft == 0; }

  private:
    bool readHeader();
    bool readFormat(uint32_t size);
    bool readFully(void* bytes, size_t size) const;
    bool skip(uint32_t size) const;
    void fill(size_t size);
    int16_t sampleOf(const unsigned char* frame) const;

    std::string name;
    int fd = -1;
    bool good = true;
    bool isFloat = false;
    size_t frameBytes = 4;
    size_t sampleBytes = 2;
    uint64_t bytesLeft = UINT64_MAX;  // of sound after the buffer; 0 from the end of the file on
    std::vector<unsigned char> buffer;
};

}  // namespace uafd
