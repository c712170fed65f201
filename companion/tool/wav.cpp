#include "companion/tool/wav.h"

#include <cstdio>
#include <sndfile.h>
#include <uafd_companion.h>

namespace {

bool complain(const std::string& path, const char* what) {
    fprintf(stderr, "uafd-companion: %s: %s\n", path.c_str(), what);
    return false;
}

}  // namespace

WavWriter::~WavWriter() {
    close();
}

bool WavWriter::open(const std::string& path) {
    SF_INFO info{};
    info.samplerate = UAFD_RATE;
    info.channels = UAFD_CHANNELS;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    file_ = sf_open(path.c_str(), SFM_WRITE, &info);
    return file_ != nullptr || complain(path, sf_strerror(nullptr));
}

bool WavWriter::write(const int16_t* samples, int frames) {
    return sf_writef_short(file_, samples, frames) == frames ||
           complain("writing", sf_strerror(file_));
}

bool WavWriter::close() {
    SNDFILE* const file = file_;
    file_ = nullptr;
    return file == nullptr || sf_close(file) == 0 || complain("closing", "the file is not whole");
}

bool readWav(const std::string& path, std::vector<int16_t>* left) {
    SF_INFO info{};
    SNDFILE* const file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        return complain(path, sf_strerror(nullptr));
    }
    const bool fits = info.samplerate == UAFD_RATE;
    const auto channels = static_cast<size_t>(info.channels);
    std::vector<int16_t> frame(channels);
    while (fits && sf_readf_short(file, frame.data(), 1) == 1) {
        left->push_back(frame[0]);
    }
    sf_close(file);
    return fits || complain(path, "its rate is not 48000 Hz");
}
