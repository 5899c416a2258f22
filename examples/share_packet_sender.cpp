// Makes a frame in shared memory for each reader that connects, sends it the description, and lets
// go of the frame. From then on the reader alone keeps it alive; if the reader dies, the pool has
// its memory back within two seconds.
//     share_packet_sender /tmp/frames.sock 3      ends after 3 readers, when all memory is back
//
// There is one pool on a machine: a second sender takes it from the first.

#include <cstdio>
#include <cstdlib>

#include "FrameInfo.h"
#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Memory/SharePacket.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/UnixServer.h"
#include "Vantel/Utils/Checksum.h"

using namespace Vantel::Memory;
using namespace Vantel::Orbel;

namespace {

constexpr int kFrameBytes = 640 * 480;

uint32_t freeBytes() {
    uint32_t size = 0;
    ShareMemoryManager::instance()->getMemFreeSize(size);
    return size;
}

// A picture, written straight to where the reader will see it.
Packet makeFrame(uint32_t number) {
    Packet frame(kFrameBytes, sizeof(FrameInfo));
    if (!frame.valid() || !frame.resize(kFrameBytes)) {
        return {};
    }
    uint8_t* pixels = frame.getBuffer();
    for (int i = 0; i < kFrameBytes; ++i) {
        pixels[i] = static_cast<uint8_t>(number + static_cast<uint32_t>(i % 251));
    }
    auto* info = static_cast<FrameInfo*>(frame.getExtraData());
    *info = {number, Vantel::Utils::crc32(pixels, kFrameBytes)};
    return frame;
}

void sendFrame(const StreamConnectionPtr& reader, uint32_t number) {
    const Packet frame = makeFrame(number);
    const Packet description = SharePacket::instance()->convertDescribe(frame);
    if (!description.valid()) {
        fprintf(stderr, "no room for frame %u\n", number);
        reader->forceClose();
        return;
    }
    reader->send(description.getBuffer(), static_cast<size_t>(description.size()));
    printf("sent frame %u: %d bytes, as %d\n", number, frame.size(), description.size());
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "/tmp/frames.sock";
    const auto readers = static_cast<uint32_t>(argc > 2 ? atoi(argv[2]) : 3);

    initializeMemory(policyShare, nullptr, nullptr);
    SharePacket::Param param{};
    param.role = 1;  // the one process that creates the pool, and cleans it
    param.dataSize = 8 << 20;
    param.pageSize = 4096;
    if (!SharePacket::instance()->initialPacket(&param)) {
        fprintf(stderr, "no shared memory\n");
        return 1;
    }
    const uint32_t allFree = freeBytes();

    EventLoop loop;
    UnixServer server(&loop, "frames");
    uint32_t sent = 0;
    server.setConnectionCallback(
        [&](const StreamConnectionPtr& reader) { sendFrame(reader, ++sent); });
    server.setMessageCallback([](const StreamConnectionPtr& reader, NetBuffer*) {
        reader->forceClose();  // readers have nothing to say
    });
    bool wasFree = true;
    loop.addTimer(
        [&] {
            const bool isFree = freeBytes() == allFree;
            if (isFree != wasFree) {
                printf(isFree ? "all free\n" : "in use\n");
                fflush(stdout);
            }
            wasFree = isFree;
            if (isFree && sent >= readers) {
                loop.quit();
            }
        },
        20, true);
    if (!server.initial(InetAddress::createUnix(path), "", false) || !server.start()) {
        perror(path);
        return 1;
    }
    printf("waiting for %u readers\n", readers);
    fflush(stdout);
    loop.loop();
}
