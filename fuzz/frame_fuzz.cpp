// The frame header as the attach client's receive buffer meets it and as
// read_frame reads it: both must find the same frames and refuse the same
// bad length. Bytes pass through except 0xFF n c, which stands for n KiB
// of c, so that short inputs reach frames that grow the buffer past 64 KiB.
#include "client/protocol/frame.hpp"
#include "client/receive_buffer.hpp"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

using namespace tovel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string stream;
    for (std::size_t i = 0; i < size && stream.size() < (1u << 20); ++i) {
        bool run = data[i] == 0xFF && i + 2 < size;
        stream.append(run ? data[i + 1] * 1024u : 1u, static_cast<char>(data[run ? i + 2 : i]));
        i += run ? 2 : 0;
    }
    int fd = memfd_create("frames", MFD_CLOEXEC);
    if (pwrite(fd, stream.data(), stream.size(), 0) != static_cast<ssize_t>(stream.size()))
        std::abort();
    ReceiveBuffer buffer;
    bool refused = false;
    for (std::string_view rest = stream; !rest.empty() && !refused;) {
        auto room = buffer.freeSpace(); // an empty room would read as end of stream
        if (!room || room->empty())
            std::abort();
        buffer.filled(rest.copy(room->data(), room->size()));
        rest.remove_prefix(std::min(rest.size(), room->size()));
        std::string_view held = buffer.data();
        while (!refused && held.size() >= kFrameHeaderSize) {
            std::uint32_t length = getU32(held.data());
            refused = length == 0 || length > kMaxFrameLength;
            if (refused || held.size() < length + 4u)
                break;
            auto frame = read_frame(fd);
            if (!frame || !*frame || (*frame)->type != static_cast<std::uint8_t>(held[4]) ||
                (*frame)->payload != held.substr(5, length - 1))
                std::abort();
            held.remove_prefix(length + 4u);
        }
        buffer.consume(buffer.data().size() - held.size());
    }
    auto last = read_frame(fd);
    close(fd);
    if (refused != (!last && last.error() == Error::InvalidFrameLength))
        std::abort();
    return 0;
}
