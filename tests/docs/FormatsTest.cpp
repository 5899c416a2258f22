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
std::string heading(const char* name, size_t size) {
    return std::string("### `") + name + "`, " + std::to_string(size) + " bytes";
}

#define HEADING(type) heading(#type, sizeof(type))
#define ROW(type, field) row(#field, offsetof(type, field), sizeof(type::field))

const std::vector<Format> kFormats = {
    {HEADING(DomainHeader),
     {ROW(DomainHeader, magic), ROW(DomainHeader, version), ROW(DomainHeader, ready),
      ROW(DomainHeader, nodeCount), ROW(DomainHeader, poolCount), ROW(DomainHeader, masterPid),
      ROW(DomainHeader, pools), ROW(DomainHeader, lock), ROW(DomainHeader, nodes)}},
    {HEADING(PoolInfo),
     {ROW(PoolInfo, name), ROW(PoolInfo, poolId), ROW(PoolInfo, blockSize),
      ROW(PoolInfo, extraSize), ROW(PoolInfo, blockCount), ROW(PoolInfo, state)}},
    {HEADING(NodeInfo),
     {ROW(NodeInfo, name), ROW(NodeInfo, pid), ROW(NodeInfo, nodeId), ROW(NodeInfo, lastCheckTime),
      ROW(NodeInfo, state)}},
    {HEADING(PoolHeader),
     {ROW(PoolHeader, magic), ROW(PoolHeader, blockSize), ROW(PoolHeader, extraSize),
      ROW(PoolHeader, blockCount), ROW(PoolHeader, headerStride), ROW(PoolHeader, dataOffset),
      ROW(PoolHeader, nextIndex), ROW(PoolHeader, lock)}},
    {HEADING(BlockHeader),
     {ROW(BlockHeader, location), ROW(BlockHeader, size), ROW(BlockHeader, extraDataSize),
      ROW(BlockHeader, status)}},
    {HEADING(BlockStatus),
     {ROW(BlockStatus, state), ROW(BlockStatus, masks), ROW(BlockStatus, writeRef),
      ROW(BlockStatus, readRef), ROW(BlockStatus, writerId), ROW(BlockStatus, channelId),
      ROW(BlockStatus, timestamp), ROW(BlockStatus, readerIds)}},
    {HEADING(ChannelStatus),
     {ROW(ChannelStatus, magic), ROW(ChannelStatus, writerIds), ROW(ChannelStatus, readerIds),
      ROW(ChannelStatus, lock)}},
    {HEADING(PipeMessage),
     {ROW(PipeMessage, fd), ROW(PipeMessage, location), ROW(PipeMessage, channelId),
      ROW(PipeMessage, writerId), ROW(PipeMessage, sequence)}},
    {HEADING(ShmBufferHeader),
     {ROW(ShmBufferHeader, version), ROW(ShmBufferHeader, nodeSize),
      ROW(ShmBufferHeader, nodeCount), ROW(ShmBufferHeader, tail), ROW(ShmBufferHeader, valid),
      ROW(ShmBufferHeader, sigThreshold), ROW(ShmBufferHeader, sigSlots),
      ROW(ShmBufferHeader, mutexes), ROW(ShmBufferHeader, readers)}},
    {HEADING(ShmReaderSlot),
     {ROW(ShmReaderSlot, pid), ROW(ShmReaderSlot, head), ROW(ShmReaderSlot, eventEnabled),
      ROW(ShmReaderSlot, signalling), ROW(ShmReaderSlot, skippedSignals),
      ROW(ShmReaderSlot, lastActive)}},
    {"### `ShmNode`",
     {ROW(ShmNode, word), ROW(ShmNode, writerPid), ROW(ShmNode, timestamp), ROW(ShmNode, size)}},
    {HEADING(ShmTripleHeader),
     {ROW(ShmTripleHeader, version), ROW(ShmTripleHeader, slotSize), ROW(ShmTripleHeader, valid),
      ROW(ShmTripleHeader, state)}},
    {HEADING(ShmTripleSlot),
     {ROW(ShmTripleSlot, seqBegin), ROW(ShmTripleSlot, seqEnd), ROW(ShmTripleSlot, size)}},
    {HEADING(ZoneHead), {ROW(ZoneHead, size), ROW(ZoneHead, magic)}},
    {HEADING(List), {ROW(List, prev), ROW(List, next)}},
    {HEADING(BuddyInfo),
     {ROW(BuddyInfo, blockNum), ROW(BuddyInfo, pageShift), ROW(BuddyInfo, listOffset),
      ROW(BuddyInfo, nodeOffset), ROW(BuddyInfo, dataSize), ROW(BuddyInfo, pageSize),
      ROW(BuddyInfo, orderNum)}},
    {HEADING(PageNode),
     {ROW(PageNode, index), ROW(PageNode, order), ROW(PageNode, link), ROW(PageNode, privateArea)}},
    {HEADING(SmallMemPageDesc),
     {ROW(SmallMemPageDesc, pageLink), ROW(SmallMemPageDesc, freeList),
      ROW(SmallMemPageDesc, dataOffset), ROW(SmallMemPageDesc, blockNum),
      ROW(SmallMemPageDesc, usedBitmap)}},
    {HEADING(ReferNode),
     {ROW(ReferNode, offset), ROW(ReferNode, deliverRef), ROW(ReferNode, expire),
      ROW(ReferNode, link), ROW(ReferNode, pidList)}},
    {HEADING(PidNode), {ROW(PidNode, link), ROW(PidNode, pid)}},
    {HEADING(ShareDescription),
     {ROW(ShareDescription, magic), ROW(ShareDescription, tailOffset),
      ROW(ShareDescription, packetSize), ROW(ShareDescription, extraSize),
      ROW(ShareDescription, block)}},
    {HEADING(BlockDescription),
     {ROW(BlockDescription, magic), ROW(BlockDescription, type), ROW(BlockDescription, dataSize),
      ROW(BlockDescription, offset), ROW(BlockDescription, size)}},
    {HEADING(LogPacketHeader),
     {ROW(LogPacketHeader, magic), ROW(LogPacketHeader, cmd), ROW(LogPacketHeader, size),
      ROW(LogPacketHeader, reserved)}},
    {HEADING(LogRegistration),
     {ROW(LogRegistration, moduleName), ROW(LogRegistration, processId),
      ROW(LogRegistration, reserved)}},
    {HEADING(LogSubscription), {ROW(LogSubscription, moduleName)}},
    {HEADING(LogText), {ROW(LogText, text)}},
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
