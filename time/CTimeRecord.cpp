#include "Vantel/Orbel/CTimeRecord.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Vantel/Orbel/CTime.h"

namespace Vantel::Orbel {

class CTimeRecord::Internal {
public:
    struct Sample {
        const char* label;
        uint64_t us;
    };

    std::string name;
    std::vector<Sample> samples;
};

CTimeRecord::CTimeRecord(const char* name, int capacity)
    : mInternal(new Internal{name == nullptr ? "" : name, {}}) {
    // stat() takes one more than the caller did.
    mInternal->samples.reserve(static_cast<size_t>(std::max(capacity, 0)) + 1);
}

CTimeRecord::~CTimeRecord() {
    delete mInternal;
}

void CTimeRecord::reset() {
    mInternal->samples.clear();
}

void CTimeRecord::sample(const char* label) {
    mInternal->samples.push_back({label, CTime::getCurrentMicroSecond()});
}

void CTimeRecord::stat(unsigned minUs) {
    sample(nullptr);
    const auto& samples = mInternal->samples;
    if (minUs != 0 && samples.back().us - samples.front().us < minUs) {
        return;
    }
    const auto text = [](const char* label) { return label == nullptr ? "(null)" : label; };
    for (size_t i = 1; i < samples.size(); ++i) {
        std::printf("%s-Per-%s-%s : %d us\n", mInternal->name.c_str(), text(samples[i - 1].label),
                    text(samples[i].label), static_cast<int>(samples[i].us - samples[i - 1].us));
    }
}

}  // namespace Vantel::Orbel
