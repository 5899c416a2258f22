// The tables of docs/formats.md are what the headers say: same fields, offsets and sizes.
#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include "Vantel/Log/LogPacket.h"
#include "ipc/PipeMessage.h"
#include "ipc/RingLayout.h"
#include "ipc/SegmentLayout.h"
#include "ipc/TripleLayout.h"
#include "memory/share/BlockDescription.h"
#include "memory/share/BuddyLayout.h"
#include "memory/share/MemoryRefer.h"
#include "memory/share/ShareDescription.h"

namespace {

using namespace Vantel::Orbel;
using namespace Vantel::Log;
using namespace Vantel::Memory;

struct Format {
    std::string heading;  // with the size, where the format has one of its own
    std::vector<std::string> rows;
};

std::string row(const char* name, size_t offset, size_t size) {
    return "| " + std::to_string(offset) + " | " + std::to_string(size) + " | `" + name + "` |";
}
Format withSize(Format format, size_t size) {
    format.heading += ", " + std::to_string(size) + " bytes";
    return format;
}

#define F(field) row(#field, offsetof(T, field), sizeof(T::field))
#define OPEN_FORMAT(type, ...)                           \
    [] {                                                 \
        using T = type;                                  \
        return Format{"### `" #type "`", {__VA_ARGS__}}; \
    }()
#define FORMAT(type, ...) withSize(OPEN_FORMAT(type, __VA_ARGS__), sizeof(type))

const std::vector<Format> kFormats = {
    FORMAT(DomainHeader, F(magic), F(version), F(ready), F(nodeCount), F(poolCount), F(masterPid),
           F(pools), F(lock), F(nodes)),
    FORMAT(PoolInfo, F(name), F(poolId), F(blockSize), F(extraSize), F(blockCount), F(state)),
    FORMAT(NodeInfo, F(name), F(pid), F(nodeId), F(lastCheckTime), F(state)),
    FORMAT(PoolHeader, F(magic), F(blockSize), F(extraSize), F(blockCount), F(headerStride),
           F(dataOffset), F(nextIndex), F(lock)),
    FORMAT(BlockHeader, F(location), F(size), F(extraDataSize), F(status)),
    FORMAT(BlockStatus, F(state), F(masks), F(writeRef), F(readRef), F(writerId), F(channelId),
           F(timestamp), F(readerIds)),
    FORMAT(ChannelStatus, F(magic), F(writerIds), F(readerIds), F(lock)),
    FORMAT(PipeMessage, F(fd), F(location), F(channelId), F(writerId), F(sequence)),
    FORMAT(ShmBufferHeader, F(version), F(nodeSize), F(nodeCount), F(tail), F(valid),
           F(sigThreshold), F(sigSlots), F(mutexes), F(readers)),
    FORMAT(ShmReaderSlot, F(pid), F(head), F(eventEnabled), F(signalling), F(skippedSignals),
           F(lastActive)),
    OPEN_FORMAT(ShmNode, F(word), F(writerPid), F(timestamp), F(size)),
    FORMAT(ShmTripleHeader, F(version), F(slotSize), F(valid), F(state)),
    FORMAT(ShmTripleSlot, F(seqBegin), F(seqEnd), F(size)),
    FORMAT(ZoneHead, F(size), F(magic)),
    FORMAT(List, F(prev), F(next)),
    FORMAT(BuddyInfo, F(blockNum), F(pageShift), F(listOffset), F(nodeOffset), F(dataSize),
           F(pageSize), F(orderNum)),
    FORMAT(PageNode, F(index), F(order), F(link), F(privateArea)),
    FORMAT(SmallMemPageDesc, F(pageLink), F(freeList), F(dataOffset), F(blockNum), F(usedBitmap)),
    FORMAT(ReferNode, F(offset), F(deliverRef), F(expire), F(link), F(pidList)),
    FORMAT(PidNode, F(link), F(pid)),
    FORMAT(ShareDescription, F(magic), F(tailOffset), F(packetSize), F(extraSize), F(block)),
    FORMAT(BlockDescription, F(magic), F(type), F(dataSize), F(offset), F(size)),
    FORMAT(LogPacketHeader, F(magic), F(cmd), F(size), F(reserved)),
    FORMAT(LogRegistration, F(moduleName), F(processId), F(reserved)),
    FORMAT(LogSubscription, F(moduleName)),
    FORMAT(LogText, F(text)),
};

// The page's formats, in order: each heading of the third level with its rows up to the field.
std::vector<Format> readPage(const std::string& path) {
    std::vector<Format> formats;
    std::ifstream page(path);
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("### ", 0) == 0) {
            formats.push_back({line, {}});
        } else if (line.rfind("| ", 0) == 0 && line.find("` |") != std::string::npos &&
                   !formats.empty()) {
            formats.back().rows.push_back(line.substr(0, line.find("` |") + 3));
        }
    }
    return formats;
}

TEST(Formats, ThePageSaysWhatTheHeadersSay) {
    const auto page = readPage(ORBEL_SOURCE_DIR "/docs/formats.md");
    ASSERT_EQ(page.size(), kFormats.size());
    for (size_t i = 0; i < page.size(); ++i) {
        EXPECT_EQ(page[i].heading, kFormats[i].heading);
        EXPECT_EQ(page[i].rows, kFormats[i].rows) << page[i].heading;
    }
}

}  // namespace
