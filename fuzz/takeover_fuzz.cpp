// The portable-takeover payload decoder: any accepted request re-encodes to
// a payload that decodes to the same metadata, and an accepted rejection
// record re-encodes to the very bytes it came from.
#include "client/protocol/portable_takeover.hpp"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view payload(reinterpret_cast<const char*>(data), size);
    if (auto request = tovel::decodePortableTakeover(payload)) {
        auto encoded = tovel::encodePortableTakeover(*request);
        if (!encoded || tovel::decodePortableTakeover(*encoded) != request)
            std::abort();
    }
    if (auto rejection = tovel::decodeTakeoverRejection(payload)) {
        if (tovel::encodeTakeoverRejection(*rejection) != payload)
            std::abort();
    }
    return 0;
}
