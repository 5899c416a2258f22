// Gets the description of a frame from share_packet_sender, reads the frame in place, in shared
// memory, and lets go of it.
//     share_packet_reader /tmp/frames.sock
//     share_packet_reader /tmp/frames.sock hold       keeps it until it is killed

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FrameInfo.h"
#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/SharePacket.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/UnixClient.h"
#include "Vantel/Utils/Checksum.h"

using namespace Vantel::Memory;
using namespace Vantel::Orbel;

namespace {

void freeBytes(void* bytes, unsigned long, unsigned char*) {
    free(bytes);
}

// The frame that a description stands for; invalid if it is gone, or was none.
Packet claim(const uint8_t* bytes) {
    void* copy = malloc(kDescriptionBytes);
    if (copy == nullptr) {
        return {};
    }
    memcpy(copy, bytes, kDescriptionBytes);
    const Packet description(copy, kDescriptionBytes, Packet::FreeFunction(&freeBytes));
    const Packet frame = SharePacket::instance()->convertOriginal(description);
    // What is no description comes back as it is.
    return frame.getBuffer() != description.getBuffer() ? frame : Packet();
}

bool show(const Packet& frame) {
    if (!frame.valid() || frame.getExtraSize() != sizeof(FrameInfo)) {
        fprintf(stderr, "no frame\n");
        return false;
    }
    FrameInfo info;
    memcpy(&info, frame.getExtraData(), sizeof info);
    const uint32_t checksum = Vantel::Utils::crc32(frame.getBuffer(), frame.size());
    printf("frame %u: %d bytes, checksum %s\n", info.number, frame.size(),
           checksum == info.checksum ? "ok" : "WRONG");
    fflush(stdout);
    return checksum == info.checksum;
}

}  // namespace

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "/tmp/frames.sock";
    const bool hold = argc > 2 && strcmp(argv[2], "hold") == 0;

    initializeMemory(policyShare, nullptr, nullptr);
    SharePacket::Param param{};
    param.role = 0;  // attach to the sender's pool
    if (!SharePacket::instance()->initialPacket(&param)) {
        fprintf(stderr, "no pool: start share_packet_sender first\n");
        return 1;
    }

    EventLoop loop;
    loop.setMode(kLoopTimed);  // give up after ten seconds
    loop.setTimeout(10000);
    UnixClient client(&loop, "reader");
    Packet frame;
    client.setMessageCallback([&](const StreamConnectionPtr&, NetBuffer* input) {
        if (input->size() >= kDescriptionBytes) {
            frame = claim(input->data());
            input->clear();
            loop.quit();
        }
    });
    client.setCloseCallback([&](const StreamConnectionPtr&) { loop.quit(); });
    if (!client.connect(InetAddress::createUnix(path), 1000)) {
        perror(path);
        return 1;
    }
    loop.loop();
    if (!show(frame)) {
        return 1;
    }
    if (hold) {
        pause();
    }
}
