// SPDX-License-Identifier: Apache-2.0
#include "tests/support/ssrs_model.h"

#include <algorithm>
#include <cmath>

namespace uafd {

int SsrsModel::setFrameSize(int n) {
    if (n < 1 || n > 960) {
        return 3;
    }
    frameSize = n;
    return 0;
}

int SsrsModel::setQBuff(bool haveStorage, int64_t len) {
    if (!haveStorage) {
        return 2;
    }
    if (len < 1) {
        return 3;
    }
    if (len % 2 == 0) {
        capacity = len;
    }
    attached = true;
    length = len;
    held.clear();
    return 0;
}

int SsrsModel::setQDepth(int64_t newLow, int64_t newHigh) {
    if (newLow < 0 || newHigh < 0 || newLow > newHigh || newLow > length || newHigh > length) {
        return 3;
    }
    if (!attached) {
        return 4;
    }
    held.clear();
    low = newLow;
    high = newHigh;
    pending = 1;
    average = 0;
    return 0;
}

int SsrsModel::write(const int16_t* data, int64_t n) {
    if (data == nullptr) {
        stats.wrErrors++;
        return 2;
    }
    if (n < 0 || n > length) {
        stats.wrErrors++;
        return 3;
    }
    if (n == 0) {
        return 0;
    }
    stats.wrSamples += static_cast<uint32_t>(n);
    stats.wrCalls++;
    if (pending != 0) {
        pending = 0;
        for (int64_t pad = (low + high) / 2 - n; pad > 0 && size() < capacity; pad--) {
            held.push_back(0);
        }
    }
    if (n > capacity) {
        return 0;
    }
    if (size() + n > capacity) {
        stats.overruns++;
        return 6;
    }
    held.insert(held.end(), data, data + n);
    return 0;
}

SsrsModel::Samples SsrsModel::read() {
    const int64_t depth = size();
    average += (depth * 10000 - average) / 100;
    const int64_t count = frameSize + correction(depth);
    if (depth == 0) {
        stats.stretchCnt--;
        pending++;
    } else {
        stats.rdCalls++;
        stats.rdSamples += static_cast<uint32_t>(std::min(depth, count));
    }
    if (depth > 0 && depth < count) {
        stats.underruns++;
        pending++;
    }
    return overlaid(frameOf(taken(count)));
}

int SsrsModel::refuseRead() {
    stats.rdErrors++;
    return 2;
}

SSRS_Stats SsrsModel::statistics() const {
    SSRS_Stats copy = stats;
    copy.avgDepth = static_cast<int32_t>(average / 10000);
    return copy;
}

int SsrsModel::correction(int64_t depth) {
    if (fixedRate) {
        return 0;
    }
    stats.compressCnt += depth > high ? 1 : 0;
    stats.stretchCnt += depth < low ? 1 : 0;
    return depth > high ? 1 : (depth < low ? -1 : 0);
}

// Empty when the queue refuses; else `count` samples, with silence where samples are missing.
SsrsModel::Samples SsrsModel::taken(int64_t count) {
    Samples samples;
    while (count <= capacity && static_cast<int64_t>(samples.size()) < count) {
        samples.push_back(held.empty() ? int16_t{0} : held.front());
        held.empty() ? void() : held.pop_front();
    }
    return samples;
}

SsrsModel::Samples SsrsModel::frameOf(const Samples& in) const {
    Samples out(static_cast<size_t>(frameSize));
    if (in.empty() || in.size() == out.size()) {
        return in.empty() ? out : in;
    }
    out.front() = in.front();
    out.back() = in.back();
    if (frameSize < 3) {
        return out;
    }
    const float ratio = static_cast<float>(in.size() - 1) / static_cast<float>(frameSize - 1);
    const auto step = static_cast<int64_t>(std::floor(double{ratio} * 65536 + 0.5));
    for (int64_t i = 1; i < frameSize - 1; i++) {
        const int64_t a = in.at(static_cast<size_t>(i * step / 65536));
        const int64_t b = in.at(static_cast<size_t>(i * step / 65536) + 1);
        const auto rise = static_cast<double>((b - a) * (i * step % 65536) + 32768) / 65536;
        out[static_cast<size_t>(i)] = static_cast<int16_t>(a + std::lround(std::floor(rise)));
    }
    return out;
}

SsrsModel::Samples SsrsModel::overlaid(Samples frame) const {
    for (size_t i = 0; testTone && i < frame.size(); i++) {
        const double angle = 2 * M_PI * static_cast<double>(i % 32) / 32;
        frame[i] =
            i % 32 < 16 ? static_cast<int16_t>(std::lround(1000 * std::cos(angle))) : frame[i];
    }
    return frame;
}

}  // namespace uafd
