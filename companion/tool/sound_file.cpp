// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/sound_file.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <uafd_companion.h>
#include <unistd.h>
#include <utility>

#include "companion/tool/command.h"

namespace uafd {
namespace {

constexpr uint32_t kNoLength = UINT32_MAX;  // the usual value where the length is unknown
constexpr uint16_t kPcm = 1;
constexpr uint16_t kFloat = 3;
constexpr uint16_t kExtensible = 0xFFFE;  // the format comes at the end
constexpr size_t kExtensionOffset = 24;   // in that extension
constexpr int kFrameBytes = UAFD_CHANNELS * sizeof(int16_t);

// A WAV file is little-endian, like every machine on which this runs.
struct Chunk {
    char id[4];
    uint32_t size;
};
struct Format {
    uint16_t tag;
    uint16_t channels;
    uint32_t rate;
    uint32_t bytesPerSecond;
    uint16_t frameBytes;
    uint16_t sampleBits;
};
struct Header {
    Chunk riff;
    char wave[4];
    Chunk format;
    Format details;
    Chunk data;
};
static_assert(sizeof(Header) == 44, "a WAV header has no gaps");

bool is(const char* id, const char* name) {
    return memcmp(id, name, 4) == 0;
}

bool complain(const std::string& name, const std::string& reason) {
    failed(name, reason);
    return false;
}

bool writeFully(int fd, const void* bytes, size_t size) {
    const auto* from = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = write(fd, from, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        from += std::max<ssize_t>(written, 0);
        size -= static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    return true;
}

ssize_t readSome(int fd, void* bytes, size_t size) {
    ssize_t got = 0;
    do {
        got = read(fd, bytes, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

// ---- Writing -----------------------------------------------------------------------------------

bool SoundWriter::open(const std::string& path, bool raw) {
    name = path == "-" ? "standard output" : path;
    fd = path == "-" ? dup(STDOUT_FILENO)
                     : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        return complain(name, strerror(errno));
    }
    hasHeader = !raw;
    isSeekable = path != "-" && lseek(fd, 0, SEEK_CUR) == 0;
    return raw || writeHeader();
}

bool SoundWriter::writeHeader() {
    const uint64_t riffBytes = sizeof(Header) - sizeof(Chunk) + bytes;
    const bool isKnown = isSeekable && riffBytes < kNoLength;
    const Header header = {
        {{'R', 'I', 'F', 'F'}, isKnown ? static_cast<uint32_t>(riffBytes) : kNoLength},
        {'W', 'A', 'V', 'E'},
        {{'f', 'm', 't', ' '}, sizeof(Format)},
        {kPcm, UAFD_CHANNELS, UAFD_RATE, UAFD_RATE * kFrameBytes, kFrameBytes, 16},
        {{'d', 'a', 't', 'a'}, isKnown ? static_cast<uint32_t>(bytes) : kNoLength}};
    const bool written = isSeekable && bytes > 0
                             ? pwrite(fd, &header, sizeof header, 0) == sizeof header
                             : writeFully(fd, &header, sizeof header);
    return written || complain(name, strerror(errno));
}

bool SoundWriter::write(const int16_t* samples, int frames) {
    const size_t size = static_cast<size_t>(frames) * kFrameBytes;
    if (!writeFully(fd, samples, size)) {
        return complain(name, strerror(errno));
    }
    bytes += size;
    return !hasHeader || !isSeekable || writeHeader();
}

bool SoundWriter::close() {
    const int closing = std::exchange(fd, -1);
    return closing < 0 || ::close(closing) == 0 || complain(name, strerror(errno));
}

// ---- Reading -----------------------------------------------------------------------------------

SoundReader::~SoundReader() {
    if (fd >= 0) {
        close(fd);
    }
}

bool SoundReader::open(const std::string& path, bool raw) {
    name = path == "-" ? "standard input" : path;
    fd = path == "-" ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return complain(name, strerror(errno));
    }
    return raw || readHeader();
}

// Reads up to the beginning of the sound.
bool SoundReader::readHeader() {
    Chunk chunk{};
    char wave[4];
    if (!readFully(&chunk, sizeof chunk) || !readFully(wave, sizeof wave) ||
        !is(chunk.id, "RIFF") || !is(wave, "WAVE")) {
        return complain(name, "it is not a WAV file");
    }
    bool isKnown = false;
    while (readFully(&chunk, sizeof chunk)) {
        if (is(chunk.id, "fmt ")) {
            isKnown = readFormat(chunk.size);
            if (!isKnown) {
                return false;
            }
        } else if (is(chunk.id, "data") && isKnown) {
            bytesLeft = chunk.size == kNoLength ? UINT64_MAX : chunk.size;
            return true;
        } else if (!skip(chunk.size)) {
            break;
        }
    }
    return complain(name, "it ends before its sound begins");
}

bool SoundReader::readFormat(uint32_t size) {
    unsigned char bytes[kExtensionOffset + sizeof(uint16_t)] = {};
    const size_t known = std::min<size_t>(size, sizeof bytes);
    if (!readFully(bytes, known) || !skip(size - static_cast<uint32_t>(known))) {
        return complain(name, "it ends before its sound begins");
    }
    Format format{};
    memcpy(&format, bytes, sizeof format);
    if (format.tag == kExtensible) {
        memcpy(&format.tag, bytes + kExtensionOffset, sizeof format.tag);
    }
    isFloat = format.tag == kFloat;
    sampleBytes = format.sampleBits / 8U;
    frameBytes = format.frameBytes;
    if (format.rate != UAFD_RATE) {
        return complain(name, "its rate is " + std::to_string(format.rate) + " Hz, not 48000 Hz");
    }
    const bool isInteger = format.tag == kPcm && sampleBytes >= 2 && sampleBytes <= 4;
    if ((!isInteger && !(isFloat && sampleBytes == sizeof(float))) ||
        frameBytes != sampleBytes * format.channels || frameBytes == 0) {
        return complain(name, "its samples are neither of 16, 24 or 32 bits nor floating point");
    }
    return true;
}

bool SoundReader::readFully(void* bytes, size_t size) const {
    auto* to = static_cast<char*>(bytes);
    for (ssize_t got = 1; got > 0 && size > 0; size -= static_cast<size_t>(got)) {
        got = std::max<ssize_t>(readSome(fd, to, size), 0);
        to += got;
    }
    return size == 0;
}

bool SoundReader::skip(uint32_t size) const {
    char bytes[512];
    uint64_t left = uint64_t{size} + size % 2;  // odd sizes are padded in the file
    while (left > 0) {
        const size_t part = std::min<uint64_t>(left, sizeof bytes);
        if (!readFully(bytes, part)) {
            return false;
        }
        left -= part;
    }
    return true;
}

// Reads until the buffer holds `size` bytes, or no more can be read at present.
void SoundReader::fill(size_t size) {
    pollfd input = {fd, POLLIN, 0};
    while (buffer.size() < size && bytesLeft > 0 && poll(&input, 1, 0) > 0) {
        const size_t had = buffer.size();
        buffer.resize(had + std::min<uint64_t>(size - had, bytesLeft));
        const ssize_t got = readSome(fd, &buffer[had], buffer.size() - had);
        buffer.resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
        bytesLeft = got > 0 ? bytesLeft - static_cast<uint64_t>(got) : 0;
        good = got >= 0 || complain(name, strerror(errno));
    }
}

int16_t SoundReader::sampleOf(const unsigned char* frame) const {
    if (isFloat) {
        float sample = 0;
        memcpy(&sample, frame, sizeof sample);
        const float scaled = sample * -float{INT16_MIN};
        return static_cast<int16_t>(std::lround(std::clamp(scaled, -32768.0F, 32767.0F)));
    }
    int16_t sample = 0;  // the upper 16 bits
    memcpy(&sample, frame + sampleBytes - sizeof sample, sizeof sample);
    return sample;
}

bool SoundReader::readBlock(int16_t* left) {
    fill(UAFD_BLOCK_FRAMES * frameBytes);
    const size_t frames = std::min<size_t>(buffer.size() / frameBytes, UAFD_BLOCK_FRAMES);
    if (frames < UAFD_BLOCK_FRAMES && bytesLeft > 0) {
        return false;
    }
    std::fill_n(left, UAFD_BLOCK_FRAMES, int16_t{0});
    for (size_t i = 0; i < frames; ++i) {
        left[i] = sampleOf(&buffer[i * frameBytes]);
    }
    buffer.clear();  // which never holds more than a block
    return frames > 0;
}

}  // namespace uafd
